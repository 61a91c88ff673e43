// Faults injected into whole boots of the real binary: workers that die mid-plugin,
// native plugins that end their process, commands that ignore signals or leave a
// daemon, pipes named as plugins, and host files or folders that cannot be used.
// Every boot must end, report the fault and let the other plugins run.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

// Each fault boots a fresh root with three plugins: "victim" runs the command "fault"
// (`script`, empty by default) and then marks, "after" requires it and "other" does not.
struct Fault {
  const char* name;
  std::string script;
  std::vector<std::string> arguments;
  Lines marks;   // sorted
  Lines alerts;  // sorted
  std::function<void(const HostRoot&)> arrange = nullptr;                  // puts the fault in place
  std::function<void(const HostRoot&, const RunResult&)> check = nullptr;  // what else it must leave
  const char* shell = nullptr;  // a shell line that starts the activator ("$0") instead
  std::map<std::string, std::string> environment = {};
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

const Lines kAll = {"--name=after", "--name=other", "--name=victim"};
const Lines kVictimFailed = {"Bootstrand plugin victim activation failed."};
const Lines kAllFailed = {"Bootstrand plugin after activation failed.", "Bootstrand plugin other activation failed.",
                          "Bootstrand plugin victim activation failed."};

void UnknownCommand(const HostRoot& root, const RunResult&) {
  std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
  EXPECT_NE(log.find("victim: Unknown command 'fault'"), std::string::npos) << log;
}

// A file where a folder belongs, or with `asFolder` the other way round.
void Unusable(const HostRoot& root, const std::string& path, bool asFolder = false) {
  std::filesystem::remove_all(root.Path(path));
  asFolder ? (void)std::filesystem::create_directories(root.Path(path)) : root.WriteFile(path, "in the way\n");
}

// What the system's shared memory and the worker's peak resident size grew by, in
// KiB, while the script's `body` ran; the command then fails.
std::string MeasuredWhile(const std::string& body) {
  return "kib() { awk -v k=\"$1:\" '$1 == k { print $2 }' \"$2\"; }\n"
         "shmem=$(kib Shmem /proc/meminfo); peak=$(kib VmHWM /proc/$PPID/status)\n" +
         body +
         "\necho $(( $(kib Shmem /proc/meminfo) - shmem )) $(( $(kib VmHWM /proc/$PPID/status) - peak )) "
         "> \"$BOOTSTRAND_ROOT/grown\"\nexit 1";
}

// Memory a boot may take on account of a command's standard error, in KiB.
constexpr long kMemoryBound = 8 * 1024;

// Nothing the boot started is left, and the command's failure says why it ended.
void NothingLeftRunning(const HostRoot& root, const RunResult&) {
  EXPECT_EQ(root.ReadLines("/pids").size(), 2u);
  EXPECT_EQ(ProcessesOf(root), Lines{});
  std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
  EXPECT_NE(log.find("victim: command 'fault' timed out after 1 s\n"), std::string::npos) << log;
}

const Fault kFaults[] = {
    // The command's parent is the worker running the plugin. The sanitizers turn a
    // segmentation fault into an ordinary exit: only the line's start is certain.
    {"WorkerKilled", "kill -KILL $PPID", {"--max-workers", "1"}, {"--name=after", "--name=other"}, kVictimFailed,
     nullptr, [](const HostRoot&, const RunResult& run) { EXPECT_EQ(run.out, "victim: exited with signal 9\n"); }},
    {"WorkerSegfault", "kill -SEGV $PPID", {"--max-workers", "1"}, {"--name=after", "--name=other"}, kVictimFailed,
     nullptr, [](const HostRoot&, const RunResult& run) { EXPECT_EQ(run.out.rfind("victim: exited with ", 0), 0u); }},
    // A worker that exits with status 0 reports success, whatever the plugin meant;
    // ntp is the preemptive api5's rival for "time".
    {"NativePluginsEndingTheirProcess", "", {"--max-workers", "1"}, kAll,
     {"Bootstrand plugin crashing activation failed.", "Bootstrand plugin failing activation failed."},
     [](const HostRoot& root) {
       for (const char* name : {"exiting.so", "crashing.so", "api5.so", "failing.so", "version6.so"})
         root.CopyTestPlugin(name);
       root.WritePlugins({{"ntp", {"time"}, {}, {"ntp"}}});
     },
     [](const HostRoot& root, const RunResult& run) {
       EXPECT_EQ(run.out, "crashing: exited with signal 6\n");
       EXPECT_EQ(run.err, "Skipping /usr/libexec/bootstrand/plugins/version6.so: Unsupported API version: 6\n");
       Lines kernel = root.Channel("kernel");
       EXPECT_GE(IndexOf(kernel, "Bootstrand plugin exiting activated."), 0);
       int api5 = IndexOf(kernel, "Bootstrand plugin api5 activated.");
       EXPECT_GE(api5, 0);
       EXPECT_GT(IndexOf(kernel, "Bootstrand plugin ntp skipped."), api5);
       EXPECT_EQ(IndexOf(kernel, "Activating Bootstrand plugin ntp."), -1);
       std::string log = root.ReadFile("/var/log/bootstrand-native-stdout.log");
       EXPECT_NE(log.find("crit Plugin failing failed Invoking method start (rc=7)"), std::string::npos) << log;
       EXPECT_NE(log.find("notice Invoking method start on plugin api5"), std::string::npos) << log;
     }},
    {"CommandIgnoringTermination", "trap '' TERM; kill $$; sleep 1; echo survived >> \"$BOOTSTRAND_ROOT/order.log\"",
     {"--max-workers", "2"}, {"--name=after", "--name=other", "--name=victim", "survived"}, {}, nullptr,
     [](const HostRoot& root, const RunResult&) {
       EXPECT_LT(IndexOf(root.Marks(), "survived"), IndexOf(root.Marks(), "--name=victim"));
       EXPECT_LT(IndexOf(root.Marks(), "--name=victim"), IndexOf(root.Marks(), "--name=after"));
     }},
    // The daemon keeps the command's standard error open for a minute, longer than the
    // test waits; it must neither hold the boot nor be killed, and the timing record is
    // the command's own.
    {"DaemonLeftByACommand", "sleep 60 &\necho $! > \"$BOOTSTRAND_ROOT/daemon.pid\"", {"--time-ops"}, kAll, {}, nullptr,
     [](const HostRoot& root, const RunResult&) {
       pid_t daemon = root.Exists("/daemon.pid") ? std::stoi(root.ReadFile("/daemon.pid")) : 0;
       EXPECT_TRUE(daemon > 0 && kill(daemon, SIGKILL) == 0) << "the daemon did not outlive the boot";
       std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
       std::size_t record = log.find(" cormcli fault\n");
       ASSERT_NE(record, std::string::npos) << log;
       EXPECT_EQ(log.substr(log.rfind('\n', record) + 1, 2), "0.") << log;
     }},
    // 100 MB of errors cost neither shared memory nor the worker's; the failure text
    // keeps the first lines, and the whole output is in the log.
    {"HugeStandardError",
     MeasuredWhile("head -c 100000000 /dev/zero | tr '\\0' e | fold -w 999 >&2"), {}, kAll, kVictimFailed, nullptr,
     [](const HostRoot& root, const RunResult&) {
       long shmem = 0, peak = 0;
       std::istringstream(root.ReadFile("/grown")) >> shmem >> peak;
       EXPECT_LT(shmem, kMemoryBound);
       EXPECT_LT(peak, kMemoryBound);
       std::string log = root.ReadFile("/var/log/bootstrand-cormcli-stdout.log");
       EXPECT_NE(log.find(" victim: ... 100084 more lines of standard error left out\n"), std::string::npos);
       EXPECT_GT(log.size(), 100000000u);
     }},
    // A daemon that goes on writing to the command's standard error after the boot
    // costs no memory and is not killed for it.
    {"ChattyDaemonLeftByACommand",
     "( while :; do printf '%01000d\\n' 0 >&2; done ) &\necho $! > \"$BOOTSTRAND_ROOT/daemon.pid\"", {}, kAll, {},
     nullptr,
     [](const HostRoot& root, const RunResult&) {
       auto shmem = [] {
         std::ifstream meminfo("/proc/meminfo");
         for (std::string key, unit; meminfo >> key;) {
           long kib = 0;
           meminfo >> kib >> unit;
           if (key == "Shmem:") return kib;
         }
         return 0L;
       };
       long before = shmem();
       usleep(1000000);
       EXPECT_LT(shmem() - before, kMemoryBound);
       pid_t daemon = std::stoi(root.ReadFile("/daemon.pid"));
       EXPECT_TRUE(kill(daemon, SIGKILL) == 0) << "the daemon did not outlive the boot";
     }},
    // Past BOOTSTRAND_COMMAND_TIMEOUT the command's group gets SIGTERM, and SIGKILL
    // ten seconds later when it ignores that.
    {"CommandRunningPastItsBound", "echo $$ >> \"$BOOTSTRAND_ROOT/pids\"\nsleep 1000 &\necho $! >> \"$BOOTSTRAND_ROOT/pids\"\nwait",
     {}, kAll, kVictimFailed, nullptr, NothingLeftRunning, nullptr, {{"BOOTSTRAND_COMMAND_TIMEOUT", "1"}}},
    {"CommandIgnoringTheBound",
     "trap '' TERM\necho $$ >> \"$BOOTSTRAND_ROOT/pids\"\nsleep 1000 &\necho $! >> \"$BOOTSTRAND_ROOT/pids\"\nwait",
     {}, kAll, kVictimFailed, nullptr, NothingLeftRunning, nullptr, {{"BOOTSTRAND_COMMAND_TIMEOUT", "1"}}},
    {"CommandsStartWithDefaultSignals", "grep -E '^Sig(Blk|Ign)' /proc/self/status >> \"$BOOTSTRAND_ROOT/order.log\"",
     {}, {"--name=after", "--name=other", "--name=victim", "SigBlk:\t0000000000000000", "SigIgn:\t0000000000000000"},
     {}, nullptr, nullptr, "trap '' HUP PIPE; exec \"$0\""},
    {"LogFolderIsAFile", "", {}, kAll, {}, [](const HostRoot& root) { Unusable(root, "/var/log"); }},
    // A full disk under the plugin log loses the command's output, not the command.
    {"PluginLogOnAFullDisk", "echo a line of output", {}, kAll, {},
     [](const HostRoot& root) {
       std::filesystem::create_symlink("/dev/full", root.Path("/var/log/bootstrand-cormcli-stdout.log"));
     }},
    {"RunOnceMarkerIsAFolder", "", {}, kAll, {}, [](const HostRoot& root) { Unusable(root, "/.runonce", true); }},
    // Without a plugin suffix the kind of file does not matter.
    {"PipesNamedAsPlugins", "", {"--plugin", "victim.json,p.json,/q.so,/r,/dev/null"}, {"--name=victim"}, {},
     [](const HostRoot& root) {
       for (const char* pipe : {"/usr/libexec/bootstrand/plugins/p.json", "/q.so", "/r"})
         ASSERT_EQ(mkfifo(root.Path(pipe).c_str(), 0644), 0);
     },
     [](const HostRoot& root, const RunResult& run) {
       EXPECT_EQ(run.err, "Skipping /dev/null: unknown type\nSkipping /q.so: not a regular file\n"
                          "Skipping /r: unknown type\n"
                          "Skipping /usr/libexec/bootstrand/plugins/p.json: not a regular file\n");
#ifdef BOOTSTRAND_LINT_BINARY
       RunResult lint = RunProgram(BOOTSTRAND_LINT_BINARY, root, {"/q.so"}, {}, 20);
       EXPECT_EQ(lint.exitStatus, 0);
       EXPECT_EQ(lint.out.substr(0, lint.out.find('\n')), "Skipping /q.so: not a regular file");
#endif
     }},
    {"CommandFolderMissing", "", {}, {}, kAllFailed,
     [](const HostRoot& root) { std::filesystem::remove_all(root.Path("/usr/lib/tessary/cormcli")); }, UnknownCommand},
    {"CommandFolderIsAFile", "", {}, {}, kAllFailed,
     [](const HostRoot& root) { Unusable(root, "/usr/lib/tessary/cormcli"); }, UnknownCommand},
    // Standard input is /dev/null: every prompt reads end of input, which continues.
    {"InteractiveModeWithoutInput", "", {"--interactive", "--max-workers", "1"}, kAll, {}},
};

class Faults : public ::testing::TestWithParam<Fault> {};

TEST_P(Faults, TheBootEndsAndTheOtherPluginsRun) {
  const Fault& fault = GetParam();
  HostRoot root;
  root.WriteCommand("fault", fault.script);
  root.WritePlugins({{"victim", {"v"}, {}, {"fault", "mark --name victim"}, {{"run_once", true}}},
                     {"after", {"a"}, {"v"}, {"mark --name after"}}, {"other", {"o"}, {}, {"mark --name other"}}});
  if (fault.arrange) fault.arrange(root);
  RunResult run = fault.shell == nullptr
                      ? RunBootstrand(root, fault.arguments, fault.environment, 30)
                      : RunProgram("/bin/sh", root, {"-c", fault.shell, BOOTSTRAND_BINARY}, fault.environment, 30);
  if (fault.check) fault.check(root, run);
  EXPECT_FALSE(run.timedOut);
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  // The built-in plugin, loaded unless plugins are named, ends every boot.
  bool builtin = std::find(fault.arguments.begin(), fault.arguments.end(), "--plugin") == fault.arguments.end();
  EXPECT_EQ(IndexOf(root.Channel("kernel"), "Bootstrand plugin end-autoconf activated.") >= 0, builtin);
  Lines marks = root.Marks(), alerts = root.Channel("alert");
  std::sort(marks.begin(), marks.end());
  std::sort(alerts.begin(), alerts.end());
  EXPECT_EQ(marks, fault.marks);
  EXPECT_EQ(alerts, fault.alerts);
}

// A signal to a running boot. One that asks it to stop ends its workers and their
// commands, says so on the alert channel and exits with a status of its own; the
// plugin that was running is not reported, the ones after it are not started, the
// timing log gets no summary. A hang-up ends nothing: the boot runs to its end. A
// console sends its keys and its hang-up to the boot's whole process group, a stop of
// the service or kill(1) may reach the activator alone.
struct Signalled {
  const char* signal;
  const char* target;  // "$boot" (the activator) or "-$boot" (its process group)
  std::string status;
  Lines alerts;
  Lines marks;  // sorted
};

const Signalled kSignalled[] = {
    {"TERM", "$boot", "4\n", {"Bootstrand activation interrupted by SIGTERM."}, {"--name=other"}},
    {"INT", "-$boot", "4\n", {"Bootstrand activation interrupted by SIGINT."}, {"--name=other"}},
    {"QUIT", "-$boot", "4\n", {"Bootstrand activation interrupted by SIGQUIT."}, {"--name=other"}},
    {"HUP", "$boot", "0\n", {}, kAll},
    {"HUP", "-$boot", "0\n", {}, kAll},
};

TEST(Signals, StopEndsEverythingTheBootStartedAndAHangUpNothing) {
  for (const Signalled& signalled : kSignalled) {
    SCOPED_TRACE(std::string(signalled.signal) + " to " + signalled.target);
    HostRoot root;
    // Runs until /release exists, with a child in its process group.
    root.WriteCommand("hang", "echo $$ >> \"$BOOTSTRAND_ROOT/pids\"\nsleep 1000 &\necho $! >> \"$BOOTSTRAND_ROOT/pids\"\n"
                              "until [ -e \"$BOOTSTRAND_ROOT/release\" ]; do sleep 0.05; done\nkill $!");
    root.WritePlugins({{"other", {"o"}, {}, {"mark --name other"}}, {"victim", {"v"}, {}, {"hang", "mark --name victim"}},
                       {"after", {"a"}, {"v"}, {"mark --name after"}}});
    // Job control: the background boot does not start with SIGINT and SIGQUIT ignored,
    // and it leads a process group of its own. After a signal that must not end the
    // boot, the command is released a while later; a stop must end it unreleased.
    const bool goesOn = signalled.status == "0\n";
    std::string shell = std::string("set -m\n\"$0\" --max-workers 1 & boot=$!\n") +
                        "until [ \"$(wc -l < \"$BOOTSTRAND_ROOT/pids\" 2>/dev/null)\" = 2 ]; do sleep 0.05; done\n" +
                        "kill -" + signalled.signal + " -- " + signalled.target + "\n" +
                        (goesOn ? "sleep 0.5\ntouch \"$BOOTSTRAND_ROOT/release\"\n" : "") +
                        "wait $boot\necho $? > \"$BOOTSTRAND_ROOT/status\"";
    RunResult run = RunProgram("/bin/bash", root, {"-c", shell, BOOTSTRAND_BINARY}, {}, 30);
    EXPECT_FALSE(run.timedOut);
    EXPECT_EQ(root.ReadFile("/status"), signalled.status);
    EXPECT_EQ(root.Channel("alert"), signalled.alerts);
    Lines marks = root.Marks();
    std::sort(marks.begin(), marks.end());
    EXPECT_EQ(marks, signalled.marks);
    EXPECT_EQ(ProcessesOf(root), Lines{});
    EXPECT_EQ(root.ReadFile("/var/log/sysboot.log").find("===") != std::string::npos, goesOn);
  }
}

INSTANTIATE_TEST_SUITE_P(, Faults, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<Fault>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace bootstrand::testing
