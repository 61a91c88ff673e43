// The plugin model: registration, the dependency predicates (checked against their
// plain definition on random plugin sets), run-once keys and exceptions.
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

TEST_F(PluginModel, PendingFollowsListedProvidersAndPreemptiveHolders) {
  TestPlugin& provider = Add("provider", {"net"});
  TestPlugin& user = Add("user", {"app"}, {"net", "nobody-provides-this"});
  TestPlugin& selfish = Add("selfish", {"loop"}, {"loop"});
  TestPlugin& opportunist = Add("opportunist", {"dhcp", "native plugins"}, {}, true);
  TestPlugin& rival = Add("rival", {"dhcp"});
  TestPlugin& kindOnly = Add("kind-only", {"native plugins"});  // sharing only a kind tag preempts nobody
  auto pending = [&] {
    std::string bits;
    for (const Plugin* plugin : {&provider, &user, &selfish, &opportunist, &rival, &kindOnly}) {
      bits += plugin->Pending() ? '1' : '0';
    }
    return bits;
  };
  EXPECT_FALSE(Plugin::Pending(TagSet{}));
  EXPECT_EQ(pending(), "011010");
  EXPECT_TRUE(opportunist.Preempts(rival));
  EXPECT_FALSE(opportunist.Preempts(opportunist));
  EXPECT_FALSE(opportunist.Preempts(kindOnly));
  // Handed over or gone, a plugin is never ready again.
  Plugin::plugins.Remove(&provider);
  Plugin::plugins.Remove(&opportunist);
  EXPECT_EQ(pending(), "101100");
  Plugin::plugins.HandedOver(&user, true);
  EXPECT_EQ(pending(), "111100");
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

TEST(ExceptionText, FormatsLikePrintfAndSurvivesCopies) {
  std::string longText(5000, 'x');
  Exception original("%s: %d [%s]", "Unsupported API version", 6, longText.c_str());
  Exception copy = original;
  EXPECT_STREQ(copy.what(), ("Unsupported API version: 6 [" + longText + "]").c_str());
  EXPECT_NE(copy.what(), original.what());
  try {
    throw Exception("missing '%s'", "metadata");
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "missing 'metadata'");
  }
}

}  // namespace
}  // namespace bootstrand::testing
