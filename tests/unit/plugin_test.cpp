// The plugin model: readiness, checked against its plain definition on random plugin
// sets (the scheduler's tests cover the predicates case by case, the lint's end-to-end
// tests what --disable marks), and exceptions.
#include <random>
#include <set>

#include "plugin/exception.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

using PluginModel = PluginTest;

// Readiness, kept as counts of waits, must answer exactly as the plain definition:
// walk every listed plugin and ask whether it provides a required tag or preempts the
// plugin.
TEST_F(PluginModel, ReadinessMatchesThePlainDefinitionOnRandomSets) {
  std::mt19937 random(7);
  const std::vector<std::string> tags = {"a", "b", "c", "d", "e", "json plugins"};
  for (int round = 0; round < 40; ++round) {
    Plugin::ResetRegistries();
    owned_.clear();
    std::vector<TestPlugin*> all;
    for (int i = 0; i < 12; ++i) {
      std::vector<std::string> provides, requires_;
      for (const std::string& tag : tags) {
        if (random() % 4 == 0) provides.push_back(tag);
        if (random() % 5 == 0) requires_.push_back(tag);
      }
      all.push_back(&Make("p" + std::to_string(i), provides, requires_));
      all.back()->preemptive = random() % 4 == 0;
      all.back()->noOperations = random() % 5 == 0;
      all.back()->Register();
    }
    for (int removal = 0; removal < 12; ++removal) {
      // The ready sets hold exactly the listed plugins that the definition lets start.
      std::set<const Plugin*> expectedReady;
      for (const Plugin* plugin : Plugin::plugins) {
        bool waits = false;
        for (const Plugin* other : Plugin::plugins) {
          for (const std::string& tag : plugin->requires_) waits |= other->Provides(tag);
          waits |= other->Preempts(*plugin);
        }
        ASSERT_EQ(plugin->Pending(), waits) << plugin->name << " round " << round;
        if (!waits) expectedReady.insert(plugin);
      }
      std::set<const Plugin*> tracked;
      for (const auto& [order, plugin] : Plugin::plugins.ReadyToRun()) tracked.insert(plugin);
      for (const auto& [order, plugin] : Plugin::plugins.ReadyToPassOver()) {
        EXPECT_TRUE(plugin->noOperations);
        tracked.insert(plugin);
      }
      ASSERT_EQ(tracked, expectedReady) << "round " << round;
      Plugin::plugins.Remove(all[random() % all.size()]);
    }
  }
}

TEST(ExceptionText, FormatsLikePrintfWithoutALengthLimit) {
  const std::string longText(5000, 'x');
  EXPECT_STREQ(Exception("%s: %d [%s]", "Unsupported API version", 6, longText.c_str()).what(),
               ("Unsupported API version: 6 [" + longText + "]").c_str());
}

}  // namespace
}  // namespace bootstrand::testing
