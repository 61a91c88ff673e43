// Bytes as the path of a native plugin: the derived name is a piece of the last
// path component, never longer than it.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kinds/native_plugin.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string path(reinterpret_cast<const char*>(data), size);
  std::string name = bootstrand::NativePlugin::NameFromPath(path);
  std::string last = path.substr(path.rfind('/') + 1);
  if (name.size() > last.size() || last.find(name) == std::string::npos) std::abort();
  return 0;
}
