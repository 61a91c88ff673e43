// Splits one management command string into a command path and named options. The
// caller creates one parser per string, calls ParseString, and reads the errors, or
// the path and the options.
//
// Words are split at blanks with shell-like quoting:
//   'text'   single quotes keep everything up to the next single quote literally;
//   "text"   double quotes keep their text, except that a backslash before " or
//            before another backslash makes that character literal (any other
//            backslash is kept as it is);
//   \c       outside quotes a backslash makes the next character literal;
//   # ...    an unquoted word that starts with # begins a comment to the end.
// Quoted and unquoted pieces next to each other form one word; '' is an empty word.
//
// The leading words up to the first option form the command path. An option is a word
// starting with "--": "--name=value", "--name value" (the next word, when it does not
// start with "--") or a bare "--name", whose value is "true". Every word after the
// first option must be an option or an option's value.
//
// Parse errors, one line each: an unbalanced quote or a trailing backslash (which end
// the parse), an option before any command path, a word after the options that is not
// an option's value, an empty option name ("--", "--=x"), and a path word that is
// empty, ".", ".." or contains "/".
#pragma once

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace Kitbag::AutoCli {

class OptionParser {
 public:
  // Returns true when the string holds nothing to run (empty, blank or only a
  // comment). Otherwise returns false, and the string parsed if GetParseErrors() is
  // empty. Each call starts afresh.
  bool ParseString(const std::string& text);

  const std::vector<std::string>& GetParseErrors() const { return errors_; }
  const std::list<std::string>& GetCommandPath() const { return commandPath_; }
  // The options as (name, value) pairs in the order written, repeats included.
  const std::vector<std::pair<std::string, std::string>>& GetCommandParameters() const { return parameters_; }

 private:
  // Fills `words`; false (with one error line) when the quoting is broken.
  bool SplitWords(const std::string& text, std::vector<std::string>& words);
  void ReadWords(const std::vector<std::string>& words);

  std::vector<std::string> errors_;
  std::list<std::string> commandPath_;
  std::vector<std::pair<std::string, std::string>> parameters_;
};

}  // namespace Kitbag::AutoCli
