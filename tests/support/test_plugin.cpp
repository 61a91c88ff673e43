#include "support/test_plugin.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace bootstrand::testing {

ScopedRoot::ScopedRoot() {
  char pattern[] = "/tmp/bootstrand-unit-XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
  std::filesystem::create_directories(root_ + "/var/log");
  setenv("BOOTSTRAND_ROOT", root_.c_str(), 1);
}

ScopedRoot::~ScopedRoot() {
  unsetenv("BOOTSTRAND_ROOT");
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string ScopedRoot::Read(const std::string& hostPath) const {
  std::ifstream file(Path(hostPath));
  std::stringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

}  // namespace bootstrand::testing
