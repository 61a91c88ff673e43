#include "platform/trove.h"

#include <fcntl.h>

#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/forced_failure.h"
#include "platform/host_path.h"
#include "platform/unique_fd.h"

struct Trove_ParamList {
  std::vector<std::string> strings;
};

namespace {

constexpr const char* kFailVariable = "BOOTSTRAND_TROVE_FAIL";

bool Forced(std::string_view operation) { return bootstrand::ForcedFailure(kFailVariable, operation); }

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
  static auto* open = new std::unordered_map<std::string, bootstrand::UniqueFd>;
  auto found = open->find(path);
  if (found != open->end()) return found->second.Get();
  bootstrand::UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  if (!fd.Valid()) {
    bootstrand::MakeDirectories(path.substr(0, path.rfind('/')));
    fd.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  }
  if (!fd.Valid()) return -1;
  return open->emplace(path, std::move(fd)).first->second.Get();
}

}  // namespace

int Trove_CheckSig(void*, void*, int) { return Forced("CheckSig") ? 1 : 0; }

Trove_ParamList* Trove_ParamListCreate(int, int) {
  if (Forced("ParamListCreate")) return nullptr;
  return new Trove_ParamList;
}

int Trove_ParamListAddString(Trove_ParamList* list, const char* text) {
  if (list == nullptr || text == nullptr || Forced("ParamListAddString")) return 1;
  list->strings.emplace_back(text);
  return 0;
}

int Trove_Set(std::uint32_t node, int, Trove_ParamList* list, int, int) {
  if (list == nullptr || Forced("Set")) return 1;
  std::string path = bootstrand::TroveSinkPath(node);
  if (path.empty()) return 1;
  std::string records;
  for (const std::string& text : list->strings) records += EscapeRecord(text);
  int fd = SinkDescriptor(path);
  // One write per delivery keeps messages of concurrent processes apart.
  if (fd < 0 || !bootstrand::WriteAll(fd, records.data(), records.size())) return 1;
  return 0;
}

void Trove_ParamListDestroy(Trove_ParamList* list) { delete list; }

namespace bootstrand {

std::string TroveNodeName(std::uint32_t node) {
  switch (node) {
    case Trove_NODE_system_progressTerm_statusText: return "system.progressTerm.statusText";
    case Trove_NODE_system_sysAlert: return "system.sysAlert";
    case Trove_NODE_system_progressTerm_progressText: return "system.progressTerm.progressText";
    case Trove_NODE_system_log: return "system.log";
    default: return "";
  }
}

std::string TroveSinkPath(std::uint32_t node) {
  std::string name = TroveNodeName(node);
  if (name.empty()) return "";
  return HostPath("/var/run/trove/" + name + ".log");
}

}  // namespace bootstrand
