// This build installed into a temporary DESTDIR and used as an administrator and a
// plugin author would: the installed files, the manual pages and the boot service,
// the example native plugin built against the SDK alone (pkg-config and CMake) and
// booted by the installed activator, and the shell completion.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

namespace fs = std::filesystem;

const Lines kManualPages = {"/usr/share/man/man8/bootstrand.8.gz", "/usr/share/man/man8/bootstrand-lint.8.gz",
                            "/usr/share/man/man8/bootstrand-analyze.8.gz",
                            "/usr/share/man/man5/bootstrand.plugin.5.gz"};

// Each test installs into a scratch root that also takes the plugin builds.
class Installed : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!BOOTSTRAND_MAN_BUILT) GTEST_SKIP() << "the manual pages were not built (no scdoc, or BOOTSTRAND_MAN=OFF)";
    for (const char* tool : {"pkg-config", "cc"}) {
      if (!Available(tool)) GTEST_SKIP() << tool << " is missing (tools/install-deps installs it)";
    }
    RunResult install = Shell("DESTDIR=\"$1\" \"$2\" --install \"$3\" --prefix /usr",
                              {stage, BOOTSTRAND_CMAKE, BOOTSTRAND_BUILD_DIR});
    ASSERT_EQ(install.exitStatus, 0) << install.out << install.err;
  }

  // Runs `script` with sh; `arguments` are its $1, $2, ...
  RunResult Shell(const std::string& script, std::vector<std::string> arguments = {},
                  const std::map<std::string, std::string>& environment = {}) const {
    arguments.insert(arguments.begin(), {"-c", script, "sh"});
    return RunProgram("/bin/sh", scratch, arguments, environment, 300);
  }
  bool Available(const std::string& program) const { return Shell("command -v \"$1\"", {program}).exitStatus == 0; }

  HostRoot scratch;
  const std::string stage = scratch.Path("/stage");
};

// The build was configured for another prefix: the unit and the .pc file must name
// the one installed to. The manual pages render without warnings; the unit verifies
// as installed, except that it starts the staged binary and finds its manual page
// among the staged ones.
TEST_F(Installed, LaysOutTheFilesWithTheInstallPrefix) {
  std::set<std::string> files;  // files, links and empty folders
  for (const auto& entry : fs::recursive_directory_iterator(stage)) {
    if (!entry.is_directory() || fs::is_empty(entry.path())) files.insert(entry.path().string().substr(stage.size()));
  }
  std::set<std::string> expected = {
      "/usr/sbin/bootstrand", "/usr/sbin/bootstrand-lint", "/usr/sbin/bootstrand-analyze",
      "/usr/include/bootstrand/native_plugin.h", "/usr/share/pkgconfig/bootstrand-plugin.pc",
      "/usr/libexec/bootstrand/plugins", "/usr/libexec/bootstrand/plugins2", "/usr/libexec/bootstrand/boot-metrics",
      "/usr/share/cmake/BootstrandPlugin/BootstrandPluginConfig.cmake",
      "/usr/share/cmake/BootstrandPlugin/BootstrandPluginConfigVersion.cmake",
      "/usr/lib/systemd/system/bootstrand.service", "/usr/share/bash-completion/completions/bootstrand",
      "/usr/share/bash-completion/completions/bootstrand-lint",
      "/usr/share/bash-completion/completions/bootstrand-analyze", "/usr/share/doc/bootstrand/copyright",
      "/usr/share/doc/bootstrand/changelog.Debian.gz", "/usr/share/doc/bootstrand-dev/copyright",
      "/usr/share/doc/bootstrand-dev/changelog.Debian.gz", "/usr/share/lintian/overrides/bootstrand-dev",
      "/usr/libexec/bootstrand/boot", "/etc/default/bootstrand", "/etc/logrotate.d/bootstrand", "/var/lib/bootstrand",
      "/usr/share/doc/bootstrand/examples/prometheus/bootstrand.rules.yml"};
  expected.insert(kManualPages.begin(), kManualPages.end());
  EXPECT_EQ(files, expected);
  std::string unit = scratch.ReadFile("/stage/usr/lib/systemd/system/bootstrand.service");
  EXPECT_NE(unit.find("\nExecStart=/usr/libexec/bootstrand/boot\n"), std::string::npos);
  // The step finds the activator installed with it, wherever the prefix put both.
  RunResult step = RunProgram(stage + "/usr/libexec/bootstrand/boot", scratch, {"--help"});
  EXPECT_NE((step.out + step.err).find("--help,-h"), std::string::npos) << step.out << step.err;
  EXPECT_NE(scratch.ReadFile("/stage/usr/share/pkgconfig/bootstrand-plugin.pc").find("\nprefix=/usr\n"),
            std::string::npos);
  for (const std::string tool : {"bootstrand-lint", "bootstrand-analyze"}) {
    EXPECT_EQ(RunProgram(stage + "/usr/sbin/" + tool, scratch, {"--version"}).out, tool + " " BOOTSTRAND_VERSION "\n");
  }
  if (Available("logrotate")) {
    RunResult rotate = Shell("logrotate -d \"$1\"", {stage + "/etc/logrotate.d/bootstrand"});
    EXPECT_EQ(rotate.exitStatus, 0) << rotate.err;
    EXPECT_EQ(rotate.err.find("error"), std::string::npos) << rotate.err;
  }
  if (!Available("groff")) GTEST_SKIP() << "groff is missing (tools/install-deps installs groff-base)";
  for (const std::string& page : kManualPages) {
    RunResult render = Shell("gzip -dc \"$1\" | groff -man -ww -Tutf8 -z", {stage + page});
    EXPECT_EQ(render.exitStatus, 0) << page;
    EXPECT_EQ(render.err, "") << page;
  }
  if (!Available("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is missing: the unit is not verified";
  unit.replace(unit.find("/usr/libexec/bootstrand/boot"), 28, stage + "/usr/libexec/bootstrand/boot");
  scratch.WriteFile("/unit/bootstrand.service", unit);
  RunResult verify = Shell("systemd-analyze verify \"$1\"", {scratch.Path("/unit/bootstrand.service")},
                           {{"MANPATH", stage + "/usr/share/man"}});
  EXPECT_EQ(verify.exitStatus, 0) << verify.err;
  EXPECT_EQ(verify.err, "");
}

// The example tree with the example native plugin twice: built with pkg-config (the
// staged tree standing in for the system root), and with CMake by examples/sdk
// (copied under another name, it is another plugin). Both are linked -Bsymbolic.
TEST_F(Installed, NativePluginsBuiltWithTheSdkBootInOrder) {
  HostRoot host;
  host.CopyExampleTree();
  const std::string viaPkgConfig = host.Path("/usr/libexec/bootstrand/plugins/coredump.so");
  const std::string viaCMake = host.Path("/usr/libexec/bootstrand/plugins2/coredump-cmake.so");
  fs::create_directories(host.Path("/usr/libexec/bootstrand/plugins2"));
  RunResult pkgConfig = Shell("set -e; flags=$(pkg-config --cflags bootstrand-plugin); "
                              "libs=$(pkg-config --libs bootstrand-plugin); cc $flags -o \"$1\" \"$2\" $libs",
                              {viaPkgConfig, BOOTSTRAND_EXAMPLES_DIR "/native/coredump.c"},
                              {{"PKG_CONFIG_PATH", stage + "/usr/share/pkgconfig"}, {"PKG_CONFIG_SYSROOT_DIR", stage}});
  ASSERT_EQ(pkgConfig.exitStatus, 0) << pkgConfig.err;
  RunResult cmake = Shell("set -e; \"$1\" -S \"$2\" -B \"$3\" -DCMAKE_PREFIX_PATH=\"$4\" >/dev/null; "
                          "\"$1\" --build \"$3\" >/dev/null; cp \"$3/coredump.so\" \"$5\"",
                          {BOOTSTRAND_CMAKE, BOOTSTRAND_EXAMPLES_DIR "/sdk", scratch.Path("/sdk"), stage + "/usr",
                           viaCMake});
  ASSERT_EQ(cmake.exitStatus, 0) << cmake.out << cmake.err;
  for (const std::string& plugin : {viaPkgConfig, viaCMake}) {
    EXPECT_NE(Shell("readelf -d \"$1\"", {plugin}).out.find("(FLAGS)              SYMBOLIC"), std::string::npos)
        << plugin;
  }
  ASSERT_EQ(RunProgram(stage + "/usr/sbin/bootstrand", host, {}).exitStatus, 0);
  Lines kernel = host.Channel("kernel");
  for (const std::string name : {"coredump", "coredump-cmake"}) {
    EXPECT_GT(IndexOf(kernel, "Activating Bootstrand plugin " + name + "."),
              IndexOf(kernel, "Bootstrand plugin 20-storage activated."));
    EXPECT_GE(IndexOf(kernel, "Bootstrand plugin " + name + " activated."), 0) << name;
  }
  EXPECT_EQ(host.ReadFile("/var/core/target"), "directory=/var/core\nconfigured-by=start\n");
}

// Each case is a command line whose last word is being completed; one line of
// candidates comes back for each. No run of the activator: it would have created the
// run-once marker. The first case lists the options of the help text.
TEST_F(Installed, CompletionOffersOptionsPluginsAndTagsWithoutRunningTheActivator) {
  const std::string library = "/usr/share/bash-completion/bash_completion";
  if (!fs::exists(library)) GTEST_SKIP() << "bash-completion is missing (tools/install-deps installs it)";
  HostRoot host;
  host.CopyExampleTree();
  const std::pair<std::string, std::string> cases[] = {
      {"bootstrand --", "--help --interactive --dry --disable-preemptive-plugins --disable --requires --provides "
                        "--quiet --time-ops --max-workers --plugin --tags --randomize"},
      {"bootstrand --plugin 20-s", "20-storage.json"},
      {"bootstrand --disable 10-devices,stor", "10-devices,storage"},
      {"bootstrand --provides re", "remote-access remote-syslog"},
      {"bootstrand-analyze --plugins 60", "60-ssh.json"},
      {"bootstrand-lint --predict sysboot.log --set-time 40-t", "40-time="},
  };
  scratch.WriteFile("/complete.bash",
                    "source \"$1\"; source \"$2\"; PATH=$3:$PATH; shift 3\n"
                    "for line in \"$@\"; do\n"
                    "  read -ra COMP_WORDS <<<\"$line\"\n"
                    "  COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()\n"
                    "  registration=$(complete -p \"${COMP_WORDS[0]}\"); function=${registration#*-F }\n"
                    "  ${function%% *} \"${COMP_WORDS[0]}\" \"${COMP_WORDS[COMP_CWORD]}\" "
                    "\"${COMP_WORDS[COMP_CWORD - 1]}\"\n"
                    "  echo \"$line: ${COMPREPLY[*]}\"\n"
                    "done\n");
  Lines arguments = {scratch.Path("/complete.bash"), library,
                     stage + "/usr/share/bash-completion/completions/bootstrand", stage + "/usr/sbin"};
  std::string expected;
  for (const auto& [line, candidates] : cases) {
    arguments.push_back(line);
    expected += line + ": " + candidates + "\n";
  }
  RunResult run = RunProgram("/bin/bash", host, arguments);
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_EQ(run.out, expected);
  EXPECT_FALSE(host.Exists("/.runonce"));
}

}  // namespace
}  // namespace bootstrand::testing
