#include "platform/boot_id.h"

#include <fstream>

#include "platform/host_path.h"

namespace bootstrand {

std::optional<std::string> CurrentBootId() {
  std::ifstream input(HostPath("/proc/sys/kernel/random/boot_id"));
  std::string id;
  if (!std::getline(input, id) || id.empty()) return std::nullopt;
  return id;
}

}  // namespace bootstrand
