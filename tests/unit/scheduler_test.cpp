// The scheduler's passes through a worker pool without processes: which plugins are
// handed over in which pass, and the outcome lines and status text it writes.
#include <filesystem>
#include <fstream>

#include "plugin/scheduler.h"
#include "support/host_root.h"
#include "support/recording_pool.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

struct PluginSpec {
  std::string name;
  std::vector<std::string> provides, requires_;
  bool preemptive = false;
};

class Scheduling : public PluginTest {
 protected:
  void Register(const std::vector<PluginSpec>& specs) {
    for (const PluginSpec& spec : specs) Add(spec.name, spec.provides, spec.requires_, spec.preemptive);
  }
  static std::vector<std::string> Channel(const std::string& channel) {
    return ChannelMessages(getenv("BOOTSTRAND_ROOT"), channel);
  }
};

const std::string kActivated = " activated.";
std::string Line(const std::string& name, const std::string& outcome) { return "Bootstrand plugin " + name + outcome; }

TEST_F(Scheduling, HandsOverInListOrderAndReportsEachOutcome) {
  struct {
    const char* label;
    std::vector<PluginSpec> plugins;  // in load order
    std::size_t workers;
    std::map<std::string, int> status;  // results other than success
    ActivateFlags flags;
    std::vector<std::string> disabled;
    std::string transcript;  // hand-overs ("~": passed over) and collections ("/")
    std::vector<std::string> kernel, alert, statusText;
  } const scenarios[] = {
      {"SerialInDependencyOrder",
       {{"a", {"app"}, {"storage"}}, {"b", {"storage"}, {"net"}}, {"c", {"net"}, {}}}, 1, {}, 0, {}, "c / b / a / ",
       {Line("c", kActivated), Line("b", kActivated), Line("a", kActivated)}, {},
       {"activating: c\n", "activating: b\n", "activating: a\n", ""}},
      // A plugin becomes ready only in the pass after its last provider finished.
      {"IndependentPluginsRunTogether",
       {{"a", {"a"}, {}}, {"b", {"b"}, {}}, {"c", {"c"}, {"a", "b"}}}, 8, {}, 0, {}, "a b / / c / ",
       {Line("a", kActivated), Line("b", kActivated), Line("c", kActivated)}, {},
       {"activating: a\nactivating: b\n", "activating: b\n", "activating: c\n", ""}},
      {"AFailedProviderReleasesItsDependants",
       {{"a", {"app"}, {"storage"}}, {"b", {"storage"}, {}}}, 1, {{"b", 1}}, 0, {}, "b / a / ",
       {Line("a", kActivated)}, {Line("b", " activation failed.")},
       {"activating: b\n", "activating: a\n", ""}},
      {"ARequirementNobodyProvidesHoldsNothingBack",
       {{"a", {"a"}, {"nobody"}}}, 1, {}, 0, {}, "a / ",
       {Line("a", kActivated)}, {},
       {"activating: a\n", ""}},
      // q sorts first, so only the preemptive hold keeps it back; sharing a kind
      // tag holds nobody back.
      {"APreemptiveProviderThatSucceedsDropsItsRivals",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp", "json plugins"}, {}, true}, {"k", {"json plugins"}, {}}},
       1, {}, 0, {}, "p / k / ",
       {Line("p", kActivated), Line("a-q", " skipped."), Line("k", kActivated)}, {},
       {"activating: p\n", "activating: k\n", ""}},
      {"APreemptiveProviderThatFailsReleasesItsRivals",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp"}, {}, true}}, 1, {{"p", 1}}, 0, {}, "p / a-q / ",
       {Line("p", " opportunistic activation failed."), Line("a-q", kActivated)}, {},
       {"activating: p\n", "activating: a-q\n", ""}},
      {"PreemptionDisabled",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp"}, {}, true}},
       1, {{"p", 1}}, ActivateFlag::PreemptivePluginsDisabled, {}, "p / a-q / ",
       {Line("p", " opportunistic skipped."), Line("a-q", kActivated)}, {},
       {"activating: p\n", "activating: a-q\n", ""}},
      {"ADisabledPreemptiveProviderPreemptsNobody",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp"}, {}, true}}, 1, {}, 0, {"p"}, "p~ / a-q / ",
       {Line("p", " skipped."), Line("a-q", kActivated)}, {},
       {"", "activating: a-q\n", ""}},
      // Passed over without a worker while the only worker is busy; what needs
      // the worker waits for it.
      {"PassedOverPluginsSettleWhileOthersRun",
       {{"r", {"r"}, {}}, {"d", {"d"}, {}}, {"e", {"e"}, {"d"}}}, 1, {}, 0, {"d"}, "r d~ / / e / ",
       {Line("d", " skipped."), Line("r", kActivated), Line("e", kActivated)}, {},
       {"activating: r\n", "activating: r\n", "activating: e\n", ""}},
  };
  for (const auto& scenario : scenarios) {
    SCOPED_TRACE(scenario.label);
    Plugin::ResetRegistries();
    ScopedRoot root;  // the channels' sinks stay open while the root is the same
    Plugin::DisablePlugins(scenario.disabled);
    Register(scenario.plugins);
    RecordingPool pool(scenario.workers);
    pool.status = scenario.status;
    ActivateFlags flags = scenario.flags;
    Plugin::ActivatePlugins(flags, pool);
    EXPECT_EQ(pool.transcript, scenario.transcript);
    EXPECT_EQ(Channel("kernel"), scenario.kernel);
    EXPECT_EQ(Channel("alert"), scenario.alert);
    EXPECT_EQ(Channel("progress"),
              (std::vector<std::string>{"Activating Bootstrand Plugins: ", "All bootstrand plugins activated"}));
    EXPECT_EQ(Channel("status"), scenario.statusText);
  }
}

TEST_F(Scheduling, HostProfilesWaitForTheConfigurationOnAStatelessHost) {
  std::ofstream(root_.Path("/stateless.tgz")).flush();
  std::filesystem::create_directories(root_.Path("/etc/tessary"));
  std::ofstream(root_.Path("/etc/tessary/hostprofile.xml.gz")).flush();
  Register(
      {{"early", {"early"}, {}}, {"restore-configuration", {"restored"}, {"early"}}, {"late", {"late"}, {"restored"}}});
  RecordingPool pool(1);
  ActivateFlags flags = ActivateFlag::HostProfileBarrier;
  Plugin::ActivatePlugins(flags, pool);

  EXPECT_EQ(pool.transcript, "early / restore-configuration / late / ");
  const ActivateFlags profile = ActivateFlag::HostProfilePresent;
  EXPECT_EQ(pool.flags["early"], profile | ActivateFlag::HostProfileBarrier);
  EXPECT_EQ(pool.flags["restore-configuration"], profile | ActivateFlag::HostProfileBarrier);
  EXPECT_EQ(pool.flags["late"], profile);
}

TEST_F(Scheduling, PluginsThatCanNeverStartEndTheRun) {
  // c requires what it provides; a and b wait on each other; d is free.
  Register({{"a", {"x"}, {"y"}}, {"b", {"y"}, {"x"}}, {"c", {"z"}, {"z"}}, {"d", {"d"}, {}}});
  RecordingPool pool;
  ActivateFlags flags = 0;
  Scheduler scheduler(pool, flags);
  EXPECT_FALSE(scheduler.Run());
  EXPECT_EQ(pool.transcript, "d / ");
  EXPECT_EQ(Plugin::plugins.size(), 3u);
}

}  // namespace
}  // namespace bootstrand::testing
