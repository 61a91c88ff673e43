// The command line and start-up of the real binary: help text, argument errors,
// queries, the memory check and the run-once marker.
#include <gtest/gtest.h>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

const char* const kHelpText =
    "--help,-h\tshow this help message\n"
    "--interactive [tag,...]\n"
    "\t\tprompts before activating a plugin, allowing\n"
    "\t\tplugins to be skipped, executed, or to fall to a\n"
    "\t\ttroubleshooting shell. Tags specify the requirements\n"
    "\t\tfor interactive mode to function (e.g. 'usb')\n"
    "--dry\t\tdry run; do not execute anything, but show the operations\n"
    "\t\tthat would be performed\n"
    "--disable-preemptive-plugins\n"
    "\t\tdisable preemptive plugins during activation\n"
    "--disable <plugin|tag>[,<plugin|tag>]\n"
    "\t\ta comma separated list of plugins or provide tags to be\n"
    "\t\tdisabled during execution\n"
    "--requires [tag]\n"
    "\t\tlist plugins that require given tag\n"
    "--provides [tag]\n"
    "\t\tlist plugins that provide given tag\n"
    "--quiet\t\tdo not log any ondrik messages\n"
    "--time-ops\tfor JSON plugins, record times for each cormcli\n"
    "--max-workers n\tlimit the number of spawned workers\n"
    "--plugin <plugin>[,...]\n"
    "\t\tlist of plugins to execute, must be full name (or path)\n"
    "\t\tof plugin file\n"
    "--tags\t\tlist all barrier tags\n"
    "--randomize [seed]\n"
    "\t\trandomize the activation order of plugins, or specify a\n"
    "\t\tfixed seed for reproducibility (only useful for testing)\n";

// Help, met first, prints the table alone and succeeds. Otherwise the first error wins
// over help; "-7" is no optional value. With --quiet the alert goes nowhere, but the
// help text still shows.
TEST(CommandLine, HelpSucceedsAndArgumentErrorsGoToTheAlertChannelWithUsageAndStatusOne) {
  for (const char* option : {"-h", "--help", "--help=yes"}) {
    HostRoot root;
    RunResult run = RunBootstrand(root, {option, "--bogus"});
    EXPECT_EQ(run.exitStatus, 0) << option;
    EXPECT_EQ(run.out + "|" + run.err, "|" + std::string(kHelpText)) << option;
    EXPECT_TRUE(root.Channel("alert").empty());
  }
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--bogus=1"}, "Invalid arg --bogus=1"},
      {{"--dry", "--bogus", "-h"}, "Invalid arg --bogus"},
      {{"--randomize", "-7"}, "Invalid arg -7"},
      {{"--dry", "--max-workers"}, "Missing arg for --max-workers"},
      {{"--max-workers", "many"}, "Invalid number for --max-workers: many"},
      {{"--randomize=99999999999"}, "Invalid number for --randomize: 99999999999"},
      {{"--quiet", "--bogus"}, ""},
  };
  for (const auto& [arguments, alert] : cases) {
    HostRoot root;
    RunResult run = RunBootstrand(root, arguments);
    EXPECT_EQ(run.exitStatus, 1) << arguments.back();
    EXPECT_EQ(root.Channel("alert"), alert.empty() ? Lines{} : Lines{alert});
    EXPECT_NE(run.err.find(kHelpText), std::string::npos) << arguments.back();
    EXPECT_FALSE(root.Exists("/var/log/sysboot.log"));
  }
}

// An optional value stops at an argument starting with '-'; empty arguments are
// ignored; queries run in the fixed order requires, provides, tags, and activate nothing.
TEST(CommandLine, ValuesAreTakenInlineOrFromTheNextArgument) {
  HostRoot root;
  root.WritePlugins({{"a", {"net"}, {"disk"}, {"a"}}, {"b", {"disk"}, {}, {"b"}}});
  RunResult run = RunBootstrand(root, {"--tags", "", "--requires", "--provides=disk", "--dry=yes"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, "end-autoconf: json plugins,native plugins\na: disk\nb:\nb: disk,json plugins\ndisk\nnet\n");
  EXPECT_EQ(RunBootstrand(root, {"--requires", "disk"}).out, "a: disk\n");
  EXPECT_EQ(RunBootstrand(root, {"--requires", "nothing"}).out, "");
  EXPECT_FALSE(root.Exists("/var/log/sysboot.log"));
  EXPECT_TRUE(root.Channel("progress").empty());
}

// 5 GiB and less make the boot serial.
TEST(CommandLine, MemoryCheckMakesSmallHostsSerial) {
  const std::pair<const char*, Lines> cases[] = {
      {"5368709120", {"There is not enough memory for parallel bootstrand. Activating bootstrand plugins serially."}},
      {"5369757696", {}},
      {"fail", {"Retrieving system main memory size failed."}},
  };
  for (const auto& [memory, alerts] : cases) {
    HostRoot root;
    RunResult run = RunBootstrand(root, {"--dry"}, {{"BOOTSTRAND_MAIN_MEMORY", memory}});
    EXPECT_EQ(run.exitStatus, 0) << memory;
    EXPECT_EQ(root.Channel("alert"), alerts) << memory;
  }
}

TEST(CommandLine, RunOnceMarkerIsEmptiedInEveryMode) {
  HostRoot root;
  root.WriteFile("/.runonce", "bootstrand.run-once=stale");
  EXPECT_EQ(RunBootstrand(root, {"--tags"}).exitStatus, 0);
  EXPECT_EQ(root.ReadFile("/.runonce"), "");
  EXPECT_TRUE(root.Exists("/.runonce"));
  root.WritePlugins({{"a", {"x"}, {}, {"a"}, {{"run_once", true}, {"plugin_version", "1.0"}}},
                     {"b", {"y"}, {}, {"b"}, {{"run_once", true}}}, {"c", {"z"}, {}, {"c"}}});
  RunBootstrand(root, {"--tags"});
  EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=a1.0,b");
  // Started with standard output and error closed, the marker must not take their
  // descriptors and collect the query's lines.
  RunProgram("/bin/sh", root, {"-c", "exec \"$0\" --requires >&- 2>&-", BOOTSTRAND_BINARY});
  EXPECT_EQ(root.ReadFile("/.runonce"), "bootstrand.run-once=a1.0,b");
  RunBootstrand(root, {"-h"});
  EXPECT_EQ(root.ReadFile("/.runonce"), "");
}

}  // namespace
}  // namespace bootstrand::testing
