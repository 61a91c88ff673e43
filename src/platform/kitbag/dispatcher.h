// Runs management commands by command path. The owner registers command-definition
// directories once, then calls ExecuteCommand for each command; the dispatcher finds
// the command's executable, runs it and reports its failure in the command output.
//
// A command path "network ip set" names the file network/ip/set below a registered
// directory; the first directory, in registration order, holding an executable
// regular file of that name wins. Directories are host paths, resolved through
// bootstrand::HostPath; a directory that does not exist is simply passed over, so
// registering one never fails. A command path found once is not looked up again in
// this process (a boot runs the same commands many times) except in the directories
// before the one that held it; should its file be gone when it is run, it is looked
// up afresh.
//
// The executable runs directly (no shell) with one argument "--name=value" per
// input parameter, in order. It shares the process's standard input and output (so
// its output lands wherever the process's standard output goes); its standard error
// is read as it comes (command_errors.h). The command fails when it exits with a
// non-zero status, is killed, or runs past BOOTSTRAND_COMMAND_TIMEOUT seconds (read
// once, when the dispatcher is made; unset or 0: no bound); the output's error lines
// are then "command '<path>' timed out after N s" for a command that ran too long,
// then its first non-empty standard-error lines (with a count of those left out) or,
// when it wrote none, one line giving the exit status or the signal. After a success
// its standard error is passed on unchanged to the process's standard error.
#pragma once

#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/kitbag/command_io.h"

namespace Kitbag::AutoCli {

class Dispatcher {
 public:
  Dispatcher();

  void AddExternalDirectory(const std::string& directory);
  const std::vector<std::string>& GetExternalDirectories() const { return directories_; }

  // Returns when the command has finished, with `output` filled. Throws
  // std::invalid_argument for a null handle and std::runtime_error when the command
  // cannot be started or waited for (pipe or fork failure).
  void ExecuteCommand(std::shared_ptr<CommandInput> input, std::shared_ptr<CommandOutput> output);

  // The executable for `commandPath`, or "" when no directory holds one.
  std::string FindCommand(const std::list<std::string>& commandPath) const;

 private:
  struct Found {
    std::string path;
    std::size_t directory = 0;  // the index of the directory that held it
  };

  std::vector<std::string> directories_;
  unsigned timeoutSeconds_;
  // Executables found so far, by host root and command path.
  mutable std::unordered_map<std::string, Found> found_;
};

}  // namespace Kitbag::AutoCli
