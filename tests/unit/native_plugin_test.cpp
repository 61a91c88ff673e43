// Native plugins built from tests/plugins: what the constructor takes over for each
// API version, the load errors, and Activate run in a forked child as a worker runs
// it, checked through the native log file and the kernel channel's sink.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <typeinfo>

#include "kinds/native_plugin.h"
#include "support/read_until.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

const std::string kPlugins = "/usr/libexec/bootstrand/plugins/";
const std::string kNativeLog = "/var/log/bootstrand-native-stdout.log";
const std::string kKernelSink = "/var/run/trove/system.log.log";

// Runs Activate in a forked child as a worker does, with standard output on a packet
// pipe whose writes land in `writes`; nullopt when the child did not return. Nothing
// here has set up the logging library, so Log_Level writes "<level>: <message>" to
// standard error, which init_fds points at the native log.
std::optional<bool> ActivateInChild(Plugin& plugin, ActivateFlags flags, std::vector<std::string>& writes) {
  int output[2];
  if (pipe2(output, O_CLOEXEC | O_DIRECT) != 0) return std::nullopt;
  std::cout.flush();
  std::fflush(nullptr);  // or the child writes the buffered output again
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
  if (!ReadWrites(output[0], writes, Clock::now() + std::chrono::seconds(20))) kill(child, SIGKILL);
  close(output[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status) || (WEXITSTATUS(status) != 10 && WEXITSTATUS(status) != 11)) return std::nullopt;
  return WEXITSTATUS(status) == 10;
}

class NativePlugins : public PluginTest {
 protected:
  // Copies a built test plugin into the host root, under `hostPath` if given;
  // returns its host path.
  std::string Install(const std::string& file, std::string hostPath = "") {
    if (hostPath.empty()) hostPath = kPlugins + file;
    std::filesystem::create_directories(std::filesystem::path(root_.Path(hostPath)).parent_path());
    std::filesystem::copy_file(std::string(BOOTSTRAND_TEST_PLUGIN_DIR) + "/" + file, root_.Path(hostPath));
    return hostPath;
  }
  // Each file is loaded once: copying over an object that is mapped would break it.
  NativePlugin& Load(const std::string& file, const std::string& hostPath = "") {
    std::unique_ptr<NativePlugin>& plugin = loaded_[hostPath.empty() ? file : hostPath];
    if (!plugin) plugin = std::make_unique<NativePlugin>(Install(file, hostPath));
    return *plugin;
  }

  std::map<std::string, std::unique_ptr<NativePlugin>> loaded_;
};

TEST_F(NativePlugins, EachApiVersionTakesOverOnlyItsOwnFields) {
  const std::tuple<const char*, std::string, const char*> cases[] = {
      // Version 1 ignores its apply_host_profile entry point.
      {"api1.so", "", "api1 v1 provides=dns,native plugins,net requires=storage"},
      // Version 2 exports every later field; none of them counts.
      {"api2.so", "", "api2 v2 provides=firewall,native plugins requires=net host_profile"},
      // Version 3 carries a preemptive mark that only version 5 may use.
      {"api3.so", "", "api3 v3 provides=native plugins,time requires= version=1.4 run_once required=quick,safe "
                      "disabling=recovery"},
      {"api4.so", "", "api4 v4 provides=native plugins requires="},
      {"api5.so", "", "api5 v5 provides=native plugins,time requires= version=2.0 preemptive"},
      {"libprefixed.so", "", "prefixed v1 provides=native plugins requires="},
      // Two files with one derived name are two plugins.
      {"api1.so", kPlugins + "libfoo.so", "foo v1 provides=dns,native plugins,net requires=storage"},
      {"api2.so", "/usr/libexec/bootstrand/plugins2/foo.so", "foo v2 provides=firewall,native plugins requires=net "
                                                             "host_profile"},
  };
  std::vector<Plugin*> order;
  for (const auto& [file, hostPath, fields] : cases) {
    NativePlugin& plugin = Load(file, hostPath);
    EXPECT_EQ(Describe(plugin), fields);
    EXPECT_NE(plugin.handle, nullptr) << fields;
    order.push_back(&plugin);
  }
  EXPECT_EQ(std::vector<Plugin*>(Plugin::plugins.begin(), Plugin::plugins.end()), order);
}

TEST(NativePluginName, IsTheFileNameWithoutLastExtensionAndLibPrefix) {
  const std::pair<std::string, std::string> cases[] = {
      {"/x/libfoo.so", "foo"}, {"/x/lib.so", ""},         {"/x/libfoo.v2.so", "foo.v2"},
      {"/x.d/plain", "plain"}, {"/x/library", "rary"}, {"/x/my-lib.so", "my-lib"},
  };
  for (const auto& [path, name] : cases) EXPECT_EQ(NativePlugin::NameFromPath(path), name) << path;
}

TEST_F(NativePlugins, UnusableObjectsThrowAreUnloadedAndRegisterNothing) {
  std::ofstream(root_.Path(kPlugins + "garbage.so")) << "not an object\n";
  // (file, exception, its text; for an object that does not load, the start of the
  // loader's text, which names the file resolved under the host root)
  const std::tuple<std::string, const std::type_info&, std::string> cases[] = {
      {Install("no_metadata.so"), typeid(SymbolException), "missing 'metadata'"},
      {Install("no_operations.so"), typeid(SymbolException), "missing 'operations'"},
      {Install("version0.so"), typeid(VersionException), "Unsupported API version: 0"},
      {Install("version6.so"), typeid(VersionException), "Unsupported API version: 6"},
      {kPlugins + "garbage.so", typeid(Exception), "Invalid plugin: " + root_.Path(kPlugins + "garbage.so")},
      {kPlugins + "absent.so", typeid(Exception), "Invalid plugin: " + root_.Path(kPlugins + "absent.so")},
  };
  for (const auto& [path, type, message] : cases) {
    try {
      Plugin::LoadNativePlugin(path);
      ADD_FAILURE() << path << " loaded";
    } catch (const Exception& error) {
      EXPECT_EQ(typeid(error), type) << path;
      std::string text = error.what();
      EXPECT_EQ(type == typeid(Exception) ? text.substr(0, message.size()) : text, message);
    }
    void* stillLoaded = dlopen(root_.Path(path).c_str(), RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_EQ(stillLoaded, nullptr) << path << " was left loaded";
    if (stillLoaded != nullptr) dlclose(stillLoaded);
  }
  EXPECT_TRUE(Plugin::plugins.empty());
  EXPECT_TRUE(Plugin::providers.empty());
}

// The native log of an entry point that is called.
std::string Invoking(const std::string& plugin, const std::string& method) {
  return "notice: Invoking method " + method + " on plugin " + plugin + "\n";
}
// ... that also prints its line and returns 0.
std::string Succeeding(const std::string& plugin, const std::string& method) {
  return Invoking(plugin, method) + plugin + ": " + method + " ran\nnotice: Method " + method +
         " executed successfully for plugin " + plugin + "\n";
}
// The kernel channel's line for an entry point that is called.
std::string Applying(const std::string& plugin, const std::string& method) {
  return "Applying " + method + " on plugin " + plugin + "\n";
}

TEST_F(NativePlugins, ActivateLogsTheInvocationAndReportsTheOutcome) {
  constexpr ActivateFlags kProfile = ActivateFlag::HostProfilePresent;
  constexpr ActivateFlags kNoPreemption = ActivateFlag::PreemptivePluginsDisabled;
  struct {
    const char* file;
    ActivateFlags flags;
    bool result;
    std::string nativeLog, kernel;
  } const cases[] = {
      {"api2.so", 0, true, Succeeding("api2", "start"), Applying("api2", "start")},
      {"api2.so", kProfile, true, Succeeding("api2", "apply_host_profile"), Applying("api2", "apply_host_profile")},
      {"api2.so", kProfile | ActivateFlag::HostProfileBarrier, true,
       "Plugin tries to execute before host profile requirement.\n" + Succeeding("api2", "start"),
       Applying("api2", "start")},
      {"api1.so", kProfile, true, Succeeding("api1", "start"), Applying("api1", "start")},  // version 1 starts
      {"throwing.so", 0, false,
       Invoking("throwing", "start") + "crit: Plugin throwing failed Invoking method start - disk on fire\n",
       Applying("throwing", "start")},
      {"throwing_other.so", 0, false,
       Invoking("throwing_other", "start") + "crit: Plugin throwing_other failed Invoking method start\n",
       Applying("throwing_other", "start")},
      {"null_start.so", kProfile, true,
       Invoking("null_start", "start") + "notice: Method start executed successfully for plugin null_start\n", ""},
      {"api5.so", kNoPreemption, false, "", "Plugin api5 skipped.\n"},
      // Version 3 exports a preemptive mark, which it may not use.
      {"api3.so", kNoPreemption, true, Succeeding("api3", "start"), Applying("api3", "start")},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(::testing::Message() << expected.file << " with flags " << expected.flags);
    std::vector<std::string> writes;
    EXPECT_EQ(ActivateInChild(Load(expected.file), expected.flags, writes), expected.result);
    EXPECT_EQ(root_.Read(kNativeLog), expected.nativeLog);
    EXPECT_EQ(root_.Read(kKernelSink), expected.kernel);
    EXPECT_EQ(writes, std::vector<std::string>{}) << "output must go to the native log";
    std::filesystem::remove(root_.Path(kNativeLog));
    std::filesystem::remove(root_.Path(kKernelSink));
  }
  // A dry run names the plugin in one write (dry-run workers share standard output),
  // redirects nothing and runs nothing.
  std::vector<std::string> writes;
  EXPECT_EQ(ActivateInChild(Load("api2.so"), ActivateFlag::DryRun | kProfile, writes), false);
  EXPECT_EQ(writes, std::vector<std::string>{"api2: start\n"});
  EXPECT_FALSE(std::filesystem::exists(root_.Path(kNativeLog)));
  EXPECT_FALSE(std::filesystem::exists(root_.Path(kKernelSink)));
}

}  // namespace
}  // namespace bootstrand::testing
