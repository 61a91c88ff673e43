// What one command writes to its standard error, in bounded memory. The command
// runner feeds it as it reads; the dispatcher asks for the failure lines once the
// command has ended. The first lines are held until the outcome is known; a command
// that writes more than those has everything passed on to this process's standard
// error as it comes, so a long output is neither kept in memory nor lost.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Kitbag::AutoCli {

class CommandErrors {
 public:
  // Lines of a failing command that reach its failure text, and the bytes held for
  // them: enough to say what went wrong, small whatever the command writes.
  static constexpr std::size_t kHeldLines = 20;
  static constexpr std::size_t kHeldBytes = 16 * 1024;

  // `passOn` receives what is passed on (this process's standard error).
  explicit CommandErrors(int passOn);

  void Add(std::string_view text);

  // The command succeeded: what is still held goes on too, unchanged.
  void PassOn();

  // The non-empty lines for the failure text: the first kHeldLines, then one line
  // saying how many more there were, when there were more.
  std::vector<std::string> FailureLines() const;

 private:
  void Write(std::string_view text) const;
  void Count(std::string_view text);

  int passOn_;
  std::string held_;
  bool passing_ = false;  // past the held lines: everything goes on as it comes
  std::string partial_;   // the start of a line not yet passed on
  std::size_t lines_ = 0; // non-empty lines, the one being written included
  bool inLine_ = false;   // the last byte seen began or continued a non-empty line
};

}  // namespace Kitbag::AutoCli
