// The boot record of a real boot: one outcome line per plugin with the words of its
// outcome line, the workers' stamps on both clocks, the preempted and the passed-over
// plugins told apart, and the end; written although every channel is quiet.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "platform/boot_record_reader.h"
#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

TEST(BootRecord, AccountsForEveryPluginOfAQuietBoot) {
  HostRoot root;
  const nlohmann::json preemptive = {{"version", 5}, {"run_once", false}, {"preemptive_provider", true}};
  root.WriteCommand("fail", "exit 1");
  root.WritePlugins({{"ok", {"o"}, {}, {"mark --name ok"}},
                     {"broken", {"b"}, {}, {"fail"}},
                     {"off", {"f"}, {}, {"mark --name off"}},
                     {"first", {"t"}, {}, {"mark --name first"}, preemptive},
                     {"rival", {"t"}, {}, {"mark --name rival"}},
                     {"keys", {"k"}, {"o"}, {"mark --name keys"}, {{"run_once", true}, {"plugin_version", "2"}}}});
  RunResult run = RunBootstrand(root, {"--quiet", "--disable", "off", "--max-workers", "2"});
  ASSERT_EQ(run.exitStatus, 0) << run.err;

  std::ifstream input(root.Path("/var/lib/bootstrand/boot-record.jsonl"));
  BootRecordContents record = ReadBootRecord(input, "record");
  EXPECT_EQ(record.problems, Lines{});
  ASSERT_TRUE(record.start && record.end);
  EXPECT_EQ(record.start->bootId, HostRoot::kBootId);
  EXPECT_EQ(record.start->settings.disabled, Lines{"off"});
  EXPECT_EQ(record.start->settings.workerLimit, 2u);
  EXPECT_EQ(record.end->outcome, "completed");
  ASSERT_EQ(record.plugins.size(), 7u);  // end-autoconf too

  // name -> outcome, passed over, preempted by
  std::map<std::string, std::tuple<std::string, bool, std::string>> outcomes;
  for (const RecordedOutcome& outcome : record.outcomes) {
    EXPECT_EQ(record.plugins.at(outcome.index).name, outcome.name);
    outcomes[outcome.name] = {outcome.outcome, outcome.passedOver, outcome.preemptedBy.value_or("")};
    if (outcome.preemptedBy) continue;
    ASSERT_TRUE(outcome.start && outcome.end) << outcome.name;
    EXPECT_LE(outcome.start->boottimeMicroseconds, outcome.end->boottimeMicroseconds);
    EXPECT_LE(record.start->at.boottimeMicroseconds, outcome.start->boottimeMicroseconds);
    EXPECT_LE(outcome.end->boottimeMicroseconds, record.end->at.boottimeMicroseconds);
  }
  using Seen = std::tuple<std::string, bool, std::string>;
  EXPECT_EQ(outcomes, (std::map<std::string, Seen>{{"ok", {"activated", false, ""}},
                                                   {"broken", {"activation failed", false, ""}},
                                                   {"off", {"skipped", true, ""}},
                                                   {"first", {"activated", false, ""}},
                                                   {"rival", {"skipped", false, "first"}},
                                                   {"keys", {"activated", false, ""}},
                                                   {"end-autoconf", {"activated", false, ""}}}));
  for (const RecordedPlugin& plugin : record.plugins) {
    EXPECT_EQ(plugin.runOnceKey, plugin.name == "keys" ? std::optional<std::string>("keys2") : std::nullopt);
  }
}

}  // namespace
}  // namespace bootstrand::testing
