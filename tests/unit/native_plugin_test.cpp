// Native plugins built from tests/plugins: what the constructor takes over for each
// API version, the load errors, and Activate run in a forked child as a worker runs
// it, checked through the native log file and the kernel channel's sink.
#include <dlfcn.h>

#include <filesystem>
#include <map>
#include <typeinfo>

#include "kinds/native_plugin.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

const std::string kPlugins = "/usr/libexec/bootstrand/plugins/";
const std::string kNativeLog = "/var/log/bootstrand-native-stdout.log";
const std::string kKernelSink = "/var/run/trove/system.log.log";

class NativePlugins : public PluginTest {
 protected:
  // Copies a built test plugin into the host root (as `hostPath` if given) and loads
  // it, once per host path: copying over an object that is mapped would break it.
  NativePlugin& Load(const std::string& file, std::string hostPath = "") {
    if (hostPath.empty()) hostPath = kPlugins + file;
    std::unique_ptr<NativePlugin>& plugin = loaded_[hostPath];
    if (plugin) return *plugin;
    std::filesystem::create_directories(std::filesystem::path(root_.Path(hostPath)).parent_path());
    std::filesystem::copy_file(BOOTSTRAND_TEST_PLUGIN_DIR "/" + file, root_.Path(hostPath));
    return *(plugin = std::make_unique<NativePlugin>(hostPath));
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
      // A "lib" prefix is not part of the name, and two files of one name are two plugins.
      {"api1.so", kPlugins + "libfoo.so", "foo v1 provides=dns,native plugins,net requires=storage"},
      {"api4.so", "/usr/libexec/bootstrand/plugins2/foo.so", "foo v4 provides=native plugins requires="},
  };
  for (const auto& [file, hostPath, fields] : cases) EXPECT_EQ(Describe(Load(file, hostPath)), fields);
  for (const auto& [path, name] : std::vector<std::pair<std::string, std::string>>{
           {"/x/lib.so", ""}, {"/x/libfoo.v2.so", "foo.v2"}, {"/x.d/plain", "plain"}, {"/x/library", "rary"},
           {"/x/my-lib.so", "my-lib"}}) {
    EXPECT_EQ(NativePlugin::NameFromPath(path), name) << path;
  }
}

TEST_F(NativePlugins, UnusableObjectsThrowAreUnloadedAndRegisterNothing) {
  root_.WriteFile(kPlugins + "garbage.so", "not an object\n");
  // (file, exception, its text; for an object that does not load, the start of the
  // loader's text, which names the file resolved under the host root)
  const std::tuple<std::string, const std::type_info&, std::string> cases[] = {
      {"no_metadata.so", typeid(SymbolException), "missing 'metadata'"},
      {"no_operations.so", typeid(SymbolException), "missing 'operations'"},
      {"version0.so", typeid(VersionException), "Unsupported API version: 0"},
      {"version6.so", typeid(VersionException), "Unsupported API version: 6"},
      {"garbage.so", typeid(Exception), "Invalid plugin: " + root_.Path(kPlugins + "garbage.so")},
  };
  for (const auto& [file, type, message] : cases) {
    const std::string path = kPlugins + file;
    if (file != "garbage.so") root_.CopyTestPlugin(file);
    try {
      Plugin::LoadNativePlugin(path);
      ADD_FAILURE() << path << " loaded";
    } catch (const Exception& error) {
      EXPECT_EQ(typeid(error), type) << path;
      EXPECT_EQ(std::string(error.what()).substr(0, message.size()), message);
    }
    void* stillLoaded = dlopen(root_.Path(path).c_str(), RTLD_LAZY | RTLD_NOLOAD);
    EXPECT_EQ(stillLoaded, nullptr) << path << " was left loaded";
    if (stillLoaded != nullptr) dlclose(stillLoaded);
  }
  EXPECT_TRUE(Plugin::plugins.empty());
}

// The native log when `plugin`'s entry point `method` is called, then (`ran`) prints
// its line and returns 0; the kernel channel's line for it.
std::string Invoking(const std::string& plugin, const std::string& method, bool ran = true) {
  return "notice: Invoking method " + method + " on plugin " + plugin + "\n" +
         (ran ? plugin + ": " + method + " ran\nnotice: Method " + method + " executed successfully for plugin " +
                    plugin + "\n"
              : "");
}
std::string Applying(const std::string& plugin, const std::string& method = "start") {
  return "Applying " + method + " on plugin " + plugin + "\n";
}

// Nothing here has set up the logging library, so Log_Level writes "<level>:
// <message>" to standard error, which init_fds points at the native log. Output must
// go there too; a dry run only names the plugin, in one write (dry-run workers share
// standard output), and redirects and runs nothing.
TEST_F(NativePlugins, ActivateLogsTheInvocationAndReportsTheOutcome) {
  constexpr ActivateFlags kProfile = ActivateFlag::HostProfilePresent;
  const std::string kProfileMethod = "apply_host_profile";
  using Writes = std::vector<std::string>;
  const std::tuple<const char*, ActivateFlags, int, std::string, std::string, Writes> cases[] = {
      {"api2.so", 0, true, Invoking("api2", "start"), Applying("api2"), {}},
      {"api2.so", kProfile, true, Invoking("api2", kProfileMethod), Applying("api2", kProfileMethod), {}},
      {"api2.so", kProfile | ActivateFlag::HostProfileBarrier, true,
       "Plugin tries to execute before host profile requirement.\n" + Invoking("api2", "start"), Applying("api2"), {}},
      {"throwing.so", 0, false,
       Invoking("throwing", "start", false) + "crit: Plugin throwing failed Invoking method start - disk on fire\n",
       Applying("throwing"), {}},
      {"throwing_other.so", 0, false,
       Invoking("throwing_other", "start", false) + "crit: Plugin throwing_other failed Invoking method start\n",
       Applying("throwing_other"), {}},
      {"null_start.so", kProfile, true,
       Invoking("null_start", "start", false) + "notice: Method start executed successfully for plugin null_start\n",
       "", {}},
      {"api5.so", ActivateFlag::PreemptivePluginsDisabled, false, "", "Plugin api5 skipped.\n", {}},
      {"api2.so", ActivateFlag::DryRun | kProfile, false, "", "", {"api2: start\n"}},
  };
  for (const auto& [file, flags, result, nativeLog, kernel, writes] : cases) {
    SCOPED_TRACE(::testing::Message() << file << " with flags " << flags);
    Writes written;
    NativePlugin& plugin = Load(file);
    EXPECT_EQ(RunInChild([&plugin, flags = flags] { return int{plugin.Activate(flags)}; }, &written), result);
    EXPECT_EQ(written, writes);
    EXPECT_EQ(root_.ReadFile(kNativeLog), nativeLog);
    EXPECT_EQ(root_.ReadFile(kKernelSink), kernel);
    std::filesystem::remove(root_.Path(kNativeLog));
    std::filesystem::remove(root_.Path(kKernelSink));
  }
}

}  // namespace
}  // namespace bootstrand::testing
