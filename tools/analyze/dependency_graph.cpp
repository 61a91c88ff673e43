#include "analyze/dependency_graph.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <nlohmann/json.hpp>

namespace bootstrand::analyze {

namespace {

constexpr const char* kJsonKindTag = "json plugins";

bool IsKindTag(const std::string& tag) {
  return tag == "json plugins" || tag == "native plugins" || tag == "builtin plugins";
}

// Adds the strings of `array` to `tags`; false when it is not an array of strings.
bool AddTags(const nlohmann::json& object, const char* key, std::set<std::string>& tags) {
  auto found = object.find(key);
  if (found == object.end() || !found->is_array()) return false;
  for (const nlohmann::json& tag : *found) {
    if (!tag.is_string()) return false;
    tags.insert(tag.get<std::string>());
  }
  return true;
}

}  // namespace

DependencyGraph::DependencyGraph() {
  plugins_["end-autoconf"] = {{"json plugins", "native plugins"}, {"builtin plugins"}, false};
}

void DependencyGraph::Read(const std::string& path, Problems& problems) {
  std::error_code error;
  if (!std::filesystem::is_directory(path, error)) {
    ReadFile(path, problems);
    return;
  }
  std::vector<std::string> files;
  for (std::filesystem::directory_iterator each(path, error), end; !error && each != end; each.increment(error)) {
    std::string extension = each->path().extension().string();
    if (extension == ".json") files.push_back(each->path().string());
    if (extension == ".so") ++nativeFilesSkipped_;
  }
  if (error) throw std::runtime_error("cannot list " + path + ": " + error.message());
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) ReadFile(file, problems);
}

void DependencyGraph::ReadFile(const std::string& path, Problems& problems) {
  std::ifstream input(path);
  if (!input) throw std::runtime_error("cannot read " + path);
  // The plugin's name is the file name without its last extension, as the loader
  // names it.
  std::string name = std::filesystem::path(path).stem().string();
  nlohmann::json root = nlohmann::json::parse(input, nullptr, false);
  PluginDeclaration declaration;
  declaration.provides.insert(kJsonKindTag);
  const nlohmann::json* metadata = nullptr;
  if (root.is_object() && root.contains("metadata") && root["metadata"].is_object()) metadata = &root["metadata"];
  if (metadata == nullptr || !AddTags(*metadata, "provides", declaration.provides) ||
      !AddTags(*metadata, "requires", declaration.requires_)) {
    problems.push_back({path, 0, "no metadata with provides and requires lists, left out of the chain"});
    return;
  }
  auto preemptive = metadata->find("preemptive_provider");
  declaration.preemptive = preemptive != metadata->end() && preemptive->is_boolean() && preemptive->get<bool>();

  PluginDeclaration& known = plugins_[name];
  known.provides.insert(declaration.provides.begin(), declaration.provides.end());
  known.requires_.insert(declaration.requires_.begin(), declaration.requires_.end());
  known.preemptive = known.preemptive || declaration.preemptive;
}

const PluginDeclaration* DependencyGraph::Find(const std::string& name) const {
  auto found = plugins_.find(name);
  return found == plugins_.end() ? nullptr : &found->second;
}

std::vector<std::size_t> CriticalChain(const std::vector<TimedPlugin>& plugins, const DependencyGraph& graph) {
  if (plugins.empty()) return {};
  // Which timed plugins provide each tag, and which of them preemptively.
  std::unordered_map<std::string, std::vector<std::size_t>> providers;
  std::unordered_map<std::string, std::vector<std::size_t>> preemptiveProviders;
  for (std::size_t i = 0; i < plugins.size(); ++i) {
    const PluginDeclaration* declaration = graph.Find(plugins[i].name);
    if (declaration == nullptr) continue;
    for (const std::string& tag : declaration->provides) {
      providers[tag].push_back(i);
      if (declaration->preemptive && !IsKindTag(tag)) preemptiveProviders[tag].push_back(i);
    }
  }

  std::size_t last = 0;
  for (std::size_t i = 1; i < plugins.size(); ++i) {
    if (plugins[i].end >= plugins[last].end) last = i;
  }
  std::vector<std::size_t> chain = {last};
  std::vector<bool> inChain(plugins.size(), false);
  inChain[last] = true;
  for (;;) {
    const TimedPlugin& waiting = plugins[chain.back()];
    const PluginDeclaration* declaration = graph.Find(waiting.name);
    if (declaration == nullptr) break;
    std::optional<std::size_t> heldBy;
    auto consider = [&](const std::vector<std::size_t>& candidates) {
      for (std::size_t candidate : candidates) {
        const TimedPlugin& other = plugins[candidate];
        if (inChain[candidate] || other.end > waiting.start) continue;
        if (!heldBy || other.end >= plugins[*heldBy].end) heldBy = candidate;
      }
    };
    for (const std::string& tag : declaration->requires_) {
      if (auto found = providers.find(tag); found != providers.end()) consider(found->second);
    }
    for (const std::string& tag : declaration->provides) {
      if (auto found = preemptiveProviders.find(tag); found != preemptiveProviders.end()) consider(found->second);
    }
    if (!heldBy) break;
    chain.push_back(*heldBy);
    inChain[*heldBy] = true;
  }
  std::reverse(chain.begin(), chain.end());
  return chain;
}

}  // namespace bootstrand::analyze
