// The management-command executor: lookup across the command directories, failures
// by stage, lists that go on after a failure, dry runs and timing records.
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

#include "kinds/cormcli.h"
#include "platform/kitbag/dispatcher.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

using Strings = std::vector<std::string>;

// Every test gets a private host root and its own shared dispatcher; the previous
// dispatcher is put back afterwards.
class CormcliTest : public ::testing::Test {
 protected:
  CormcliTest() : saved_(std::exchange(Cormcli::dispatcher, nullptr)) {}
  ~CormcliTest() override { delete std::exchange(Cormcli::dispatcher, saved_); }

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

  ScopedRoot root_;
  Kitbag::AutoCli::Dispatcher* saved_;
};

TEST_F(CormcliTest, RunsTheFirstExecutableFoundWithItsOptionsThroughOneSharedDispatcher) {
  WriteCommand("network ip set", "not-executable", "", 0, 0644);
  WriteCommand("network ip set", "int", "", 1);
  WriteCommand("network ip set", "ext", "", 3);
  Cormcli cormcli;
  Kitbag::AutoCli::Dispatcher* shared = Cormcli::dispatcher;
  Cormcli().Execute("network ip set --ip 10.0.0.1 --name 'a b' --dhcp", false, false);
  cormcli.Execute("  # network ip set", false, false);
  EXPECT_EQ(root_.Read("/ran"), "int --ip=10.0.0.1 --name=a b --dhcp=true\n");
  EXPECT_EQ(Cormcli::dispatcher, shared);
}

TEST_F(CormcliTest, AListGoesOnAfterFailuresAndReportsEachWithItsStageInOrder) {
  WriteCommand("step one", "one");
  WriteCommand("bad address", "address", "echo 'no such address' >&2; exit 2");
  WriteCommand("bad status", "status", "exit 4");
  const std::tuple<std::string, std::string, Strings> expected[] = {
      {"network ip set --ip '10.0", "parse", {"Unbalanced single quote"}},
      {"bad address", "execute", {"no such address"}},
      {"bad status", "execute", {"command 'bad status' exited with status 4"}},
      {"network ip get", "execute", {"Unknown command 'network ip get'"}},
  };
  std::vector<CormcliException> failures = Cormcli().Execute(
      Strings{"network ip set --ip '10.0", "bad address", "step one", "bad status", "network ip get", "step one --x"},
      false, false);
  EXPECT_EQ(root_.Read("/ran"), "address\none\nstatus\none --x=true\n");
  ASSERT_EQ(failures.size(), std::size(expected));
  for (std::size_t i = 0; i < failures.size(); ++i) {
    const auto& [command, stage, errors] = expected[i];
    EXPECT_EQ(failures[i].command, command);
    EXPECT_EQ(failures[i].stage, stage) << command;
    EXPECT_EQ(failures[i].errors, errors) << command;
    EXPECT_EQ(failures[i].what(), stage + " " + command + " failed");
  }
  EXPECT_THROW(Cormcli().Execute("bad status", false, false), CormcliException);
}

TEST_F(CormcliTest, OtherExceptionsBecomeFailuresWithAnEmptyStage) {
  WriteCommand("step one", "one");
  // With SIGCHLD ignored the kernel reaps the command itself, so waiting for it fails.
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &previous);
  std::vector<CormcliException> failures = Cormcli().Execute(Strings{"step one", "step one --again"}, false, false);
  sigaction(SIGCHLD, &previous, nullptr);
  EXPECT_EQ(root_.Read("/ran"), "one\none --again=true\n");
  ASSERT_EQ(failures.size(), 2u);
  EXPECT_STREQ(failures[0].what(), " step one failed");
  EXPECT_EQ(failures[0].errors,
            Strings{"cannot wait for " + root_.Path("/usr/lib/tessary/cormcli/step/one") + ": No child processes"});
  EXPECT_STREQ(failures[1].what(), " step one --again failed");
}

TEST_F(CormcliTest, ExecutedCommandsAreTimedFailuresIncludedAndADryRunRunsAndTimesNothing) {
  WriteCommand("step one", "one");
  ::testing::internal::CaptureStdout();
  std::vector<CormcliException> dry =
      Cormcli().Execute(Strings{"step one --x=1", "step \"one", "no such command"}, true, true);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(root_.Read("/ran"), "");
  ASSERT_EQ(dry.size(), 1u);
  EXPECT_STREQ(dry[0].what(), "parse step \"one failed");

  ::testing::internal::CaptureStdout();
  std::vector<CormcliException> failures =
      Cormcli().Execute(Strings{"step one --x='a b'", "# comment", "step missing", "step 'x"}, false, true);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(failures.size(), 2u);
  EXPECT_TRUE(std::regex_match(out, std::regex("[0-9]+\\.[0-9]{6} cormcli step one --x='a b'\n"
                                               "[0-9]+\\.[0-9]{6} cormcli step missing\n")))
      << out;
}

TEST(FormatTiming, BorrowsAndPadsMicroseconds) {
  EXPECT_EQ(FormatTiming({10, 999999}, {11, 1}, "a b"), "0.000002 cormcli a b");
  EXPECT_EQ(FormatTiming({100, 0}, {101, 250}, "a"), "1.000250 cormcli a");
  EXPECT_EQ(FormatTiming({5, 500000}, {17, 250000}, "a"), "11.750000 cormcli a");
}

}  // namespace
}  // namespace bootstrand::testing
