// The kmsg output: kernel-channel and alert messages as records of the kernel log,
// each in one write of "<PRIORITY>Pellam2: message" to PATH ("/dev/kmsg" unless
// given), facility daemon; alerts at warning, kernel-channel lines at info. Warning
// rather than anything more urgent: at the "quiet" console level the kernel would
// echo those records onto the console, through the live line of the console output.
// The kernel turns away records longer than about 1000 bytes, so longer messages are
// cut, and by default keeps only a burst of 10 records per 5 seconds from one
// writer (printk.devkmsg=on lifts that).
#pragma once

#include "platform/channel_output.h"
#include "platform/unique_fd.h"

namespace bootstrand {

class KmsgOutput : public ChannelOutput {
 public:
  explicit KmsgOutput(std::string path) : ChannelOutput("kmsg=" + path), path_(std::move(path)) {}
  bool Takes(std::uint32_t node) const override;
  int Open() override;
  int Deliver(std::uint32_t node, const std::string& text) override;

 private:
  std::string path_;
  UniqueFd fd_;
};

}  // namespace bootstrand
