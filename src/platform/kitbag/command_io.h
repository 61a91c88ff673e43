// The input and output of one dispatched command. The caller creates both with New,
// names itself and the command path on the input, and hands both to
// Dispatcher::ExecuteCommand, which fills the output.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/kitbag/call_spec.h"

namespace Kitbag::AutoCli {

class CommandInput : public CallSpec::Input {
 public:
  static std::shared_ptr<CommandInput> New() { return std::make_shared<CommandInput>(); }

  // The caller's name, for the record only: the command does not see it.
  void SetDispatcher(const std::string& name) { dispatcher_ = name; }
  const std::string& GetDispatcher() const { return dispatcher_; }

  void SetCommandPath(const std::list<std::string>& path) { commandPath_ = path; }
  const std::list<std::string>& GetCommandPath() const { return commandPath_; }

 private:
  std::string dispatcher_;
  std::list<std::string> commandPath_;
};

// The command's standard output is not collected here: it goes to the process's
// standard output. The output carries only the error lines of a failed command.
class CommandOutput : public CallSpec::Output {
 public:
  static std::shared_ptr<CommandOutput> New() { return std::make_shared<CommandOutput>(); }
};

}  // namespace Kitbag::AutoCli
