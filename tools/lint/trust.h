// The linter's trust checks: whether anyone but root could change what a boot loads or
// runs. CheckTrust, called once by Lint(), feeds one TrustCheck the plugin folders, the
// plugin files and the executables behind the JSON plugins' commands.
#pragma once

#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace bootstrand {
class Plugin;
}

namespace bootstrand::lint {

// One path that someone other than root could change: named as a host path when it
// lies under the host root, the owner's user name (its number when it has none), the
// permission bits in octal ("0775") and why it is a finding.
struct TrustFinding {
  std::string path;
  std::string owner;
  std::string mode;
  std::string reason;
};

class TrustCheck {
 public:
  // Takes the host root from BOOTSTRAND_ROOT, as HostPath does.
  TrustCheck();

  // Checks `path` (a host path, or one relative to the current folder), every folder
  // above it up to the host root, and each symbolic link on the way: the link for its
  // owner, what it points to like any other path. A path that does not exist only has
  // its folders checked; a path checked before is not checked again.
  void Check(const std::string& path);

  // The findings so far, by path.
  std::vector<TrustFinding> Findings() const;

 private:
  void CheckReal(const std::string& real, const std::string& reachedThrough);
  std::string Shown(const std::string& real) const;
  const std::string& OwnerName(uid_t owner);

  std::string root_;  // the host root on this machine, without a trailing "/": "/" on a real host
  std::unordered_set<std::string> checked_;
  std::unordered_map<uid_t, std::string> owners_;
  std::vector<TrustFinding> findings_;
};

// Checks the plugin folders (the directories among `given`, or when none is given the
// two plugin directories), the plugin `files`, and the executables behind the commands
// that the JSON plugins among `plugins` run, as the command dispatcher finds them,
// together with the places earlier in its search order where an executable of the
// same command path would be found first.
std::vector<TrustFinding> CheckTrust(const std::vector<std::string>& given, const std::vector<std::string>& files,
                                     const std::vector<const Plugin*>& plugins);

}  // namespace bootstrand::lint
