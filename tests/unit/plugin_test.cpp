// The plugin model: registration, run-once keys, readiness (checked against its plain
// definition on random plugin sets; the scheduler's tests cover the predicates case by
// case) and exceptions.
#include <random>
#include <set>

#include "plugin/exception.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

using PluginModel = PluginTest;

TEST_F(PluginModel, DisabledNamesTagsAndRunOnceKeysMarkPluginsSkippedButKeepThemListed) {
  Plugin::DisablePlugins({"b", "json plugins", "storage", "once1.0"});
  std::vector<TestPlugin*> plugins = {&Make("a", {"net"}), &Make("b", {"net2"}), &Make("j", {"json plugins"}),
                                      &Make("s", {"storage"}), &Make("once", {"x"}), &Make("once", {"y"})};
  // A run-once key is the name followed by the plugin version.
  plugins[4]->pluginVersion = "1.0";
  plugins[4]->runOnce = plugins[5]->runOnce = true;
  std::string skipped;
  for (TestPlugin* plugin : plugins) {
    plugin->Register();
    skipped += plugin->skip ? '1' : '0';
  }
  EXPECT_EQ(skipped, "011110");
  EXPECT_EQ(Plugin::plugins.size(), 6u);
  EXPECT_EQ(Plugin::providers.at("storage"), std::vector<Plugin*>{plugins[3]});
  EXPECT_EQ(Plugin::providers.count("json plugins"), 0u);
}

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
