#include "platform/syslog_output.h"

#include <syslog.h>

#include "platform/log_identity.h"
#include "platform/trove.h"

namespace bootstrand {

int SyslogOutput::Open() {
  // The logging set-up opens the same connection later in a boot; opening it here
  // as well gives an argument error, which comes before, the same identity.
  openlog(kLogIdentity, LOG_PID | LOG_NDELAY, LOG_DAEMON);
  return 0;
}

int SyslogOutput::Deliver(std::uint32_t node, const std::string& text) {
  std::string line = OnOneLine(text);
  if (line.empty()) return 0;
  int priority = LOG_INFO;
  if (node == Trove_NODE_system_sysAlert) priority = LOG_ALERT;
  if (node == Trove_NODE_system_progressTerm_progressText) priority = LOG_NOTICE;
  syslog(LOG_DAEMON | priority, "%s: %s", TroveNodeName(node).c_str(), line.c_str());
  return 0;
}

}  // namespace bootstrand
