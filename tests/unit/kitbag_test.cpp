// The command-string parser and the dispatcher that runs a command executable.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iostream>

#include "platform/kitbag/dispatcher.h"
#include "platform/kitbag/option_parser.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

using namespace Kitbag::AutoCli;
using Strings = std::vector<std::string>;

// A parse as one line: "-" when there is nothing to run, else each path word and
// each option as "[word]" and "--name=[value]", then each error as "! error".
std::string Parsed(OptionParser& parser, const std::string& text) {
  if (parser.ParseString(text)) return "-";
  std::string parsed;
  auto add = [&parsed](const std::string& piece) { parsed += (parsed.empty() ? "" : " ") + piece; };
  for (const std::string& word : parser.GetCommandPath()) add("[" + word + "]");
  for (const auto& [name, value] : parser.GetCommandParameters()) add("--" + name + "=[" + value + "]");
  for (const std::string& error : parser.GetParseErrors()) add("! " + error);
  return parsed;
}

TEST(OptionParser, SplitsEachCommandStringIntoPathOptionsAndErrors) {
  const std::pair<std::string, std::string> cases[] = {
      {" \t\n ", "-"}, {"  # 'unbalanced \" ignored", "-"}, {"network up # not 'a word", "[network] [up]"},
      {"a#b '#c' --x=#1", "[a#b] [#c] --x=[#1]"}, {R"(c --v 'a "b" \c')", R"([c] --v=[a "b" \c])"},
      {R"(c --v "say \"hi\" \\ \n")", R"([c] --v=[say "hi" \ \n])"}, {R"(c --v a\ b\'c)", "[c] --v=[a b'c]"},
      {R"(c --v pre'mid'"post" --e '')", "[c] --v=[premidpost] --e=[]"},
      {"net set --ip 10.0.0.1 --mask=255.0.0.0 --dhcp --count -1 --k=a=b --e= --f",
       "[net] [set] --ip=[10.0.0.1] --mask=[255.0.0.0] --dhcp=[true] --count=[-1] --k=[a=b] --e=[] --f=[true]"},
      {"c --a 1 --a 2", "[c] --a=[1] --a=[2]"},  // a repeated option is kept
      {"c --v 'abc", "! Unbalanced single quote"}, {R"(c --v "abc\")", "! Unbalanced double quote"},
      {R"(c --v \)", "! Backslash at the end of the command string"},
      {"--ip 1 net", "--ip=[1] ! Missing command path before option '--ip' ! Unexpected word 'net' after the options"},
      {"net -- x --=y", "[net] ! Empty option name in '--' ! Empty option name in '--=y'"},
      {"a/b . .. '' ok", "[a/b] [.] [..] [] [ok] ! Invalid command word 'a/b' ! Invalid command word '.' "
                         "! Invalid command word '..' ! Invalid command word ''"},
  };
  OptionParser parser;
  for (const auto& [text, parsed] : cases) {
    parser.ParseString("--stale 'state");  // every parse starts afresh
    EXPECT_EQ(Parsed(parser, text), parsed) << text;
  }
}

// Runs "network ip set" from a command directory in a private host root (the
// executor's tests cover lookup across several directories); returns its errors.
Strings RunCommand(const ScopedRoot& root, const std::string& script) {
  const std::string path = root.Path("/commands/network/ip/set");
  std::filesystem::create_directories(root.Path("/commands/network/ip"));
  std::ofstream(path) << script;
  chmod(path.c_str(), 0755);
  Dispatcher dispatcher;
  dispatcher.AddExternalDirectory("/commands");
  auto input = CommandInput::New();
  auto output = CommandOutput::New();
  input->SetCommandPath({"network", "ip", "set"});
  dispatcher.ExecuteCommand(input, output);
  return output->GetErrors();
}

// Failure shows as lines on standard error or as the exit status; output written
// before the command starts comes first, and standard error passes on when it
// succeeds. No descriptor is left open.
TEST(Dispatcher, ReportsFailuresKeepsOutputOrderAndLeavesNoDescriptorOpen) {
  auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  ScopedRoot root;
  const auto before = openDescriptors();
  const std::pair<std::string, Strings> cases[] = {
      {"#!/bin/sh\necho first >&2; echo >&2; printf second >&2; exit 1\n", {"first", "second"}},
      {"#!/bin/sh\nexit 3\n", {"command 'network ip set' exited with status 3"}},
      {"#!/bin/sh\nkill -9 $$\n", {"command 'network ip set' was killed by signal 9"}},
      {"#!/no/such/interpreter\n", {"cannot execute " + root.Path("/commands/network/ip/set") + ": No such file or directory"}},
  };
  for (const auto& [script, errors] : cases) EXPECT_EQ(RunCommand(root, script), errors) << script;
  EXPECT_EQ(openDescriptors(), before);

  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  std::cout << "before\n";  // still buffered when the command starts
  EXPECT_EQ(RunCommand(root, "#!/bin/sh\necho child\necho warning >&2\n"), Strings{});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warning\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "before\nchild\n");
}

}  // namespace
}  // namespace bootstrand::testing
