// The syslog output: every channel's messages to syslog(3) as "<node>: message", under
// the activator's log identity (log_identity.h) with its process id, facility daemon;
// the alert channel at LOG_ALERT, progress at LOG_NOTICE, status and kernel at
// LOG_INFO. The status text's lines are joined into one; empty messages (the status
// channel's clearing) are not sent. syslog(3) reports no failure, so neither does this.
#pragma once

#include "platform/channel_output.h"

namespace bootstrand {

class SyslogOutput : public ChannelOutput {
 public:
  SyslogOutput() : ChannelOutput("syslog") {}
  bool Takes(std::uint32_t) const override { return true; }
  int Open() override;
  int Deliver(std::uint32_t node, const std::string& text) override;
};

}  // namespace bootstrand
