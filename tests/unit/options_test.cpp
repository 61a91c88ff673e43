// The parsing loop and the number conversion of the command line. The help text and
// the argument errors are compared whole by the end-to-end command-line tests.
#include "main/options.h"
#include "main/startup.h"
#include "support/test_plugin.h"
#include "worker/worker.h"

namespace bootstrand::testing {
namespace {

TEST(ConvertNumber, ParsesLikeStringToInt) {
  for (const auto& [text, number] : std::vector<std::pair<const char*, std::int32_t>>{
           {"4", 4}, {"  +4x", 4}, {"-1", -1}, {"2147483647", INT32_MAX}, {"-2147483648", INT32_MIN}}) {
    EXPECT_EQ(ConvertNumber("--randomize", text), number) << text;
  }
  for (const char* bad : {"", "x4", "-", "+", "2147483648", "-2147483649", "99999999999999999999"}) {
    EXPECT_THROW(ConvertNumber("--randomize", bad), InvalidNumber) << bad;
  }
}

class ParseArgumentsTest : public PluginTest {
 protected:
  void TearDown() override {
    PluginTest::TearDown();
    Worker::LimitWorkers(-1);
  }
  static StartupState Parse(std::list<std::string> arguments) {
    StartupState state;
    ParseArguments(arguments, state);
    return state;
  }
};

// A required value is taken whatever it begins with; an optional one stops at
// dashes, and an empty next argument is an empty value, taken like any other.
TEST_F(ParseArgumentsTest, OptionsTakeEffectWhenMet) {
  StartupState state = Parse({"--dry=ignored", "--time-ops", "--disable-preemptive-plugins", "--interactive",
                              "--plugin", "--dry", "--plugin=a.json,,b.json", "--plugin", "a.json", "--disable", "x,y",
                              "--max-workers", "-1", "--randomize", "7"});
  EXPECT_EQ(state.flags, ActivateFlag::DryRun | ActivateFlag::TimeOps | ActivateFlag::PreemptivePluginsDisabled |
                             ActivateFlag::Interactive);
  EXPECT_EQ(state.pluginNames, (std::unordered_set<std::string>{"--dry", "a.json", "b.json"}));
  EXPECT_EQ(Plugin::disabled, (TagSet{"x", "y"}));
  EXPECT_EQ(Worker::WorkerLimit(), 0xFFFFFFFFu);
  EXPECT_EQ(state.seed, 7u);

  state = Parse({"--requires", "--provides", "net", "--randomize=-1", "--interactive=usb,net"});
  EXPECT_TRUE(state.requiresQuery && state.providesQuery);
  EXPECT_EQ(state.requiresTag + "|" + state.providesTag, "|net");
  EXPECT_EQ(state.seed, 4294967295u);
  EXPECT_EQ(Plugin::interactiveTags, (TagSet{"usb", "net"}));
  EXPECT_TRUE(Parse({"--requires"}).requiresQuery);
  EXPECT_NE(Parse({"--randomize="}).seed, 0u);  // empty value: the current time

  state = Parse({"--requires", "", "--provides", "", "--interactive", "", "--randomize", "", "--tags"});
  EXPECT_TRUE(state.requiresQuery && state.providesQuery && state.listTags);
  EXPECT_EQ(state.requiresTag + state.providesTag, "");
  EXPECT_EQ(state.flags, ActivateFlag::Interactive);
  EXPECT_NE(state.seed, 0u);
}

}  // namespace
}  // namespace bootstrand::testing
