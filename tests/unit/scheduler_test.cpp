// The scheduler's passes through a worker pool without processes: which plugins are
// handed over in which pass, and the outcome lines and status text it writes; the
// linter's pool in virtual time under the real scheduler.
#include <deque>
#include <utility>

#include "plugin/scheduler.h"
#include "simulated_pool.h"
#include "support/test_plugin.h"
#include "worker/worker.h"

namespace bootstrand::testing {
namespace {

// A worker pool without processes, for driving the scheduler in tests: it runs at
// most `limit` plugins at once, passes over the plugins the worker layer would, and
// completes the running plugins one per collection, oldest first, with the status a
// test gave for their name (0 otherwise). It keeps a transcript of what happened:
// each hand-over as the plugin's name (with "~" when passed over), each collection
// as "/".
class RecordingPool : public WorkerPool {
 public:
  explicit RecordingPool(std::size_t limit = 1000) : limit_(limit) {}

  bool HasRoom() const override { return running_.size() < limit_; }

  HandOverResult HandOver(Plugin* plugin, ActivateFlags handedFlags) override {
    bool passedOver = Worker::PassesOver(*plugin, handedFlags);
    if (!passedOver && !HasRoom()) return HandOverResult::Refused;
    transcript += plugin->name + (passedOver ? "~ " : " ");
    if (passedOver) queued_.emplace_back(plugin, 0);
    if (!passedOver) running_.push_back(plugin);
    return passedOver ? HandOverResult::PassedOver : HandOverResult::Running;
  }

  std::vector<PluginResult> Collect() override {
    transcript += "/ ";
    std::vector<PluginResult> results = std::exchange(queued_, {});
    if (results.empty() && !running_.empty()) {
      Plugin* done = running_.front();
      running_.pop_front();
      results.emplace_back(done, status.count(done->name) != 0 ? status.at(done->name) : 0);
    }
    return results;
  }

  std::map<std::string, int> status;  // a plugin's result by name
  std::string transcript;            // "a b~ / c /": hand-overs and collections

 private:
  std::size_t limit_;
  std::deque<Plugin*> running_;
  std::vector<PluginResult> queued_;
};

struct PluginSpec {
  std::string name;
  std::vector<std::string> provides, requires_;
  bool preemptive = false;
};

using Scheduling = PluginTest;

const std::string kActivated = " activated.";
std::string Line(const std::string& name, const std::string& outcome) { return "Bootstrand plugin " + name + outcome; }

TEST_F(Scheduling, HandsOverInListOrderAndReportsEachOutcome) {
  struct {
    const char* label;
    std::vector<PluginSpec> plugins;  // in load order
    std::size_t workers;
    std::map<std::string, int> status;  // results other than success
    std::vector<std::string> disabled;
    std::string transcript;  // hand-overs ("~": passed over) and collections ("/")
    std::vector<std::string> kernel, alert, statusText;
  } const scenarios[] = {
      // A requirement that nobody provides holds nothing back.
      {"SerialInDependencyOrder",
       {{"a", {"app"}, {"storage"}}, {"b", {"storage"}, {"net"}}, {"c", {"net"}, {"nobody"}}}, 1, {}, {}, "c / b / a / ",
       {Line("c", kActivated), Line("b", kActivated), Line("a", kActivated)}, {},
       {"activating: c\n", "activating: b\n", "activating: a\n", ""}},
      // A plugin becomes ready only in the pass after its last provider finished.
      {"IndependentPluginsRunTogether",
       {{"a", {"a"}, {}}, {"b", {"b"}, {}}, {"c", {"c"}, {"a", "b"}}}, 8, {}, {}, "a b / / c / ",
       {Line("a", kActivated), Line("b", kActivated), Line("c", kActivated)}, {},
       {"activating: a\nactivating: b\n", "activating: b\n", "activating: c\n", ""}},
      {"AFailedProviderReleasesItsDependants",
       {{"a", {"app"}, {"storage"}}, {"b", {"storage"}, {}}}, 1, {{"b", 1}}, {}, "b / a / ",
       {Line("a", kActivated)}, {Line("b", " activation failed.")},
       {"activating: b\n", "activating: a\n", ""}},
      // q sorts first, so only the preemptive hold keeps it back; sharing a kind
      // tag holds nobody back.
      {"APreemptiveProviderThatSucceedsDropsItsRivals",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp", "json plugins"}, {}, true}, {"k", {"json plugins"}, {}}},
       1, {}, {}, "p / k / ",
       {Line("p", kActivated), Line("a-q", " skipped."), Line("k", kActivated)}, {},
       {"activating: p\n", "activating: k\n", ""}},
      {"APreemptiveProviderThatFailsReleasesItsRivals",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp"}, {}, true}}, 1, {{"p", 1}}, {}, "p / a-q / ",
       {Line("p", " opportunistic activation failed."), Line("a-q", kActivated)}, {},
       {"activating: p\n", "activating: a-q\n", ""}},
      {"ADisabledPreemptiveProviderPreemptsNobody",
       {{"a-q", {"dhcp"}, {}}, {"p", {"dhcp"}, {}, true}}, 1, {}, {"p"}, "p~ / a-q / ",
       {Line("p", " skipped."), Line("a-q", kActivated)}, {},
       {"", "activating: a-q\n", ""}},
      // Passed over without a worker while the only worker is busy; what needs
      // the worker waits for it.
      {"PassedOverPluginsSettleWhileOthersRun",
       {{"r", {"r"}, {}}, {"d", {"d"}, {}}, {"e", {"e"}, {"d"}}}, 1, {}, {"d"}, "r d~ / / e / ",
       {Line("d", " skipped."), Line("r", kActivated), Line("e", kActivated)}, {},
       {"activating: r\n", "activating: r\n", "activating: e\n", ""}},
  };
  for (const auto& scenario : scenarios) {
    SCOPED_TRACE(scenario.label);
    Plugin::ResetRegistries();
    ScopedRoot root;  // the channels' sinks stay open while the root is the same
    Plugin::DisablePlugins(scenario.disabled);
    for (const PluginSpec& spec : scenario.plugins) {
      TestPlugin& plugin = Make(spec.name, spec.provides, spec.requires_);
      plugin.preemptive = spec.preemptive;
      plugin.Register();
    }
    RecordingPool pool(scenario.workers);
    pool.status = scenario.status;
    ActivateFlags flags = 0;
    Plugin::ActivatePlugins(flags, pool);
    EXPECT_EQ(pool.transcript, scenario.transcript);
    EXPECT_EQ(root.Channel("kernel"), scenario.kernel);
    EXPECT_EQ(root.Channel("alert"), scenario.alert);
    EXPECT_EQ(root.Channel("status"), scenario.statusText);
  }
}

// Each plugin's virtual start and end, in the order the pool returned them: the clock
// moves to the next end only when nothing else is there to collect, plugins ending at
// one instant come back in hand-over order, and a full pool holds ready plugins back.
TEST_F(Scheduling, TheSimulatedPoolRunsPluginsInVirtualTime) {
  struct {
    const char* label;
    std::vector<PluginSpec> plugins;  // in load order
    std::uint32_t workers;  // 0: no limit
    std::map<std::string, lint::Microseconds> durations;
    std::vector<std::string> disabled;
    std::string finished;  // "name start-end", "~" when passed over
  } const scenarios[] = {
      {"TheClockMovesToTheNextEnd",
       {{"a", {"a"}, {}}, {"b", {"b"}, {"a"}}, {"c", {"c"}, {}}, {"z", {"z"}, {}}}, 0,
       {{"a", 100}, {"b", 50}, {"c", 30}, {"z", 0}}, {}, "z 0-0, c 0-30, a 0-100, b 100-150, "},
      {"PluginsEndingAtOneInstantComeBackInHandOverOrder",
       {{"a", {"a"}, {}}, {"b", {"b"}, {}}, {"c", {"c"}, {}}, {"d", {"d"}, {"b"}}}, 0,
       {{"a", 100}, {"b", 30}, {"c", 100}, {"d", 70}}, {}, "b 0-30, a 0-100, c 0-100, d 30-100, "},
      {"AFullPoolHoldsReadyPluginsBackInListOrder",
       {{"a", {"a"}, {}}, {"b", {"b"}, {}}, {"c", {"c"}, {}}, {"d", {"d"}, {}}}, 2,
       {{"a", 100}, {"b", 30}, {"c", 50}, {"d", 10}}, {}, "b 0-30, c 30-80, d 80-90, a 0-100, "},
      // Passed over while the only worker is busy, and collected without waiting.
      {"APluginPassedOverEndsAtOnceWithoutAWorker",
       {{"r", {"r"}, {}}, {"d", {"d"}, {}}, {"e", {"e"}, {"d"}}}, 1,
       {{"r", 100}, {"d", 500}, {"e", 50}}, {"d"}, "d~ 0-0, r 0-100, e 100-150, "},
      {"APluginPassedOverReleasesItsDependantsAtOnce",
       {{"r", {"r"}, {}}, {"d", {"d"}, {}}, {"e", {"e"}, {"d"}}}, 2,
       {{"r", 100}, {"d", 500}, {"e", 50}}, {"d"}, "d~ 0-0, e 0-50, r 0-100, "},
  };
  for (const auto& scenario : scenarios) {
    SCOPED_TRACE(scenario.label);
    Plugin::ResetRegistries();
    Plugin::DisablePlugins(scenario.disabled);
    for (const PluginSpec& spec : scenario.plugins) Make(spec.name, spec.provides, spec.requires_).Register();
    lint::SimulatedPool pool(scenario.workers, [&](const Plugin& plugin) { return scenario.durations.at(plugin.name); });
    ActivateFlags flags = 0;
    EXPECT_TRUE(Scheduler(pool, flags).Run());
    std::string finished;
    for (const lint::SimulatedPool::Run& run : pool.Finished()) {
      finished += run.plugin->name + (run.passedOver ? "~ " : " ") + std::to_string(run.start) + "-" +
                  std::to_string(run.end) + ", ";
    }
    EXPECT_EQ(finished, scenario.finished);
  }
}

}  // namespace
}  // namespace bootstrand::testing
