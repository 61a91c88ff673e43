// The boot record written and read back: every field survives, a line cut off by a
// power cut or a line that is not the record's is skipped with a word, and a record
// that cannot be written is said once and costs nothing else.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/boot_record.h"
#include "platform/boot_record_reader.h"
#include "support/host_root.h"

namespace bootstrand {
namespace {

using testing::HostRoot;

// BOOTSTRAND_ROOT points at a fresh root for the test's lifetime.
class BootRecordTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("BOOTSTRAND_ROOT", root.Root().c_str(), 1); }
  void TearDown() override {
    BootRecord::Close();
    unsetenv("BOOTSTRAND_ROOT");
  }
  BootRecordContents Read() {
    std::ifstream input(root.Path(BootRecord::kPath));
    return ReadBootRecord(input, "record");
  }
  HostRoot root;
};

TEST_F(BootRecordTest, EveryFieldReadsBack) {
  RecordedRunSettings settings{true, {"a", "b"}, 2u, true, false};
  RecordedPlugin plugin{0, "50-host-keys", "json", {"host-keys", "json plugins"}, {"storage"}, "50-host-keys1.2", true, false};
  BootRecord::Open(settings, {plugin}, {1000, 10});
  RecordedOutcome ran{0, "50-host-keys", "activated", 0, false, ClockReading{1100, 20}, ClockReading{7201200, 30}, {}};
  RecordedOutcome preempted{1, "other", "skipped", std::nullopt, false, std::nullopt, std::nullopt, "50-host-keys"};
  BootRecord::Outcome(ran, true);
  BootRecord::Outcome(preempted, false);
  BootRecord::End("interrupted", 4, "SIGTERM", {7201300, 40});
  BootRecord::Outcome(ran, false);  // nothing after the end

  BootRecordContents record = Read();
  EXPECT_EQ(record.problems, std::vector<std::string>{});
  ASSERT_TRUE(record.start);
  EXPECT_EQ(record.start->bootId, HostRoot::kBootId);
  EXPECT_EQ(record.start->pid, getpid());
  EXPECT_TRUE(record.start->settings.dryRun);
  EXPECT_EQ(record.start->settings.disabled, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(record.start->settings.workerLimit, 2u);
  EXPECT_TRUE(record.start->settings.preemptivePluginsDisabled);
  EXPECT_EQ(record.start->at.boottimeMicroseconds, 10);
  ASSERT_EQ(record.plugins.size(), 1u);
  EXPECT_EQ(record.plugins[0].provides, plugin.provides);
  EXPECT_EQ(record.plugins[0].requires_, plugin.requires_);
  EXPECT_EQ(record.plugins[0].runOnceKey, "50-host-keys1.2");
  EXPECT_TRUE(record.plugins[0].preemptive);
  ASSERT_EQ(record.outcomes.size(), 2u);
  EXPECT_EQ(record.outcomes[0].status, 0);
  EXPECT_EQ(record.outcomes[0].end->wallMicroseconds, 7201200);
  EXPECT_EQ(record.outcomes[0].end->boottimeMicroseconds, 30);
  EXPECT_EQ(record.outcomes[1].status, std::nullopt);
  EXPECT_EQ(record.outcomes[1].start, std::nullopt);
  EXPECT_EQ(record.outcomes[1].preemptedBy, "50-host-keys");
  ASSERT_TRUE(record.end);
  EXPECT_EQ(record.end->outcome, "interrupted");
  EXPECT_EQ(record.end->signal, "SIGTERM");
  EXPECT_EQ(record.end->status, 4);
}

TEST_F(BootRecordTest, TheRunBeforeIsKept) {
  BootRecord::Open({}, {}, {1, 1});
  BootRecord::End("completed", 0, nullptr, {2, 2});
  BootRecord::Open({}, {}, {3, 3});
  std::ifstream previous(root.Path(BootRecord::kPreviousPath));
  EXPECT_TRUE(ReadBootRecord(previous, "previous").end);
  EXPECT_FALSE(Read().end);
}

TEST(BootRecordReader, SkipsWhatIsNotTheRecordsAndACutOffLastLine) {
  std::istringstream input(
      "{\"event\":\"start\",\"version\":\"1\",\"boot_id\":null,\"pid\":1,\"dry_run\":false,\"disabled\":[],"
      "\"worker_limit\":null,\"at\":{\"wall_us\":1,\"boottime_us\":1}}\n"
      "not json\n"
      "{\"event\":\"outcome\",\"index\":\"zero\"}\n"
      "{\"event\":\"a later kind of line\"}\n"
      "{\"event\":\"outcome\",\"index\":0,\"name\":\"p\",\"outcome\":\"activated\",\"status\":0,"
      "\"start\":{\"wall_us\":1,\"boottime_us\":1},\"end\":{\"wall_us\":2,\"boottime_us\":2}}\n"
      "{\"event\":\"outcome\",\"index\":1,\"na");
  BootRecordContents record = ReadBootRecord(input, "r");
  EXPECT_TRUE(record.start);
  EXPECT_EQ(record.outcomes.size(), 1u);
  ASSERT_EQ(record.problems.size(), 3u);
  EXPECT_EQ(record.problems[0], "r:2: not a JSON object; skipped");
  EXPECT_TRUE(record.problems[1].starts_with("r:3: a field is missing or of the wrong type")) << record.problems[1];
  EXPECT_EQ(record.problems[2], "r:6: the last line is cut off; skipped");
}

TEST_F(BootRecordTest, AFailureIsSaidOnceAndCostsNothingElse) {
  root.WriteFile("/var/lib/bootstrand", "a file where the folder should be");
  ::testing::internal::CaptureStderr();
  BootRecord::Open({}, {}, {1, 1});
  BootRecord::Outcome({}, true);
  BootRecord::End("completed", 0, nullptr, {2, 2});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "bootstrand: cannot write the boot record " + root.Path(BootRecord::kPath) + ": keeping the last one as " +
                root.Path(BootRecord::kPreviousPath) + ": Not a directory; the boot goes on without it\n");
  EXPECT_FALSE(BootRecord::IsOpen());
}

}  // namespace
}  // namespace bootstrand
