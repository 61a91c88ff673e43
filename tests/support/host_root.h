// Test harness for the end-to-end tests: a private host root in a temporary
// directory, helpers to write plugin files and command executables into it, a runner
// for the real binary, and readers for the channel sinks and logs. Every root has the
// command "mark", which appends its arguments to /order.log as one line (Marks()).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace bootstrand::testing {

class HostRoot {
 public:
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
  // Lines of a file, without their newlines; empty when the file is missing.
  std::vector<std::string> Lines(const std::string& hostPath) const;

  std::vector<std::string> Marks() const { return Lines("/order.log"); }

  // The bundled example tree (plugins and commands), as the demo boots it.
  void CopyExampleTree() const;
  // A shared-object plugin built for the tests, into the first plugin directory.
  void CopyTestPlugin(const std::string& file) const;
  // Writes a plugin file into the first (or second) plugin directory.
  void WritePlugin(const std::string& fileName, const nlohmann::json& plugin, int directory = 1) const;
  // Writes an executable shell script for a command path such as "network up" into
  // the first command-definition directory.
  void WriteCommand(const std::string& commandPath, const std::string& script) const;

  // The messages delivered to a channel ("status", "alert", "progress", "kernel").
  std::vector<std::string> Channel(const std::string& channel) const;

 private:
  std::string root_;
};

// The messages delivered to a channel of the host root `root`.
std::vector<std::string> ChannelMessages(const std::string& root, const std::string& channel);

// A JSON plugin document of API version 1 unless `metadata` says otherwise.
nlohmann::json JsonPlugin(const std::vector<std::string>& provides, const std::vector<std::string>& requires_,
                          const std::vector<std::string>& start, const nlohmann::json& extraMetadata = {});

struct RunResult {
  int exitStatus = -1;  // -1 when the process was killed by a signal or timed out
  bool timedOut = false;
  std::string out;
  std::vector<std::string> outWrites;  // `out` as the program wrote it, one element per write
  std::string err;
};

// Runs the bootstrand binary in `root` with `arguments`. The environment gets
// BOOTSTRAND_ROOT and, unless `environment` says otherwise, 16 GiB of main memory and
// "/dev/null" as the console device.
RunResult RunBootstrand(const HostRoot& root, const std::vector<std::string>& arguments,
                        const std::map<std::string, std::string>& environment = {}, int timeoutSeconds = 60);

// Runs another program built here (an operator tool) the same way.
RunResult RunProgram(const std::string& program, const HostRoot& root, const std::vector<std::string>& arguments,
                     const std::map<std::string, std::string>& environment = {}, int timeoutSeconds = 60);

// Every path under `directory` with its size (0 for folders), to see that a run
// created, removed or resized nothing.
std::map<std::string, std::uintmax_t> Snapshot(const std::string& directory);

// The index of `needle` in `lines`, or -1.
int IndexOf(const std::vector<std::string>& lines, const std::string& needle);

}  // namespace bootstrand::testing
