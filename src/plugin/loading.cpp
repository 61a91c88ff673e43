// Plugin discovery and loading: lists the plugin files (every regular file of the
// two plugin directories, or the files named on the command line), orders them, and
// constructs one plugin per file. A bad file is reported and left out.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <iostream>
#include <random>
#include <stdexcept>

#include "log/channels.h"
#include "platform/host_path.h"
#include "plugin/end_autoconf.h"
#include "plugin/exception.h"
#include "plugin/plugin.h"

namespace bootstrand {

namespace {

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// `name` in the first plugin directory that holds it; "" when none does.
std::string FindInPluginDirectories(const std::string& name) {
  for (const std::string& directory : Plugin::PluginDirectories()) {
    std::string path = directory + "/" + name;
    struct stat status {};
    if (stat(HostPath(path).c_str(), &status) == 0) return path;
  }
  return "";
}

std::vector<std::string> ListPlugins(const std::unordered_set<std::string>& names) {
  std::vector<std::string> paths;
  if (names.empty()) {
    for (const std::string& directory : Plugin::PluginDirectories()) Plugin::ListPluginDirectory(directory, paths);
    return paths;
  }
  for (const std::string& name : names) {
    if (name.front() == '/') {
      paths.push_back(name);
      continue;
    }
    std::string path = FindInPluginDirectories(name);
    if (path.empty()) throw Exception("Cannot find plugin '%s'", name.c_str());
    paths.push_back(path);
  }
  return paths;
}

}  // namespace

void Plugin::LoadPlugins(const std::unordered_set<std::string>& names, std::uint32_t seed) {
  if (names.empty()) LoadBuiltins();
  std::vector<std::string> paths;
  try {
    paths = ListPlugins(names);
  } catch (const std::exception& error) {
    std::cerr << "Failed to list plugins: " << error.what() << std::endl;
    KernelLog() << "exception occurred whilst listing plugins: " << error.what() << std::endl;
    return;
  }
  std::sort(paths.begin(), paths.end());
  if (seed != 0) {
    KernelLog() << "Bootstrand is randomizing iteration order using seed: " << seed << std::endl;
    std::minstd_rand engine(seed);  // seeded modulo 2^31-1, a zero state replaced by 1
    std::shuffle(paths.begin(), paths.end(), engine);
  }
  for (const std::string& path : paths) {
    try {
      LoadPlugin(path);
    } catch (const std::exception& error) {
      std::cerr << SkippingMessage(path, error) << std::endl;
      KernelLog() << "exception occurred whilst loading plugin " << path << ": " << error.what() << std::endl;
    }
  }
}

void Plugin::LoadBuiltins() { new EndAutoConf(); }

const std::vector<std::string>& Plugin::PluginDirectories() {
  static const std::vector<std::string> directories = {"/usr/libexec/bootstrand/plugins",
                                                       "/usr/libexec/bootstrand/plugins2"};
  return directories;
}

void Plugin::ListPluginDirectory(const std::string& directory, std::vector<std::string>& paths,
                                 std::vector<PassedOverEntry>* passedOver) {
  DIR* listing = opendir(HostPath(directory).c_str());
  if (listing == nullptr) return;
  const std::string prefix = directory + (directory.ends_with('/') ? "" : "/");
  while (const dirent* entry = readdir(listing)) {
    // The entry type as the directory reports it: links and unknown types are left out.
    if (entry->d_name[0] == '.') continue;
    if (entry->d_type == DT_REG) {
      paths.push_back(prefix + entry->d_name);
    } else if (passedOver != nullptr && entry->d_type != DT_DIR) {
      using Type = PassedOverEntry::Type;
      Type type = entry->d_type == DT_LNK ? Type::SymbolicLink
                  : entry->d_type == DT_UNKNOWN ? Type::Unreported
                                                : Type::SpecialFile;
      passedOver->push_back({prefix + entry->d_name, type});
    }
  }
  closedir(listing);
}

std::vector<std::string> Plugin::ListPluginFiles(const std::vector<std::string>& given,
                                                 std::vector<PassedOverEntry>* passedOver) {
  std::vector<std::string> files;
  if (given.empty()) {
    for (const std::string& directory : PluginDirectories()) ListPluginDirectory(directory, files, passedOver);
  }
  for (std::string path : given) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty()) throw std::runtime_error("an empty path names no plugin");
    struct stat status {};
    if (stat(HostPath(path).c_str(), &status) == 0) {
      if (S_ISDIR(status.st_mode)) {
        ListPluginDirectory(path, files, passedOver);
      } else {
        // The dynamic loader searches its library path for a name without "/".
        files.push_back(path.find('/') == std::string::npos ? "./" + path : path);
      }
      continue;
    }
    int error = errno;
    std::string found = path.find('/') == std::string::npos ? FindInPluginDirectories(path) : "";
    if (found.empty()) throw std::runtime_error("cannot read " + path + ": " + std::strerror(error));
    files.push_back(found);
  }
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

std::string Plugin::SkippingMessage(const std::string& path, const std::exception& error) {
  return "Skipping " + path + ": " + error.what();
}

namespace {

// Reading a pipe or a device as a plugin could block the boot for good.
void RefuseSpecialFile(const std::string& path) {
  struct stat status {};
  if (stat(HostPath(path).c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
    throw Exception("not a regular file");
  }
}

}  // namespace

void Plugin::LoadPlugin(const std::string& path) {
  if (path.size() > 2 && EndsWith(path, ".so")) {
    RefuseSpecialFile(path);
    LoadNativePlugin(path);
  } else if (path.size() > 4 && EndsWith(path, ".json")) {
    LoadJsonPlugin(path);  // refuses a special file itself, as it reads it
  } else {
    throw Exception("unknown type");
  }
}

}  // namespace bootstrand
