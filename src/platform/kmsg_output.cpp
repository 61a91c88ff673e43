#include "platform/kmsg_output.h"

#include <fcntl.h>
#include <syslog.h>

#include <cerrno>

#include "platform/log_identity.h"
#include "platform/trove.h"

namespace bootstrand {

namespace {

// Below every limit the kernel has had on one record written to /dev/kmsg.
constexpr std::size_t kLongestRecord = 976;

}  // namespace

bool KmsgOutput::Takes(std::uint32_t node) const {
  return node == Trove_NODE_system_log || node == Trove_NODE_system_sysAlert;
}

int KmsgOutput::Open() {
  // No O_CREAT: where /dev/kmsg is missing, a file of that name must not appear.
  // O_NONBLOCK: a named pipe without a reader must not stop the boot.
  fd_.Reset(open(path_.c_str(), O_WRONLY | O_APPEND | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  return fd_.Valid() ? 0 : errno;
}

int KmsgOutput::Deliver(std::uint32_t node, const std::string& text) {
  if (text.empty()) return 0;
  int priority = LOG_DAEMON | (node == Trove_NODE_system_sysAlert ? LOG_WARNING : LOG_INFO);
  std::string record = "<" + std::to_string(priority) + ">" + kLogIdentity + ": " + text;
  if (record.size() >= kLongestRecord) {
    std::size_t end = kLongestRecord - 1;
    // Not inside a UTF-8 sequence.
    while (end > 0 && (static_cast<unsigned char>(record[end]) & 0xC0) == 0x80) --end;
    record.resize(end);
  }
  record += '\n';
  if (!WriteAll(fd_.Get(), record.data(), record.size())) return errno;
  return 0;
}

}  // namespace bootstrand
