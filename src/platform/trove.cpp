#include "platform/trove.h"

#include <string_view>
#include <vector>

#include "platform/channel_outputs.h"
#include "platform/forced_failure.h"
#include "platform/host_path.h"

struct Trove_ParamList {
  std::vector<std::string> strings;
};

namespace {

constexpr const char* kFailVariable = "BOOTSTRAND_TROVE_FAIL";

bool Forced(std::string_view operation) { return bootstrand::ForcedFailure(kFailVariable, operation); }

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
  bootstrand::ChannelOutputs& outputs = bootstrand::ChannelOutputs::Current();
  for (const std::string& text : list->strings) {
    if (!outputs.Deliver(node, text)) return 1;
  }
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
