// The boot step's choice of run-once keys: which activated, which may be passed on to
// the activator, and how they are split over --disable options.
#include <gtest/gtest.h>

#include "boot-step/run_once_keys.h"

namespace bootstrand::boot_step {
namespace {

RecordedPlugin Loaded(std::size_t index, const std::string& name, std::vector<std::string> provides,
                      std::optional<std::string> key = std::nullopt) {
  RecordedPlugin plugin;
  plugin.index = index;
  plugin.name = name;
  plugin.provides = std::move(provides);
  plugin.runOnceKey = std::move(key);
  return plugin;
}

RecordedOutcome Ended(std::size_t index, const std::string& name, const std::string& outcome, bool passedOver = false) {
  RecordedOutcome ended;
  ended.index = index;
  ended.name = name;
  ended.outcome = outcome;
  ended.passedOver = passedOver;
  return ended;
}

// A run-once plugin without a version whose key is a tag of another plugin, one with a
// version, one that failed, one skipped at the prompt, and one plain plugin.
BootRecordContents LastBoot(bool dryRun = false) {
  BootRecordContents record;
  record.start = BootRecordContents::Start{};
  record.start->settings.dryRun = dryRun;
  record.plugins = {Loaded(0, "firewall", {"json plugins"}, "firewall"),
                    Loaded(1, "40-firewall", {"firewall", "json plugins"}),
                    Loaded(2, "50-host-keys", {"host-keys"}, "50-host-keys1.2"),
                    Loaded(3, "flaky", {}, "flaky1"), Loaded(4, "asked", {}, "asked1")};
  record.outcomes = {Ended(1, "40-firewall", "activated"), Ended(2, "50-host-keys", "activated"),
                     Ended(3, "flaky", "activation failed"), Ended(4, "asked", "activated", true),
                     Ended(0, "firewall", "activated")};
  return record;
}

TEST(RunOnceKeys, OnlyPluginsThatRanAndSucceededCount) {
  EXPECT_EQ(ActivatedRunOnceKeys(LastBoot()), (std::vector<std::string>{"50-host-keys1.2", "firewall"}));
  EXPECT_EQ(ActivatedRunOnceKeys(LastBoot(true)), std::vector<std::string>{});
  // A boot cut off before its end line still counts for what it recorded.
  BootRecordContents cut = LastBoot();
  cut.outcomes.resize(2);
  EXPECT_EQ(ActivatedRunOnceKeys(cut), std::vector<std::string>{"50-host-keys1.2"});
}

TEST(RunOnceKeys, MergedAppendsOnlyNewKeys) {
  bool changed = false;
  EXPECT_EQ(Merged({"a", "b"}, {"b", "a"}, changed), (std::vector<std::string>{"a", "b"}));
  EXPECT_FALSE(changed);
  EXPECT_EQ(Merged({"a"}, {"c", "c"}, changed), (std::vector<std::string>{"a", "c"}));
  EXPECT_TRUE(changed);
}

TEST(RunOnceKeys, KeysThatCouldDisableAnotherPluginAreHeldBack) {
  const BootRecordContents last = LastBoot();
  struct Case {
    const char* what;
    std::vector<std::string> keys;
    const BootRecordContents* last;
    std::vector<std::string> values;
    std::size_t reports;
  };
  const Case cases[] = {
      {"own key", {"50-host-keys1.2"}, &last, {"50-host-keys1.2"}, 0},
      {"a tag of another plugin", {"firewall", "flaky1"}, &last, {"flaky1"}, 1},
      {"another plugin's name", {"40-firewall"}, &last, {}, 1},
      {"a kind tag", {"json plugins"}, &last, {}, 1},
      {"a comma", {"a,b", "c"}, &last, {"c"}, 1},
      {"no plugin of the last boot has it", {"retired9"}, &last, {"retired9"}, 0},
      {"no last boot to check against", {"firewall", "x"}, nullptr, {"firewall,x"}, 0},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.what);
    DisableArguments arguments = DisableArgumentsFor(each.keys, each.last);
    EXPECT_EQ(arguments.values, each.values);
    EXPECT_EQ(arguments.reports.size(), each.reports);
  }
  EXPECT_EQ(DisableArgumentsFor({"firewall"}, &last).reports.front(),
            "run-once key 'firewall' is also the name or a tag of plugin 40-firewall and would disable it too; "
            "not passed on, so its own plugin runs again");
}

TEST(RunOnceKeys, LongListsAreSplitAndBounded) {
  const BootRecordContents last = LastBoot();
  std::vector<std::string> keys = {"aaaa", "bbbb", "cccc", "50-host-keys1.2"};
  EXPECT_EQ(DisableArgumentsFor(keys, &last, 9).values,
            (std::vector<std::string>{"aaaa,bbbb", "cccc", "50-host-keys1.2"}));
  // Past the bound on the whole command line only the keys of the last boot's plugins go.
  DisableArguments bounded = DisableArgumentsFor(keys, &last, 9, 20);
  EXPECT_EQ(bounded.values, std::vector<std::string>{"50-host-keys1.2"});
  EXPECT_EQ(bounded.reports, std::vector<std::string>{"4 run-once keys are too many for one command line: 3 that no "
                                                      "plugin of the last boot has are not passed on"});
}

}  // namespace
}  // namespace bootstrand::boot_step
