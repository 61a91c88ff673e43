#include "platform/files_output.h"

#include <fcntl.h>

#include <cerrno>
#include <unordered_map>

#include "platform/host_path.h"
#include "platform/trove.h"
#include "platform/unique_fd.h"

namespace bootstrand {

namespace {

std::string EscapeRecord(const std::string& text) {
  std::string record;
  record.reserve(text.size() + 1);
  for (char c : text) {
    if (c == '\\') {
      record += "\\\\";
    } else if (c == '\n') {
      record += "\\n";
    } else {
      record += c;
    }
  }
  record += '\n';
  return record;
}

// Sink files stay open once opened (append mode, close-on-exec): a boot writes
// several messages per plugin, and forked workers share the descriptors.
int SinkDescriptor(const std::string& path) {
  static auto* open = new std::unordered_map<std::string, UniqueFd>;
  auto found = open->find(path);
  if (found != open->end()) return found->second.Get();
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd.Valid()) {
    MakeDirectories(path.substr(0, path.rfind('/')));
    fd.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  }
  if (!fd.Valid()) return -1;
  return open->emplace(path, std::move(fd)).first->second.Get();
}

}  // namespace

std::string FilesOutput::Describe(std::uint32_t node) const { return "files (" + TroveSinkPath(node) + ")"; }

int FilesOutput::Deliver(std::uint32_t node, const std::string& text) {
  std::string path = TroveSinkPath(node);
  if (path.empty()) return EINVAL;
  int fd = SinkDescriptor(path);
  if (fd < 0) return errno;
  std::string record = EscapeRecord(text);
  // One write per message keeps messages of concurrent processes apart.
  if (!WriteAll(fd, record.data(), record.size())) return errno;
  return 0;
}

}  // namespace bootstrand
