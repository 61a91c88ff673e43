// Test harness for the end-to-end tests: a private host root in a temporary
// directory, helpers to write plugin files and command executables into it, a runner
// for the real binaries, and readers for the channel sinks and logs. Every root has
// the command "mark", which appends its arguments to /order.log as one line (Marks()).
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace bootstrand::testing {

using Lines = std::vector<std::string>;

// A JSON plugin "<name>.json" of API version 1 unless `metadata` says otherwise.
struct PluginFile {
  std::string name;
  Lines provides, requires_, start = {};
  nlohmann::json metadata = {};
};

class HostRoot {
 public:
  // The kernel's boot id as every root holds it; a test changes the file for a
  // "later boot".
  static constexpr const char* kBootId = "00000000-1111-4222-8333-444444444444";

  HostRoot();
  ~HostRoot();
  HostRoot(const HostRoot&) = delete;
  HostRoot& operator=(const HostRoot&) = delete;

  const std::string& Root() const { return root_; }
  // `hostPath` (absolute on the host) inside this root.
  std::string Path(const std::string& hostPath) const { return root_ + hostPath; }

  void WriteFile(const std::string& hostPath, const std::string& contents, mode_t mode = 0644) const;
  std::string ReadFile(const std::string& hostPath) const;
  bool Exists(const std::string& hostPath) const;
  Lines ReadLines(const std::string& hostPath) const;  // without newlines; none when the file is missing
  Lines Marks() const { return ReadLines("/order.log"); }

  void CopyExampleTree() const;                        // the bundled example tree, as the demo boots it
  void CopyTestPlugin(const std::string& file) const;  // a shared object built for the tests
  // Plugin files in the first (or second) plugin directory.
  void WritePlugin(const std::string& fileName, const nlohmann::json& plugin, int directory = 1) const;
  void WritePlugins(const std::vector<PluginFile>& plugins, int directory = 1) const;
  // An executable shell script for a command path such as "network up".
  void WriteCommand(const std::string& commandPath, const std::string& script) const;

  // The messages delivered to a channel ("status", "alert", "progress", "kernel").
  Lines Channel(const std::string& channel) const;

 private:
  std::string root_;
};

nlohmann::json JsonPlugin(const Lines& provides, const Lines& requires_, const Lines& start,
                          const nlohmann::json& extraMetadata = {});

struct RunResult {
  int exitStatus = -1;  // -1 when the process was killed by a signal or timed out
  bool timedOut = false;
  std::string out;
  Lines outWrites;  // `out` as the program wrote it, one element per write
  std::string err;
};

// Runs the bootstrand binary in `root`. The environment gets BOOTSTRAND_ROOT and,
// unless `environment` says otherwise, 16 GiB of main memory and "/dev/null" as the
// console device; other BOOTSTRAND_ variables of the test process are left out.
RunResult RunBootstrand(const HostRoot& root, const std::vector<std::string>& arguments,
                        const std::map<std::string, std::string>& environment = {}, int timeoutSeconds = 60);
// Runs another program (an operator tool, a shell) the same way.
RunResult RunProgram(const std::string& program, const HostRoot& root, const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment = {}, int timeoutSeconds = 60);

// The command lines of the live processes that a run in `root` started: they all
// carry its BOOTSTRAND_ROOT (a dead process not yet reaped shows no environment).
// Idle workers end by themselves once the activator has exited: they get a second.
Lines ProcessesOf(const HostRoot& root);

// Every path under `directory` with its size (0 for folders), to see that a run
// created, removed or resized nothing.
std::map<std::string, std::uintmax_t> Snapshot(const std::string& directory);

// The index of `needle` in `lines`, or -1.
inline int IndexOf(const Lines& lines, const std::string& needle) {
  auto found = std::find(lines.begin(), lines.end(), needle);
  return found == lines.end() ? -1 : static_cast<int>(found - lines.begin());
}

}  // namespace bootstrand::testing
