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
      {"", "-"}, {" \t\n ", "-"}, {"  # 'unbalanced \" ignored", "-"},
      {"network up # not 'a word", "[network] [up]"},
      {"a#b '#c' --x=#1", "[a#b] [#c] --x=[#1]"},
      {R"(c --v 'a "b" \c')", R"([c] --v=[a "b" \c])"},
      {R"(c --v "say \"hi\" \\ \n")", R"([c] --v=[say "hi" \ \n])"},
      {R"(c --v a\ b\'c)", "[c] --v=[a b'c]"},
      {R"(c --v pre'mid'"post" --e '')", "[c] --v=[premidpost] --e=[]"},
      {"net set --ip 10.0.0.1 --mask=255.0.0.0 --dhcp --count -1 --k=a=b --e= --f",
       "[net] [set] --ip=[10.0.0.1] --mask=[255.0.0.0] --dhcp=[true] --count=[-1] --k=[a=b] --e=[] --f=[true]"},
      {"c --a 1 --a 2", "[c] --a=[1] --a=[2]"},  // a repeated option is kept
      {"c --v 'abc", "! Unbalanced single quote"},
      {R"(c --v "abc\")", "! Unbalanced double quote"},
      {R"(c --v \)", "! Backslash at the end of the command string"},
      {"--ip 1 net", "--ip=[1] ! Missing command path before option '--ip' ! Unexpected word 'net' after the options"},
      {"net --a=1 stray", "[net] --a=[1] ! Unexpected word 'stray' after the options"},
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

// Runs "network ip set" from a command directory in a private host root; the
// executor tests cover lookup across several directories.
class DispatcherTest : public ::testing::Test {
 protected:
  DispatcherTest() { dispatcher_.AddExternalDirectory("/commands"); }
  std::string WriteCommand(const std::string& script) {
    std::string path = root_.Path("/commands/network/ip/set");
    std::filesystem::create_directories(root_.Path("/commands/network/ip"));
    std::ofstream(path) << script;
    chmod(path.c_str(), 0755);
    return path;
  }
  // The errors of a run of the command, checked against its error mark.
  Strings Run() {
    auto input = CommandInput::New();
    auto output = CommandOutput::New();
    input->SetCommandPath({"network", "ip", "set"});
    dispatcher_.ExecuteCommand(input, output);
    EXPECT_EQ(output->HasError(), !output->GetErrors().empty());
    return output->GetErrors();
  }

  ScopedRoot root_;
  Dispatcher dispatcher_;
};

TEST_F(DispatcherTest, FailureIsReportedByStandardErrorLinesOrStatusAndLeavesNoDescriptorOpen) {
  auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  const auto before = openDescriptors();
  const std::pair<std::string, Strings> cases[] = {
      {"echo first >&2; echo >&2; printf second >&2; exit 1", {"first", "second"}},
      {"exit 3", {"command 'network ip set' exited with status 3"}},
      {"kill -9 $$", {"command 'network ip set' was killed by signal 9"}}};
  for (const auto& [script, errors] : cases) {
    WriteCommand("#!/bin/sh\n" + script + "\n");
    EXPECT_EQ(Run(), errors) << script;
  }
  const std::string path = WriteCommand("#!/no/such/interpreter\n");
  EXPECT_EQ(Run(), Strings{"cannot execute " + path + ": No such file or directory"});
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(DispatcherTest, SuccessKeepsOutputOrderAndPassesStandardErrorOn) {
  WriteCommand("#!/bin/sh\necho child\necho warning >&2\n");
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  std::cout << "before\n";  // still buffered when the command starts
  EXPECT_EQ(Run(), Strings{});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warning\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "before\nchild\n");
}

}  // namespace
}  // namespace bootstrand::testing
