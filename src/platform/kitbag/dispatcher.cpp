#include "platform/kitbag/dispatcher.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "platform/host_path.h"
#include "platform/kitbag/command_process.h"
#include "platform/unique_fd.h"

namespace Kitbag::AutoCli {

namespace {

std::string Join(const std::list<std::string>& words, char separator) {
  std::string joined;
  for (const std::string& word : words) {
    if (!joined.empty()) joined += separator;
    joined += word;
  }
  return joined;
}

// BOOTSTRAND_COMMAND_TIMEOUT: the seconds a command may run, 0 or unset for no bound.
unsigned CommandTimeout() {
  const char* value = std::getenv("BOOTSTRAND_COMMAND_TIMEOUT");
  if (value == nullptr || *value == '\0') return 0;
  char* end = nullptr;
  errno = 0;
  const unsigned long seconds = std::strtoul(value, &end, 10);
  if (*end != '\0' || errno != 0 || seconds > 1000000000UL || !std::isdigit(static_cast<unsigned char>(*value))) {
    std::cerr << "Ignoring BOOTSTRAND_COMMAND_TIMEOUT=" << value << ": not a whole number of seconds" << std::endl;
    return 0;
  }
  return static_cast<unsigned>(seconds);
}

}  // namespace

Dispatcher::Dispatcher() : timeoutSeconds_(CommandTimeout()) {}

void Dispatcher::AddExternalDirectory(const std::string& directory) { directories_.push_back(directory); }

std::string Dispatcher::FindCommand(const std::list<std::string>& commandPath) const {
  if (commandPath.empty()) return "";
  const std::string relative = Join(commandPath, '/');
  Found& found = found_[bootstrand::HostPath("/") + relative];
  // A command found once is asked for again only in the directories before the one
  // that held it: an executable put there since (by an earlier plugin of this boot)
  // takes precedence, as it would have at the first look. Usually there are none, or
  // one stat that fails at once.
  const std::size_t searched = found.path.empty() ? directories_.size() : found.directory;
  for (std::size_t index = 0; index < searched; ++index) {
    std::string candidate = bootstrand::HostPath(directories_[index]) + "/" + relative;
    struct stat status {};
    if (stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(candidate.c_str(), X_OK) == 0) {
      found = {candidate, index};
      break;
    }
  }
  return found.path;
}

void Dispatcher::ExecuteCommand(std::shared_ptr<CommandInput> input, std::shared_ptr<CommandOutput> output) {
  if (input == nullptr || output == nullptr) throw std::invalid_argument("ExecuteCommand needs an input and an output");
  const std::string name = Join(input->GetCommandPath(), ' ');
  const std::string executable = FindCommand(input->GetCommandPath());
  if (executable.empty()) {
    output->AddError("Unknown command '" + name + "'");
    return;
  }

  std::vector<std::string> arguments;
  for (const auto& [parameter, value] : input->GetParameters()) arguments.push_back("--" + parameter + "=" + value);
  CommandErrors errors(STDERR_FILENO);
  CommandProcessResult result = RunCommandProcess(executable, arguments, errors, timeoutSeconds_);
  if (result.execError == ENOENT) {
    // Found earlier in the boot and gone since: look again, once.
    found_.clear();
    const std::string again = FindCommand(input->GetCommandPath());
    if (again.empty()) {
      output->AddError("Unknown command '" + name + "'");
      return;
    }
    if (again != executable) {
      errors = CommandErrors(STDERR_FILENO);
      result = RunCommandProcess(again, arguments, errors, timeoutSeconds_);
    }
  }

  if (result.timedOut == 0 && !result.stopped && WIFEXITED(result.waitStatus) && WEXITSTATUS(result.waitStatus) == 0) {
    errors.PassOn();
    return;
  }
  std::vector<std::string> lines = errors.FailureLines();
  if (result.timedOut != 0) {
    lines.insert(lines.begin(), "command '" + name + "' timed out after " + std::to_string(result.timedOut) + " s");
  } else if (result.stopped) {
    lines.insert(lines.begin(), "command '" + name + "' stopped: the boot is being stopped");
  } else if (lines.empty()) {
    if (WIFSIGNALED(result.waitStatus)) {
      lines.push_back("command '" + name + "' was killed by signal " + std::to_string(WTERMSIG(result.waitStatus)));
    } else {
      lines.push_back("command '" + name + "' exited with status " + std::to_string(WEXITSTATUS(result.waitStatus)));
    }
  }
  for (const std::string& line : lines) output->AddError(line);
}

}  // namespace Kitbag::AutoCli
