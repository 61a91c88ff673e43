#include "platform/forced_failure.h"

#include <cstdlib>

namespace bootstrand {

bool ForcedFailure(const char* variable, std::string_view operation) {
  const char* value = std::getenv(variable);
  if (value == nullptr) return false;
  std::string_view list(value);
  while (!list.empty()) {
    std::size_t comma = list.find(',');
    if (list.substr(0, comma) == operation) return true;
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return false;
}

}  // namespace bootstrand
