// Native plugins built from tests/plugins: what the constructor takes over for each
// API version, the load errors, and Activate run in a forked child as a worker runs
// it, checked through the native log file and the kernel channel's sink.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>

#include <gtest/gtest.h>

#include "kinds/native_plugin.h"
#include "support/read_until.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

const std::string kPluginDirectory = "/usr/libexec/bootstrand/plugins/";
const std::string kNativeLog = "/var/log/bootstrand-native-stdout.log";
const std::string kKernelSink = "/var/run/trove/system.log.log";

// What a forked Activate left behind. Nothing in this process has initialised the
// logging library, so Log_Level writes "<level name>: <message>" to standard error,
// which init_fds points at the native log.
struct Activation {
  bool exited = false;
  bool result = false;
  int signal = 0;
  std::vector<std::string> standardOutput;  // each write to standard output as it was before Activate
};

Activation ActivateInChild(Plugin& plugin, ActivateFlags flags) {
  Activation activation;
  int output[2];
  if (pipe2(output, O_CLOEXEC | O_DIRECT) != 0) {
    ADD_FAILURE() << "pipe failed";
    return activation;
  }
  // Buffered output would otherwise be written again by the child.
  std::cout.flush();
  std::fflush(nullptr);
  pid_t child = fork();
  if (child == 0) {
    dup2(output[1], STDOUT_FILENO);
    setvbuf(stdout, nullptr, _IONBF, 0);  // as the activator has it once logging is set up
    bool result = plugin.Activate(flags);
    std::cout.flush();
    std::fflush(nullptr);
    _exit(result ? 10 : 11);
  }
  close(output[1]);
  if (!ReadWrites(output[0], activation.standardOutput, Clock::now() + std::chrono::seconds(20))) {
    ADD_FAILURE() << "Activate did not end";
    kill(child, SIGKILL);
  }
  close(output[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    activation.exited = WEXITSTATUS(status) == 10 || WEXITSTATUS(status) == 11;
    activation.result = WEXITSTATUS(status) == 10;
  }
  if (WIFSIGNALED(status)) activation.signal = WTERMSIG(status);
  return activation;
}

class NativePlugins : public ::testing::Test {
 protected:
  void SetUp() override {
    Plugin::ResetRegistries();
    std::filesystem::create_directories(root_.Path(kPluginDirectory));
  }
  void TearDown() override { Plugin::ResetRegistries(); }

  // Copies a built test plugin into the host root, under `hostPath` if given;
  // returns its host path.
  std::string Install(const std::string& file, std::string hostPath = "") {
    if (hostPath.empty()) hostPath = kPluginDirectory + file;
    std::filesystem::create_directories(std::filesystem::path(root_.Path(hostPath)).parent_path());
    std::filesystem::copy_file(std::string(BOOTSTRAND_TEST_PLUGIN_DIR) + "/" + file, root_.Path(hostPath));
    return hostPath;
  }

  NativePlugin& Load(const std::string& file) {
    owned_.push_back(std::make_unique<NativePlugin>(Install(file)));
    return *owned_.back();
  }

  // Takes over the plugins that the loader registered and leaves to the process.
  void AdoptRegistered() {
    for (Plugin* plugin : Plugin::plugins) owned_.emplace_back(static_cast<NativePlugin*>(plugin));
  }

  ScopedRoot root_;
  std::vector<std::unique_ptr<NativePlugin>> owned_;
};

struct FieldsCase {
  const char* file;
  std::string name;
  std::int32_t apiVersion;
  TagSet provides;
  TagSet requires_;
  std::string pluginVersion;
  bool runOnce;
  TagSet requiredFlags;
  TagSet disablingFlags;
  bool preemptive;
  bool hostProfileOperations;
};

void PrintTo(const FieldsCase& fields, std::ostream* stream) { *stream << fields.file; }

class NativePluginFields : public NativePlugins, public ::testing::WithParamInterface<FieldsCase> {};

TEST_P(NativePluginFields, TakesOverOnlyTheFieldsOfItsApiVersion) {
  const FieldsCase& expected = GetParam();
  NativePlugin& plugin = Load(expected.file);

  EXPECT_EQ(plugin.name, expected.name);
  EXPECT_EQ(plugin.apiVersion, expected.apiVersion);
  EXPECT_EQ(plugin.provides, expected.provides);
  EXPECT_EQ(plugin.requires_, expected.requires_);
  EXPECT_EQ(plugin.pluginVersion, expected.pluginVersion);
  EXPECT_EQ(plugin.runOnce, expected.runOnce);
  EXPECT_EQ(plugin.requiredFlags, expected.requiredFlags);
  EXPECT_EQ(plugin.disablingFlags, expected.disablingFlags);
  EXPECT_EQ(plugin.preemptive, expected.preemptive);
  EXPECT_EQ(plugin.hostProfileOperations, expected.hostProfileOperations);
  EXPECT_FALSE(plugin.noOperations);
  EXPECT_FALSE(plugin.skip);
  EXPECT_NE(plugin.handle, nullptr);
  ASSERT_EQ(Plugin::plugins.size(), 1u);
  EXPECT_EQ(*Plugin::plugins.begin(), &plugin);
}

INSTANTIATE_TEST_SUITE_P(
    Versions, NativePluginFields,
    ::testing::Values(
        // Version 1 ignores its apply_host_profile entry point.
        FieldsCase{"api1.so", "api1", 1, {"native plugins", "net", "dns"}, {"storage"}, "", false, {}, {}, false, false},
        // Version 2 exports every later field; none of them counts.
        FieldsCase{"api2.so", "api2", 2, {"native plugins", "firewall"}, {"net"}, "", false, {}, {}, false, true},
        // Version 3 carries a preemptive mark that only version 5 may use.
        FieldsCase{"api3.so", "api3", 3, {"native plugins", "time"}, {}, "1.4", true, {"quick", "safe"}, {"recovery"},
                   false, false},
        FieldsCase{"api4.so", "api4", 4, {"native plugins"}, {}, "", false, {}, {}, false, false},
        FieldsCase{"api5.so", "api5", 5, {"native plugins", "time"}, {}, "2.0", false, {}, {}, true, false},
        FieldsCase{"libprefixed.so", "prefixed", 1, {"native plugins"}, {}, "", false, {}, {}, false, false}),
    [](const ::testing::TestParamInfo<FieldsCase>& info) {
      std::string name = info.param.file;
      return name.substr(0, name.find('.'));
    });

TEST(NativePluginName, IsTheFileNameWithoutLastExtensionAndLibPrefix) {
  const std::pair<std::string, std::string> cases[] = {
      {"/x/libfoo.so", "foo"}, {"/x/lib.so", ""},         {"/x/libfoo.v2.so", "foo.v2"},
      {"/x.d/plain", "plain"}, {"/x/library", "rary"}, {"/x/my-lib.so", "my-lib"},
  };
  for (const auto& [path, name] : cases) EXPECT_EQ(NativePlugin::NameFromPath(path), name) << path;
}

TEST_F(NativePlugins, TwoFilesWithTheSameDerivedNameAreBothRegistered) {
  Plugin::LoadNativePlugin(Install("api1.so", "/usr/libexec/bootstrand/plugins/libfoo.so"));
  Plugin::LoadNativePlugin(Install("api2.so", "/usr/libexec/bootstrand/plugins2/foo.so"));
  AdoptRegistered();

  ASSERT_EQ(owned_.size(), 2u);
  EXPECT_EQ(owned_[0]->name, "foo");
  EXPECT_EQ(owned_[0]->apiVersion, 1);
  EXPECT_EQ(owned_[1]->name, "foo");
  EXPECT_EQ(owned_[1]->apiVersion, 2);
}

struct LoadErrorCase {
  const char* file;
  const char* kind;
  std::string message;
};

void PrintTo(const LoadErrorCase& error, std::ostream* stream) { *stream << error.file; }

class NativePluginLoadError : public NativePlugins, public ::testing::WithParamInterface<LoadErrorCase> {};

TEST_P(NativePluginLoadError, ThrowsUnloadsTheObjectAndRegistersNothing) {
  const LoadErrorCase& expected = GetParam();
  std::string path = Install(expected.file);
  std::string kind = "none";
  std::string message;
  try {
    Plugin::LoadNativePlugin(path);
  } catch (const SymbolException& error) {
    kind = "SymbolException";
    message = error.what();
  } catch (const VersionException& error) {
    kind = "VersionException";
    message = error.what();
  } catch (const Exception& error) {
    kind = "Exception";
    message = error.what();
  }
  AdoptRegistered();

  EXPECT_EQ(kind, expected.kind);
  EXPECT_EQ(message, expected.message);
  EXPECT_TRUE(Plugin::plugins.empty());
  EXPECT_TRUE(Plugin::providers.empty());
  void* stillLoaded = dlopen(root_.Path(path).c_str(), RTLD_LAZY | RTLD_NOLOAD);
  EXPECT_EQ(stillLoaded, nullptr) << "the object was left loaded";
  if (stillLoaded != nullptr) dlclose(stillLoaded);
}

INSTANTIATE_TEST_SUITE_P(
    Errors, NativePluginLoadError,
    ::testing::Values(LoadErrorCase{"no_metadata.so", "SymbolException", "missing 'metadata'"},
                      LoadErrorCase{"no_operations.so", "SymbolException", "missing 'operations'"},
                      LoadErrorCase{"version0.so", "VersionException", "Unsupported API version: 0"},
                      LoadErrorCase{"version6.so", "VersionException", "Unsupported API version: 6"}),
    [](const ::testing::TestParamInfo<LoadErrorCase>& info) {
      std::string name = info.param.file;
      return name.substr(0, name.find('.'));
    });

TEST_F(NativePlugins, ObjectThatCannotBeLoadedIsAnInvalidPlugin) {
  std::ofstream(root_.Path(kPluginDirectory + "garbage.so")) << "not an object\n";
  for (const std::string& path : {kPluginDirectory + "garbage.so", kPluginDirectory + "absent.so"}) {
    try {
      Plugin::LoadNativePlugin(path);
      ADD_FAILURE() << path << " loaded";
    } catch (const SymbolException& error) {
      ADD_FAILURE() << path << ": " << error.what();
    } catch (const Exception& error) {
      EXPECT_TRUE(std::string(error.what()).starts_with("Invalid plugin: ")) << error.what();
      // The loader's text names the file it was given, resolved under the host root.
      EXPECT_NE(std::string(error.what()).find(root_.Path(path)), std::string::npos) << error.what();
    }
  }
  AdoptRegistered();
  EXPECT_TRUE(Plugin::plugins.empty());
}

struct ActivateCase {
  const char* label;
  const char* file;
  ActivateFlags flags;
  bool result;
  std::string nativeLog;
  std::string kernel;
};

void PrintTo(const ActivateCase& activate, std::ostream* stream) { *stream << activate.label; }

class NativePluginActivate : public NativePlugins, public ::testing::WithParamInterface<ActivateCase> {};

TEST_P(NativePluginActivate, LogsTheInvocationAndReportsTheOutcome) {
  const ActivateCase& expected = GetParam();
  NativePlugin& plugin = Load(expected.file);
  Activation activation = ActivateInChild(plugin, expected.flags);

  ASSERT_TRUE(activation.exited) << "signal " << activation.signal;
  EXPECT_EQ(activation.result, expected.result);
  EXPECT_EQ(root_.Read(kNativeLog), expected.nativeLog);
  EXPECT_EQ(root_.Read(kKernelSink), expected.kernel);
  EXPECT_TRUE(activation.standardOutput.empty()) << "output must go to the native log";
}

constexpr ActivateFlags kHostProfile = ActivateFlag::HostProfilePresent;

INSTANTIATE_TEST_SUITE_P(
    Outcomes, NativePluginActivate,
    ::testing::Values(
        ActivateCase{"Start", "api2.so", 0, true,
                     "notice: Invoking method start on plugin api2\n"
                     "api2: start ran\n"
                     "notice: Method start executed successfully for plugin api2\n",
                     "Applying start on plugin api2\n"},
        ActivateCase{"HostProfileApplied", "api2.so", kHostProfile, true,
                     "notice: Invoking method apply_host_profile on plugin api2\n"
                     "api2: apply_host_profile ran\n"
                     "notice: Method apply_host_profile executed successfully for plugin api2\n",
                     "Applying apply_host_profile on plugin api2\n"},
        ActivateCase{"HostProfileHeldBackByBarrier", "api2.so", kHostProfile | ActivateFlag::HostProfileBarrier, true,
                     "Plugin tries to execute before host profile requirement.\n"
                     "notice: Invoking method start on plugin api2\n"
                     "api2: start ran\n"
                     "notice: Method start executed successfully for plugin api2\n",
                     "Applying start on plugin api2\n"},
        ActivateCase{"VersionOneAlwaysStarts", "api1.so", kHostProfile, true,
                     "notice: Invoking method start on plugin api1\n"
                     "api1: start ran\n"
                     "notice: Method start executed successfully for plugin api1\n",
                     "Applying start on plugin api1\n"},
        ActivateCase{"FailureCode", "failing.so", 0, false,
                     "notice: Invoking method start on plugin failing\n"
                     "failing: start ran\n"
                     "crit: Plugin failing failed Invoking method start (rc=7)\n",
                     "Applying start on plugin failing\n"},
        ActivateCase{"StandardException", "throwing.so", 0, false,
                     "notice: Invoking method start on plugin throwing\n"
                     "crit: Plugin throwing failed Invoking method start - disk on fire\n",
                     "Applying start on plugin throwing\n"},
        ActivateCase{"OtherException", "throwing_other.so", 0, false,
                     "notice: Invoking method start on plugin throwing_other\n"
                     "crit: Plugin throwing_other failed Invoking method start\n",
                     "Applying start on plugin throwing_other\n"},
        ActivateCase{"NullStartSucceedsQuietly", "null_start.so", kHostProfile, true,
                     "notice: Invoking method start on plugin null_start\n"
                     "notice: Method start executed successfully for plugin null_start\n",
                     ""},
        ActivateCase{"PreemptiveSkipped", "api5.so", ActivateFlag::PreemptivePluginsDisabled, false, "",
                     "Plugin api5 skipped.\n"},
        // Version 3 exports a preemptive mark, which it may not use.
        ActivateCase{"PreemptiveMarkIgnoredBeforeVersionFive", "api3.so", ActivateFlag::PreemptivePluginsDisabled,
                     true,
                     "notice: Invoking method start on plugin api3\n"
                     "api3: start ran\n"
                     "notice: Method start executed successfully for plugin api3\n",
                     "Applying start on plugin api3\n"}),
    [](const ::testing::TestParamInfo<ActivateCase>& info) { return info.param.label; });

TEST_F(NativePlugins, DryRunNamesThePluginAndRunsNothing) {
  NativePlugin& plugin = Load("api2.so");
  Activation activation = ActivateInChild(plugin, ActivateFlag::DryRun | kHostProfile);

  ASSERT_TRUE(activation.exited);
  EXPECT_FALSE(activation.result);
  // One write: dry-run workers share standard output.
  EXPECT_EQ(activation.standardOutput, std::vector<std::string>{"api2: start\n"});
  EXPECT_FALSE(std::filesystem::exists(root_.Path(kNativeLog))) << "no redirection in a dry run";
  EXPECT_FALSE(std::filesystem::exists(root_.Path(kKernelSink)));
}

}  // namespace
}  // namespace bootstrand::testing
