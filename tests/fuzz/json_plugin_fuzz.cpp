// Bytes as a JSON plugin file: the loader either registers a plugin or throws one
// of its exceptions.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "plugin/plugin.h"

namespace {
std::string root;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/bootstrand-fuzz-XXXXXX";
  if (mkdtemp(pattern) == nullptr) std::abort();
  root = pattern;
  setenv("BOOTSTRAND_ROOT", root.c_str(), 1);
  std::atexit([] { std::filesystem::remove_all(root); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::ofstream(root + "/plugin.json", std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  try {
    bootstrand::Plugin::LoadJsonPlugin("/plugin.json");
  } catch (const std::exception&) {
  }
  // Registered plugins stay owned by the registry for the life of the process,
  // as in a boot; only the lists are cleared.
  bootstrand::Plugin::ResetRegistries();
  return 0;
}
