#include "platform/kmsg_rate_limit.h"

namespace bootstrand {

namespace {

// The kernel reads its clock in ticks (up to 10 ms) and a write reaches it a little
// after the time taken before it.
constexpr auto kMargin = std::chrono::milliseconds(50);

}  // namespace

// The kernel counts in windows that open at the first record after the last window
// closed. Keeping every span of kInterval (each record measured from where the
// record kBurst before it ended) to kBurst records keeps every such window to it
// too, wherever it opened.
KmsgRateLimit::Clock::duration KmsgRateLimit::WaitAt(Clock::time_point now) const {
  if (written_ < kBurst) return Clock::duration::zero();
  Clock::time_point due = ends_[next_] + kInterval + kMargin;
  return due > now ? due - now : Clock::duration::zero();
}

void KmsgRateLimit::Wrote(Clock::time_point now) {
  ends_[next_] = now;
  next_ = (next_ + 1) % kBurst;
  if (written_ < kBurst) ++written_;
}

}  // namespace bootstrand
