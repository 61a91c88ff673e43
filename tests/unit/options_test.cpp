// The option table, the help printer's lead-ins, the comma-list splitter, the
// parsing loop and the number conversion.
#include <gtest/gtest.h>

#include <sstream>

#include "main/options.h"
#include "main/startup.h"
#include "plugin/plugin.h"
#include "worker/worker.h"

namespace bootstrand {
namespace {

TEST(SplitList, KeepsNonEmptyPiecesVerbatim) {
  EXPECT_EQ(split_list(""), std::vector<std::string>{});
  EXPECT_EQ(split_list(",a,,b,"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(split_list("a b"), std::vector<std::string>{"a b"});
}

TEST(Usage, LeadInsFollowTheColumnCount) {
  std::ostringstream help;
  write_usage(help);
  const std::string text = help.str();
  // 7 columns: two tabs; 15: one tab; 16: next line.
  EXPECT_NE(text.find("--quiet\t\tdo not log"), std::string::npos);
  EXPECT_NE(text.find("--max-workers n\tlimit"), std::string::npos);
  EXPECT_NE(text.find("--requires [tag]\n\t\tlist plugins that require given tag\n"), std::string::npos);
  EXPECT_EQ(text.rfind("--help,-h\tshow this help message\n", 0), 0u);
  const std::string last = "\t\tfixed seed for reproducibility (only useful for testing)\n";
  EXPECT_EQ(text.substr(text.size() - last.size()), last);
  EXPECT_EQ(options.size(), 13u);
}

TEST(ConvertNumber, ParsesLikeStringToInt) {
  EXPECT_EQ(ConvertNumber("--max-workers", "4"), 4);
  EXPECT_EQ(ConvertNumber("--max-workers", "  +4x"), 4);
  EXPECT_EQ(ConvertNumber("--max-workers", "-1"), -1);
  EXPECT_EQ(ConvertNumber("--randomize", "2147483647"), 2147483647);
  EXPECT_EQ(ConvertNumber("--randomize", "-2147483648"), INT32_MIN);
  for (const char* bad : {"", "x4", "-", "+", "2147483648", "-2147483649", "99999999999999999999"}) {
    EXPECT_THROW(ConvertNumber("--randomize", bad), InvalidNumber) << bad;
  }
}

class ParseArgumentsTest : public ::testing::Test {
 protected:
  void SetUp() override { Plugin::ResetRegistries(); }
  void TearDown() override {
    Plugin::ResetRegistries();
    Worker::LimitWorkers(-1);
  }
  StartupState Parse(std::list<std::string> arguments) {
    StartupState state;
    ParseArguments(arguments, state);
    return state;
  }
};

TEST_F(ParseArgumentsTest, OptionsTakeEffectWhenMet) {
  StartupState state = Parse({"--dry=ignored", "--time-ops", "--disable-preemptive-plugins", "--interactive",
                              "--plugin", "--dry", "--plugin=a.json,,b.json", "--plugin", "a.json",
                              "--disable", "x,y", "--max-workers", "-1", "--randomize", "7"});
  EXPECT_EQ(state.flags, ActivateFlag::DryRun | ActivateFlag::TimeOps | ActivateFlag::PreemptivePluginsDisabled |
                             ActivateFlag::Interactive);
  // A required value is taken whatever it begins with.
  EXPECT_EQ(state.pluginNames, (std::unordered_set<std::string>{"--dry", "a.json", "b.json"}));
  EXPECT_EQ(Plugin::disabled, (TagSet{"x", "y"}));
  EXPECT_TRUE(Plugin::interactiveTags.empty());
  EXPECT_EQ(Worker::WorkerLimit(), 0xFFFFFFFFu);
  EXPECT_EQ(state.seed, 7u);
}

TEST_F(ParseArgumentsTest, OptionalValuesStopAtDashes) {
  StartupState state = Parse({"--requires", "--provides", "net", "--randomize=-1", "--interactive=usb,net"});
  EXPECT_TRUE(state.requiresQuery);
  EXPECT_EQ(state.requiresTag, "");
  EXPECT_TRUE(state.providesQuery);
  EXPECT_EQ(state.providesTag, "net");
  EXPECT_EQ(state.seed, 4294967295u);
  EXPECT_EQ(Plugin::interactiveTags, (TagSet{"usb", "net"}));

  StartupState last = Parse({"--requires"});
  EXPECT_TRUE(last.requiresQuery);
  EXPECT_NE(Parse({"--randomize="}).seed, 0u);  // empty value: the current time

  // An empty next argument is an empty value, taken like any other.
  StartupState empty = Parse({"--requires", "", "--provides", "", "--interactive", "", "--randomize", "", "--tags"});
  EXPECT_TRUE(empty.requiresQuery && empty.providesQuery && empty.listTags);
  EXPECT_EQ(empty.requiresTag + empty.providesTag, "");
  EXPECT_EQ(empty.flags, ActivateFlag::Interactive);
  EXPECT_NE(empty.seed, 0u);
}

TEST_F(ParseArgumentsTest, ErrorsLeaveTheOffendingArgumentAtTheFront) {
  std::list<std::string> invalid = {"--dry", "--nope=1", "--tags"};
  StartupState state;
  EXPECT_THROW(ParseArguments(invalid, state), InvalidArg);
  EXPECT_EQ(invalid.front(), "--nope=1");

  std::list<std::string> missing = {"--dry", "--disable"};
  EXPECT_THROW(ParseArguments(missing, state), MissingArg);
  EXPECT_EQ(missing, std::list<std::string>{"--disable"});
}

}  // namespace
}  // namespace bootstrand
