#include "platform/kmsg_output.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <thread>

#include "platform/file_text.h"
#include "platform/host_path.h"
#include "platform/log_identity.h"
#include "platform/trove.h"

namespace bootstrand {

namespace {

// Below every limit the kernel has had on one record written to /dev/kmsg.
constexpr std::size_t kLongestRecord = 976;

static_assert(std::atomic<unsigned>::is_always_lock_free, "the count is shared between processes");

// "ratelimit" by default; "off" drops every record, "on" keeps them all.
bool KernelLimitsWriters() {
  try {
    std::optional<std::string> setting = ReadWholeFile(HostPath("/proc/sys/kernel/printk_devkmsg"));
    return !setting || setting->substr(0, setting->find('\n')) != "on";
  } catch (const std::runtime_error&) {
    return true;
  }
}

}  // namespace

KmsgOutput::~KmsgOutput() {
  if (heldBack_ != &ownCount_) munmap(heldBack_, sizeof *heldBack_);
}

bool KmsgOutput::Takes(std::uint32_t node) const {
  return node == Trove_NODE_system_log || node == Trove_NODE_system_sysAlert;
}

int KmsgOutput::Open() {
  // No O_CREAT: where /dev/kmsg is missing, a file of that name must not appear.
  // O_NONBLOCK: a named pipe without a reader must not stop the boot.
  fd_.Reset(open(path_.c_str(), O_WRONLY | O_APPEND | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd_.Valid()) return errno;
  limited_ = KernelLimitsWriters();
  if (limited_) {
    void* shared = mmap(nullptr, sizeof *heldBack_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared != MAP_FAILED) heldBack_ = new (shared) std::atomic<unsigned>(0);
  }
  return 0;
}

int KmsgOutput::Deliver(std::uint32_t node, const std::string& text) {
  if (text.empty()) return 0;
  if (node == Trove_NODE_system_sysAlert) {
    if (!limited_) return Write(LOG_WARNING, text);
    if (alertsWritten_ >= kPacedAlerts) {
      ++alertsHeldBack_;
      return 0;
    }
    ++alertsWritten_;
    return Write(LOG_WARNING, text);
  }
  if (!limited_) return Write(LOG_INFO, text);
  heldBack_->fetch_add(1, std::memory_order_relaxed);
  return 0;
}

void KmsgOutput::Finish(const std::string& kernelElsewhere) {
  unsigned count = heldBack_->load(std::memory_order_relaxed);
  if (!fd_.Valid() || (count == 0 && alertsHeldBack_ == 0)) return;
  std::string text = std::to_string(count) + (count == 1 ? " kernel-channel line" : " kernel-channel lines");
  if (alertsHeldBack_ > 0) {
    text += " and " + std::to_string(alertsHeldBack_) + (alertsHeldBack_ == 1 ? " alert" : " alerts");
  }
  text += kernelElsewhere.empty() ? " went nowhere" : " went only to " + kernelElsewhere;
  Write(LOG_INFO, text + ": the kernel log takes them with printk.devkmsg=on");
}

int KmsgOutput::Write(int level, const std::string& text) {
  std::string record = "<" + std::to_string(LOG_DAEMON | level) + ">" + kLogIdentity + ": " + text;
  if (record.size() >= kLongestRecord) {
    std::size_t end = kLongestRecord - 1;
    // Not inside a UTF-8 sequence.
    while (end > 0 && (static_cast<unsigned char>(record[end]) & 0xC0) == 0x80) --end;
    record.resize(end);
  }
  record += '\n';
  // Under the limit only the process that runs the activation writes (alerts, and
  // the count at exit), so its own account of the records is the whole of it.
  if (limited_) std::this_thread::sleep_for(rateLimit_.WaitAt(KmsgRateLimit::Clock::now()));
  if (!WriteAll(fd_.Get(), record.data(), record.size())) return errno;
  if (limited_) rateLimit_.Wrote(KmsgRateLimit::Clock::now());
  return 0;
}

}  // namespace bootstrand
