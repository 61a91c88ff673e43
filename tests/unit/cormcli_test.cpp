#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>

#include <gtest/gtest.h>

#include "kinds/cormcli.h"
#include "platform/kitbag/dispatcher.h"
#include "support/test_plugin.h"

namespace bootstrand {
namespace {

using Strings = std::vector<std::string>;

// Every test gets a private host root and its own shared dispatcher, and standard
// output is collected in a file; the previous dispatcher and output are put back
// afterwards.
class CormcliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    savedDispatcher_ = std::exchange(Cormcli::dispatcher, nullptr);
    std::fflush(stdout);
    savedOut_ = dup(STDOUT_FILENO);
    int out = open(root_.Path("/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dup2(out, STDOUT_FILENO);
    close(out);
  }
  void TearDown() override {
    std::fflush(stdout);
    dup2(savedOut_, STDOUT_FILENO);
    close(savedOut_);
    delete std::exchange(Cormcli::dispatcher, savedDispatcher_);
  }
  std::string Out() {
    std::fflush(stdout);
    return root_.Read("/stdout");
  }
  // A command in command directory `directory` that appends `word` and its
  // arguments to the file "ran", then runs `extra`.
  void WriteCommand(std::string path, const std::string& word, const std::string& extra = "", int directory = 0,
                    mode_t mode = 0755) {
    std::replace(path.begin(), path.end(), ' ', '/');
    path = root_.Path(Cormcli::commandDirectories[directory] + "/" + path);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << "#!/bin/sh\necho " << word << " \"$@\" >> \"$BOOTSTRAND_ROOT/ran\"\n" << extra << "\n";
    chmod(path.c_str(), mode);
  }
  std::string Ran() { return root_.Read("/ran"); }

  testing::ScopedRoot root_;
  int savedOut_ = -1;
  Kitbag::AutoCli::Dispatcher* savedDispatcher_ = nullptr;
};

TEST_F(CormcliTest, RunsTheFirstExecutableFoundWithItsOptions) {
  WriteCommand("network ip set", "not-executable", "", 0, 0644);
  WriteCommand("network ip set", "int", "", 1);
  WriteCommand("network ip set", "ext", "", 3);
  Cormcli cormcli;
  cormcli.Execute("network ip set --ip 10.0.0.1 --name 'a b' --dhcp", false, false);
  cormcli.Execute("  # network ip set", false, false);
  EXPECT_EQ(Ran(), "int --ip=10.0.0.1 --name=a b --dhcp=true\n");
}

TEST_F(CormcliTest, FailuresCarryStageErrorsAndMessage) {
  struct Case {
    std::string command, stage;
    Strings errors;
  };
  WriteCommand("bad address", "", "echo 'no such address' >&2; exit 2");
  WriteCommand("bad status", "", "exit 4");
  for (const Case& c : {Case{"network ip set --ip '10.0", "parse", {"Unbalanced single quote"}},
                        Case{"bad address", "execute", {"no such address"}},
                        Case{"bad status", "execute", {"command 'bad status' exited with status 4"}},
                        Case{"network ip get", "execute", {"Unknown command 'network ip get'"}}}) {
    try {
      Cormcli().Execute(c.command, false, false);
      ADD_FAILURE() << "no exception for " << c.command;
    } catch (const CormcliException& failure) {
      EXPECT_EQ(failure.command, c.command);
      EXPECT_EQ(failure.stage, c.stage);
      EXPECT_EQ(failure.errors, c.errors);
      EXPECT_EQ(failure.what(), c.stage + " " + c.command + " failed");
    }
  }
}

TEST_F(CormcliTest, ListGoesOnAfterFailuresAndKeepsTheirOrder) {
  WriteCommand("step one", "one");
  WriteCommand("step fail", "fail", "exit 1");
  std::vector<CormcliException> failures =
      Cormcli().Execute(Strings{"step one --x 'broken", "step fail", "step one"}, false, false);
  EXPECT_EQ(Ran(), "fail\none\n");
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_STREQ(failures[0].what(), "parse step one --x 'broken failed");
  EXPECT_STREQ(failures[1].what(), "execute step fail failed");
}

TEST_F(CormcliTest, OtherExceptionsBecomeFailuresWithAnEmptyStage) {
  WriteCommand("step one", "one");
  // With SIGCHLD ignored the kernel reaps the command itself, so waiting for it fails.
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &previous);
  std::vector<CormcliException> failures = Cormcli().Execute(Strings{"step one", "step one --again"}, false, false);
  sigaction(SIGCHLD, &previous, nullptr);
  EXPECT_EQ(Ran(), "one\none --again=true\n");
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_STREQ(failures[0].what(), " step one failed");
  EXPECT_EQ(failures[0].errors,
            Strings{"cannot wait for " + root_.Path("/usr/lib/tessary/cormcli/step/one") + ": No child processes"});
  EXPECT_STREQ(failures[1].what(), " step one --again failed");
}

TEST_F(CormcliTest, DryRunExecutesAndTimesNothingButReportsParseErrors) {
  WriteCommand("step one", "one");
  std::vector<CormcliException> failures =
      Cormcli().Execute(Strings{"step one --x=1", "step \"one", "no such command"}, true, true);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_STREQ(failures[0].what(), "parse step \"one failed");
  EXPECT_EQ(Ran(), "");
  EXPECT_EQ(Out(), "");
}

TEST(FormatTiming, BorrowsAndPadsMicroseconds) {
  EXPECT_EQ(FormatTiming({10, 999999}, {11, 1}, "a b"), "0.000002 cormcli a b");
  EXPECT_EQ(FormatTiming({100, 0}, {101, 250}, "a"), "1.000250 cormcli a");
  EXPECT_EQ(FormatTiming({5, 500000}, {17, 250000}, "a"), "11.750000 cormcli a");
}

TEST_F(CormcliTest, TimesEveryExecutedCommandIncludingFailures) {
  WriteCommand("step one", "one");
  std::vector<CormcliException> failures =
      Cormcli().Execute(Strings{"step one --x='a b'", "# comment", "step missing", "step 'x"}, false, true);
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_EQ(failures[0].stage, "execute");
  EXPECT_TRUE(std::regex_match(Out(), std::regex("[0-9]+\\.[0-9]{6} cormcli step one --x='a b'\n"
                                                      "[0-9]+\\.[0-9]{6} cormcli step missing\n")))
      << Out();
}

TEST_F(CormcliTest, ExecutorsShareOneDispatcherSetUpOnce) {
  Cormcli first;
  Kitbag::AutoCli::Dispatcher* shared = Cormcli::dispatcher;
  ASSERT_NE(shared, nullptr);
  Cormcli second;
  EXPECT_EQ(Cormcli::dispatcher, shared);
  EXPECT_EQ(shared->GetExternalDirectories(),
            (Strings{"/usr/lib/tessary/cormcli", "/usr/lib/tessary/cormcli/int", "/usr/lib/tessary/cormcli/int/ext",
                     "/usr/lib/tessary/cormcli/ext"}));
}

}  // namespace
}  // namespace bootstrand
