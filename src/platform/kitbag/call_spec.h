// The generic call values of the command-dispatch library: an input holding a
// call's named parameters and an output holding its error lines. The caller fills
// the input; the dispatcher reads it and fills the output.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Kitbag::CallSpec {

class Input {
 public:
  virtual ~Input() = default;

  // Parameters keep the order in which they were added; a repeated name is kept
  // twice, and the command sees both.
  void AddParameter(const std::string& name, const std::string& value) { parameters_.emplace_back(name, value); }
  const std::vector<std::pair<std::string, std::string>>& GetParameters() const { return parameters_; }

 private:
  std::vector<std::pair<std::string, std::string>> parameters_;
};

class Output {
 public:
  virtual ~Output() = default;

  void AddError(const std::string& line) { errors_.push_back(line); }
  // True when the call failed; a failed call always has at least one error line.
  bool HasError() const { return !errors_.empty(); }
  const std::vector<std::string>& GetErrors() const { return errors_; }

 private:
  std::vector<std::string> errors_;
};

}  // namespace Kitbag::CallSpec
