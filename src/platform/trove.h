// Stand-in for the host's system-information library. Trove_Set hands every message
// to the outputs that BOOTSTRAND_CHANNELS chooses (channel_outputs.h); it fails only
// when the message reached none of those meant to take it. With the files output each
// node is a sink file, "/var/run/trove/<node name>.log" under the host root; every
// delivered message is appended to it as one line, with a newline inside the message
// written as "\n" and a backslash as "\\". BOOTSTRAND_TROVE_FAIL (a comma list of
// CheckSig, ParamListCreate, ParamListAddString, Set) forces failures for tests; a
// forced Set fails whatever the outputs.
#pragma once

#include <cstdint>
#include <string>

enum : std::uint16_t {
  Trove_NODE_system_progressTerm_statusText = 1,
  Trove_NODE_system_sysAlert = 2,
  Trove_NODE_system_progressTerm_progressText = 3,
  Trove_NODE_system_log = 4,
};

struct Trove_ParamList;

// All operations return 0 on success, as the host library does.
int Trove_CheckSig(void* scratch, void* scratchSize, int version);
Trove_ParamList* Trove_ParamListCreate(int flags, int capacity);
int Trove_ParamListAddString(Trove_ParamList* list, const char* text);
int Trove_Set(std::uint32_t node, int flags, Trove_ParamList* list, int reserved1, int reserved2);
void Trove_ParamListDestroy(Trove_ParamList* list);

namespace bootstrand {

// The name of a node ("system.log" and so on), or "" for an unknown one.
std::string TroveNodeName(std::uint32_t node);

// The sink file of a node, already resolved under the host root.
std::string TroveSinkPath(std::uint32_t node);

}  // namespace bootstrand
