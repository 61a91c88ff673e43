#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <gtest/gtest.h>

#include "platform/kitbag/dispatcher.h"
#include "platform/kitbag/option_parser.h"
#include "platform/signals.h"
#include "support/test_plugin.h"

namespace {

using namespace Kitbag::AutoCli;
using Parameters = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;

struct ParseCase {
  std::string name, text;
  bool nothingToRun;
  Strings path;
  Parameters parameters;
  Strings errors;
};

class OptionParserTest : public ::testing::TestWithParam<ParseCase> {};

TEST_P(OptionParserTest, Parses) {
  const ParseCase& c = GetParam();
  OptionParser parser;
  parser.ParseString("--stale 'state");  // every parse starts afresh
  EXPECT_EQ(parser.ParseString(c.text), c.nothingToRun);
  EXPECT_EQ(Strings(parser.GetCommandPath().begin(), parser.GetCommandPath().end()), c.path);
  EXPECT_EQ(parser.GetCommandParameters(), c.parameters);
  EXPECT_EQ(parser.GetParseErrors(), c.errors);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, OptionParserTest,
    ::testing::Values(
        ParseCase{"Empty", "", true, {}, {}, {}}, ParseCase{"Blank", " \t\n ", true, {}, {}, {}},
        ParseCase{"OnlyComment", "  # 'unbalanced \" ignored", true, {}, {}, {}},
        ParseCase{"CommentAfterWords", "network up # not 'a word", false, {"network", "up"}, {}, {}},
        ParseCase{"HashInsideWordOrQuoted", "a#b '#c' --x=#1", false, {"a#b", "#c"}, {{"x", "#1"}}, {}},
        ParseCase{"SingleQuotesLiteral", R"(c --v 'a "b" \c')", false, {"c"}, {{"v", R"(a "b" \c)"}}, {}},
        ParseCase{"DoubleQuoteEscapes", R"(c --v "say \"hi\" \\ \n")", false, {"c"}, {{"v", R"(say "hi" \ \n)"}}, {}},
        ParseCase{"BackslashOutsideQuotes", R"(c --v a\ b\'c)", false, {"c"}, {{"v", "a b'c"}}, {}},
        ParseCase{"AdjacentPiecesAndEmptyWord", R"(c --v pre'mid'"post" --e '')", false, {"c"},
                  {{"v", "premidpost"}, {"e", ""}}, {}},
        ParseCase{"OptionForms", "net set --ip 10.0.0.1 --mask=255.0.0.0 --dhcp --count -1 --k=a=b --e= --f", false,
                  {"net", "set"},
                  {{"ip", "10.0.0.1"}, {"mask", "255.0.0.0"}, {"dhcp", "true"}, {"count", "-1"}, {"k", "a=b"},
                   {"e", ""}, {"f", "true"}}, {}},
        ParseCase{"RepeatedOptionKept", "c --a 1 --a 2", false, {"c"}, {{"a", "1"}, {"a", "2"}}, {}},
        ParseCase{"UnbalancedSingleQuote", "c --v 'abc", false, {}, {}, {"Unbalanced single quote"}},
        ParseCase{"UnbalancedDoubleQuote", R"(c --v "abc\")", false, {}, {}, {"Unbalanced double quote"}},
        ParseCase{"TrailingBackslash", R"(c --v \)", false, {}, {}, {"Backslash at the end of the command string"}},
        ParseCase{"OptionWithoutPath", "--ip 1 net", false, {}, {{"ip", "1"}},
                  {"Missing command path before option '--ip'", "Unexpected word 'net' after the options"}},
        ParseCase{"StrayWordAfterOptions", "net --a=1 stray", false, {"net"}, {{"a", "1"}},
                  {"Unexpected word 'stray' after the options"}},
        ParseCase{"EmptyOptionNames", "net -- x --=y", false, {"net"}, {},
                  {"Empty option name in '--'", "Empty option name in '--=y'"}},
        ParseCase{"InvalidPathWords", "a/b . .. '' ok", false, {"a/b", ".", "..", "", "ok"}, {},
                  {"Invalid command word 'a/b'", "Invalid command word '.'", "Invalid command word '..'",
                   "Invalid command word ''"}}),
    [](const ::testing::TestParamInfo<ParseCase>& info) { return info.param.name; });

// Runs "network ip set" from a command directory in a private host root; the
// executor tests cover lookup across several directories.
class DispatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dispatcher_.AddExternalDirectory("/commands");
    std::filesystem::create_directories(root_.Path("/commands/network/ip"));
  }
  std::string WriteCommand(const std::string& contents) {
    std::string path = root_.Path("/commands/network/ip/set");
    std::ofstream(path) << contents;
    chmod(path.c_str(), 0755);
    return path;
  }
  Strings Run() {
    auto input = CommandInput::New();
    auto output = CommandOutput::New();
    input->SetCommandPath({"network", "ip", "set"});
    dispatcher_.ExecuteCommand(input, output);
    EXPECT_EQ(output->HasError(), !output->GetErrors().empty());
    return output->GetErrors();
  }

  bootstrand::testing::ScopedRoot root_;
  Dispatcher dispatcher_;
};

TEST_F(DispatcherTest, FailureIsReportedByStandardErrorLinesOrStatus) {
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
}

TEST_F(DispatcherTest, ChildGetsDefaultSignalsThoughTheParentIgnoresOrBlocksThem) {
  bootstrand::IgnoreSignal(SIGPIPE);  // as the scheduler does
  sigset_t blocked, previousMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigprocmask(SIG_BLOCK, &blocked, &previousMask);
  WriteCommand("#!/bin/sh\nkill -PIPE $$\n");
  const Strings pipeErrors = Run();
  WriteCommand("#!/bin/sh\nkill -TERM $$\n");
  const Strings termErrors = Run();
  sigprocmask(SIG_SETMASK, &previousMask, nullptr);
  bootstrand::DefaultSignal(SIGPIPE);
  EXPECT_EQ(pipeErrors, Strings{"command 'network ip set' was killed by signal 13"});
  EXPECT_EQ(termErrors, Strings{"command 'network ip set' was killed by signal 15"});
}

TEST_F(DispatcherTest, SuccessKeepsOutputOrderAndPassesStandardErrorOn) {
  WriteCommand("#!/bin/sh\necho child\necho warning >&2\n");
  std::fflush(nullptr);
  const int savedOut = dup(STDOUT_FILENO), savedErr = dup(STDERR_FILENO);
  const int out = open(root_.Path("/out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const int err = open(root_.Path("/err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  std::cout << "before\n";  // still buffered when the command starts
  const Strings errors = Run();
  std::fflush(nullptr);
  dup2(savedOut, STDOUT_FILENO);
  dup2(savedErr, STDERR_FILENO);
  for (int fd : {savedOut, savedErr, out, err}) close(fd);
  EXPECT_EQ(errors, Strings{});
  EXPECT_EQ(root_.Read("/out"), "before\nchild\n");
  EXPECT_EQ(root_.Read("/err"), "warning\n");
}

TEST_F(DispatcherTest, LeavesNoDescriptorOpen) {
  auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  WriteCommand("#!/bin/sh\necho failed >&2; exit 1\n");
  const auto before = openDescriptors();
  Run();
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
