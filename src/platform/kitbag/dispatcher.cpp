#include "platform/kitbag/dispatcher.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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

std::vector<std::string> NonEmptyLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace

void Dispatcher::AddExternalDirectory(const std::string& directory) { directories_.push_back(directory); }

std::string Dispatcher::FindCommand(const std::list<std::string>& commandPath) const {
  if (commandPath.empty()) return "";
  const std::string relative = Join(commandPath, '/');
  std::string& found = found_[bootstrand::HostPath("/") + relative];
  if (!found.empty()) return found;
  for (const std::string& directory : directories_) {
    std::string candidate = bootstrand::HostPath(directory) + "/" + relative;
    struct stat status {};
    if (stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(candidate.c_str(), X_OK) == 0) {
      return found = candidate;
    }
  }
  return "";
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
  CommandProcessResult result = RunCommandProcess(executable, arguments);
  if (result.execError == ENOENT) {
    // Found earlier in the boot and gone since: look again, once.
    found_.clear();
    const std::string again = FindCommand(input->GetCommandPath());
    if (again.empty()) {
      output->AddError("Unknown command '" + name + "'");
      return;
    }
    if (again != executable) result = RunCommandProcess(again, arguments);
  }

  if (WIFEXITED(result.waitStatus) && WEXITSTATUS(result.waitStatus) == 0) {
    bootstrand::WriteAll(STDERR_FILENO, result.errorOutput.data(), result.errorOutput.size());
    return;
  }
  std::vector<std::string> lines = NonEmptyLines(result.errorOutput);
  if (lines.empty()) {
    if (WIFSIGNALED(result.waitStatus)) {
      lines.push_back("command '" + name + "' was killed by signal " + std::to_string(WTERMSIG(result.waitStatus)));
    } else {
      lines.push_back("command '" + name + "' exited with status " + std::to_string(WEXITSTATUS(result.waitStatus)));
    }
  }
  for (const std::string& line : lines) output->AddError(line);
}

}  // namespace Kitbag::AutoCli
