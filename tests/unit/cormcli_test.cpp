// The management-command executor: lookup across the command directories, failures
// by stage, lists that go on after a failure, dry runs and timing records, and the
// dispatcher that runs a command executable.
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
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
  EXPECT_EQ(root_.ReadFile("/ran"), "int --ip=10.0.0.1 --name=a b --dhcp=true\n");
  EXPECT_EQ(Cormcli::dispatcher, shared);
}

// Each failure as "<what>: <errors>" on a line.
std::string Reported(const std::vector<CormcliException>& failures) {
  std::string lines;
  for (const CormcliException& failure : failures) lines += failure.what() + (": " + Joined(failure.errors)) + "\n";
  return lines;
}

// Failed commands are timed too; a comment and a command that does not parse are
// not. Other exceptions than the executor's own are failures with an empty stage.
// (Failures by standard error, and unknown commands, are the end-to-end tests'.)
TEST_F(CormcliTest, AListGoesOnAfterFailuresAndReportsEachWithItsStage) {
  WriteCommand("step one", "one");
  WriteCommand("bad status", "status", "exit 4");
  ::testing::internal::CaptureStdout();
  std::vector<CormcliException> failures =
      Cormcli().Execute(Strings{"step 'one", "bad status", "  # step one", "step one --x='a b'"}, false, true);
  const std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::regex_replace(out, std::regex("[0-9]+\\.[0-9]{6} cormcli"), "T cormcli"),
            "T cormcli bad status\nT cormcli step one --x='a b'\n");
  EXPECT_EQ(Reported(failures), "parse step 'one failed: Unbalanced single quote\n"
                                "execute bad status failed: command 'bad status' exited with status 4\n");
  EXPECT_THROW(Cormcli().Execute("bad status", false, false), CormcliException);

  // With SIGCHLD ignored the kernel reaps the command itself, so waiting for it fails.
  struct sigaction ignore {}, previous {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &ignore, &previous);
  failures = Cormcli().Execute(Strings{"step one"}, false, false);
  sigaction(SIGCHLD, &previous, nullptr);
  EXPECT_EQ(Reported(failures), " step one failed: cannot wait for " + root_.Path("/usr/lib/tessary/cormcli/step/one") +
                                    ": No child processes\n");
  EXPECT_EQ(root_.ReadFile("/ran"), "status\none --x=a b\nstatus\none\n");
}

// Failure shows as lines on standard error or as the exit status; output written
// before the command starts comes first, and standard error passes on when it
// succeeds. No descriptor is left open.
TEST_F(CormcliTest, CommandsFailByStandardErrorOrStatusAndLeaveNoDescriptorOpen) {
  auto openDescriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  };
  const auto before = openDescriptors();
  const std::string path = root_.Path("/usr/lib/tessary/cormcli/net/set");
  const std::pair<std::string, std::string> cases[] = {
      {"echo first >&2; echo >&2; printf second >&2; exit 1", "first,second"},
      {"exit 3", "command 'net set' exited with status 3"},
      {"kill -9 $$", "command 'net set' was killed by signal 9"},
      {"", "cannot execute " + path + ": No such file or directory"},  // its interpreter is missing
  };
  for (const auto& [script, errors] : cases) {
    WriteCommand("net set", "net", script);
    if (script.empty()) std::ofstream(path) << "#!/no/such/interpreter\n";
    std::vector<CormcliException> failures = Cormcli().Execute(Strings{"net set"}, false, false);
    EXPECT_EQ(failures.size() == 1 ? Joined(failures[0].errors) : "?", errors) << script;
  }
  EXPECT_EQ(openDescriptors(), before);

  WriteCommand("net set", "net", "echo child; echo warning >&2");
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  std::cout << "before\n";  // still buffered when the command starts
  Cormcli().Execute("net set", false, false);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warning\n");
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "before\nchild\n");
}

TEST(FormatTiming, BorrowsAndPadsMicroseconds) {
  EXPECT_EQ(FormatTiming({10, 999999}, {11, 1}, "a b"), "0.000002 cormcli a b");
  EXPECT_EQ(FormatTiming({5, 500000}, {17, 250000}, "a"), "11.750000 cormcli a");
}

}  // namespace
}  // namespace bootstrand::testing
