// The plugin model: registration, the dependency predicates (checked against their
// plain definition on random plugin sets), run-once keys and exceptions.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

#include "plugin/exception.h"
#include "plugin/plugin.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

class PluginModel : public ::testing::Test {
 protected:
  void SetUp() override { Plugin::ResetRegistries(); }
  void TearDown() override { Plugin::ResetRegistries(); }

  TestPlugin& Add(const std::string& name, std::vector<std::string> provides, std::vector<std::string> requires_,
                  bool preemptive = false, bool runOnce = false, const std::string& version = "") {
    owned_.push_back(std::make_unique<TestPlugin>(name, provides, requires_));
    TestPlugin& plugin = *owned_.back();
    plugin.preemptive = preemptive;
    plugin.runOnce = runOnce;
    plugin.pluginVersion = version;
    plugin.Register();
    return plugin;
  }

  ScopedRoot root_;
  std::vector<std::unique_ptr<TestPlugin>> owned_;
};

TEST_F(PluginModel, DisabledNamesAndTagsMarkPluginsSkippedButKeepThemListed) {
  Plugin::DisablePlugins({"b", "json plugins", "storage"});
  TestPlugin& a = Add("a", {"net"}, {});
  TestPlugin& b = Add("b", {"net2"}, {});
  TestPlugin& json = Add("j", {"json plugins"}, {});
  TestPlugin& storage = Add("s", {"storage"}, {});
  EXPECT_FALSE(a.skip);
  EXPECT_TRUE(b.skip);
  EXPECT_TRUE(json.skip);
  EXPECT_TRUE(storage.skip);
  EXPECT_EQ(Plugin::plugins.size(), 4u);
  EXPECT_EQ(Plugin::providers.at("storage"), std::vector<Plugin*>{&storage});
  EXPECT_EQ(Plugin::providers.count("json plugins"), 0u);
}

TEST_F(PluginModel, PendingFollowsListedProvidersAndPreemptiveHolders) {
  TestPlugin& provider = Add("provider", {"net"}, {});
  TestPlugin& user = Add("user", {"app"}, {"net", "nobody-provides-this"});
  TestPlugin& selfish = Add("selfish", {"loop"}, {"loop"});
  TestPlugin& opportunist = Add("opportunist", {"dhcp", "native plugins"}, {}, true);
  TestPlugin& rival = Add("rival", {"dhcp"}, {});
  TestPlugin& kindOnly = Add("kind-only", {"native plugins"}, {});

  EXPECT_FALSE(Plugin::Pending(TagSet{}));
  EXPECT_FALSE(provider.Pending());
  EXPECT_TRUE(user.Pending());
  EXPECT_TRUE(selfish.Pending());
  EXPECT_FALSE(opportunist.Pending());  // never held back by itself
  EXPECT_TRUE(rival.Pending());
  EXPECT_FALSE(kindOnly.Pending());  // sharing only a kind tag preempts nobody
  EXPECT_TRUE(opportunist.Preempts(rival));
  EXPECT_FALSE(opportunist.Preempts(opportunist));
  EXPECT_FALSE(opportunist.Preempts(kindOnly));

  Plugin::plugins.Remove(&provider);
  Plugin::plugins.Remove(&opportunist);
  EXPECT_FALSE(user.Pending());
  EXPECT_FALSE(rival.Pending());
  // Handed over or gone, a plugin is never ready again.
  Plugin::plugins.HandedOver(&user, true);
  EXPECT_TRUE(user.Pending());
  EXPECT_TRUE(provider.Pending());
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
      all.push_back(&Add("p" + std::to_string(i), provides, requires_, random() % 4 == 0));
      all.back()->noOperations = random() % 5 == 0;
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

TEST_F(PluginModel, RunOnceKeysAreRecordedAndDisabledKeysSkip) {
  Plugin::DisablePlugins({"b"});
  TestPlugin& a = Add("a", {"x"}, {}, false, true, "1.0");
  TestPlugin& b = Add("b", {"y"}, {}, false, true);
  Add("c", {"z"}, {});
  EXPECT_FALSE(a.skip);
  EXPECT_TRUE(b.skip);
}

TEST_F(PluginModel, InteractiveReturnsTheInteractiveBitWhateverTheTags) {
  EXPECT_EQ(Plugin::Interactive({}), ActivateFlag::Interactive);
  EXPECT_TRUE(Plugin::interactiveTags.empty());
  EXPECT_EQ(Plugin::Interactive({"usb", "net"}), 0x02u);
  EXPECT_EQ(Plugin::interactiveTags, (TagSet{"usb", "net"}));
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
