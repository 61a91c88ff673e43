#include "trust.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "kinds/json_plugin.h"
#include "platform/host_path.h"
#include "platform/kitbag/dispatcher.h"
#include "platform/kitbag/option_parser.h"

namespace bootstrand::lint {

namespace {

// ".." drops the name before it, as a shell's cd does; after a folder that is a link
// the kernel would climb from the link's target instead, which plugin trees hardly do.
std::string Normal(const std::string& path) {
  std::string normal = std::filesystem::path(path).lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

std::string Parent(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

std::string Absolute(const std::string& path) {
  return Normal(path.starts_with('/') ? path : std::filesystem::current_path().string() + "/" + path);
}

std::string LinkTarget(const std::string& link) {
  std::string target(4096, '\0');
  ssize_t length = readlink(link.c_str(), target.data(), target.size());
  if (length <= 0 || static_cast<std::size_t>(length) == target.size()) return "";
  target.resize(static_cast<std::size_t>(length));
  return target.front() == '/' ? target : Parent(link) + "/" + target;
}

std::string Reasons(const struct stat& status) {
  if (S_ISLNK(status.st_mode)) return status.st_uid == 0 ? "" : "symbolic link not owned by root";
  std::vector<std::string> reasons;
  if (status.st_uid != 0) reasons.push_back("not owned by root");
  bool byGroup = (status.st_mode & S_IWGRP) != 0, byOthers = (status.st_mode & S_IWOTH) != 0;
  if (byGroup || byOthers) {
    reasons.push_back(std::string("writable by ") + (byGroup ? "its group" : "") + (byGroup && byOthers ? " and " : "") +
                      (byOthers ? "others" : ""));
  }
  // Whoever may write to a folder may add a plugin to it, sticky bit or not.
  if (byOthers && S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0) {
    reasons.back() += ", who may add files despite the sticky bit";
  }
  std::string joined;
  for (const std::string& reason : reasons) joined += (joined.empty() ? "" : "; ") + reason;
  return joined;
}

}  // namespace

TrustCheck::TrustCheck() : root_(Absolute(HostPath("/"))) {}

void TrustCheck::Check(const std::string& path) {
  if (!path.empty()) CheckReal(Absolute(HostPath(path)), "");
}

// Works on paths of this machine, so that a link's target resolves as the kernel
// resolves it, and goes up to the host root, or to "/" for a path outside it.
void TrustCheck::CheckReal(const std::string& real, const std::string& reachedThrough) {
  if (!checked_.insert(real).second) return;
  struct stat status {};
  if (lstat(real.c_str(), &status) == 0) {
    std::string reasons = Reasons(status);
    if (!reasons.empty()) {
      if (!reachedThrough.empty()) reasons += "; reached through the symbolic link " + Shown(reachedThrough);
      char mode[8];
      std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
      findings_.push_back({Shown(real), OwnerName(status.st_uid), mode, reasons});
    }
    if (S_ISLNK(status.st_mode)) {
      std::string target = LinkTarget(real);
      if (!target.empty()) CheckReal(Normal(target), reachedThrough.empty() ? real : reachedThrough);
    }
  }
  if (real != root_ && real != "/") CheckReal(Parent(real), reachedThrough);
}

std::string TrustCheck::Shown(const std::string& real) const {
  if (root_ == "/" || !real.starts_with(root_)) return real;
  if (real.size() == root_.size()) return "/";
  return real[root_.size()] == '/' ? real.substr(root_.size()) : real;
}

const std::string& TrustCheck::OwnerName(uid_t owner) {
  auto [known, added] = owners_.try_emplace(owner, std::to_string(owner));
  if (added) {
    passwd entry {};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwuid_r(owner, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
      known->second = found->pw_name;
    }
  }
  return known->second;
}

std::vector<TrustFinding> TrustCheck::Findings() const {
  std::vector<TrustFinding> sorted = findings_;
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
  return sorted;
}

namespace {

// A command that no directory holds gives every place in the search order.
std::vector<std::string> CommandPaths(const std::vector<const Plugin*>& plugins) {
  std::vector<std::string> paths;
  const Kitbag::AutoCli::Dispatcher* dispatcher = Cormcli::dispatcher;
  if (dispatcher == nullptr) return paths;  // no JSON plugin was loaded
  std::unordered_set<std::string> seen;
  for (const Plugin* plugin : plugins) {
    const auto* json = dynamic_cast<const JsonPlugin*>(plugin);
    if (json == nullptr) continue;
    for (const auto* operations : {&json->startOperations, &json->applyHostProfileOperations}) {
      for (const std::string& command : *operations) {
        Kitbag::AutoCli::OptionParser parser;
        if (parser.ParseString(command) || !parser.GetParseErrors().empty()) continue;
        std::string relative;
        for (const std::string& word : parser.GetCommandPath()) relative += (relative.empty() ? "" : "/") + word;
        if (!seen.insert(relative).second) continue;
        std::string executable = dispatcher->FindCommand(parser.GetCommandPath());
        for (const std::string& directory : dispatcher->GetExternalDirectories()) {
          paths.push_back(directory + "/" + relative);
          if (HostPath(paths.back()) == executable) break;
        }
      }
    }
  }
  return paths;
}

}  // namespace

std::vector<TrustFinding> CheckTrust(const std::vector<std::string>& given, const std::vector<std::string>& files,
                                     const std::vector<const Plugin*>& plugins) {
  TrustCheck trust;
  for (const std::string& folder : given.empty() ? Plugin::PluginDirectories() : given) {
    struct stat status {};
    if (given.empty() || (stat(HostPath(folder).c_str(), &status) == 0 && S_ISDIR(status.st_mode))) trust.Check(folder);
  }
  for (const std::string& file : files) trust.Check(file);
  for (const std::string& command : CommandPaths(plugins)) trust.Check(command);
  return trust.Findings();
}

}  // namespace bootstrand::lint
