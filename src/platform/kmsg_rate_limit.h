// The kernel's limit on the records written through one open /dev/kmsg, kept by the
// writer so that the kernel drops none: at most kBurst records in any kInterval, the
// kernel's default (printk.devkmsg=ratelimit). The kmsg output asks it before each
// record it must not lose and waits as long as it says; pure, so tests give the times.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>

namespace bootstrand {

class KmsgRateLimit {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kBurst = 10;
  static constexpr Clock::duration kInterval = std::chrono::seconds(5);

  // How long a record whose write would start at `now` has to wait.
  Clock::duration WaitAt(Clock::time_point now) const;
  // A record was written; its write returned at `now`.
  void Wrote(Clock::time_point now);

 private:
  std::array<Clock::time_point, kBurst> ends_ {};  // of the last kBurst records; the oldest at next_
  std::size_t written_ = 0;
  std::size_t next_ = 0;
};

}  // namespace bootstrand
