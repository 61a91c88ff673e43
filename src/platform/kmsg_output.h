// The kmsg output: kernel-channel and alert messages as records of the kernel log,
// each in one write of "<PRIORITY>Pellam2: message" to PATH ("/dev/kmsg" unless
// given), facility daemon; alerts at warning, kernel-channel lines at info. Warning
// rather than anything more urgent: at the "quiet" console level the kernel would
// echo those records onto the console, through the live line of the console output.
// The kernel turns away records longer than about 1000 bytes, so longer messages are
// cut.
//
// Unless the host's /proc/sys/kernel/printk_devkmsg (under the host root) says "on",
// the kernel keeps only a burst of 10 records per 5 seconds from one open file and
// drops the rest. Then the alerts alone are written, paced within that limit so that
// none is lost, and the kernel-channel lines are counted instead: at exit, the
// process that opened the output writes one record with their count and the outputs
// that have them (Finish). Pacing holds the boot half a second an alert past the
// burst, so past kPacedAlerts (a boot where everything fails) alerts are counted too,
// and the boot is held 25 seconds at the most.
#pragma once

#include <atomic>

#include "platform/channel_output.h"
#include "platform/kmsg_rate_limit.h"
#include "platform/unique_fd.h"

namespace bootstrand {

class KmsgOutput : public ChannelOutput {
 public:
  explicit KmsgOutput(std::string path) : ChannelOutput("kmsg=" + path), path_(std::move(path)) {}
  ~KmsgOutput() override;
  bool Takes(std::uint32_t node) const override;
  int Open() override;
  int Deliver(std::uint32_t node, const std::string& text) override;
  void Finish(const std::string& kernelElsewhere) override;

 private:
  int Write(int level, const std::string& text);

  static constexpr unsigned kPacedAlerts = 60;

  std::string path_;
  UniqueFd fd_;
  bool limited_ = false;
  KmsgRateLimit rateLimit_;
  // The kernel-channel lines held back under the limit. The forked workers share the
  // descriptor and hold back lines of their own, so the count lives in memory they
  // share with the process that opened the output; ownCount_ only if that fails.
  std::atomic<unsigned>* heldBack_ = &ownCount_;
  std::atomic<unsigned> ownCount_ {0};
  // Alerts come from the process that runs the activation only.
  unsigned alertsWritten_ = 0;
  unsigned alertsHeldBack_ = 0;
};

}  // namespace bootstrand
