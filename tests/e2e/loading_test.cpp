// Plugin discovery through the real binary: what is listed, in which order, and how
// bad files and missing names are reported.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

const std::string kFirst = "/usr/libexec/bootstrand/plugins/";

// Plugin names in load order, as the provides query lists them.
Lines LoadOrder(const RunResult& run) {
  Lines names;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) names.push_back(line.substr(0, line.find(':')));
  return names;
}

TEST(Loading, ListsRegularFilesOfBothDirectoriesInByteOrderAndFindsNamedOnes) {
  HostRoot root;
  root.WritePlugins({{"b", {"b"}, {}}, {"a", {"a"}, {}}, {".hidden", {"hidden"}, {}}, {"sub.json/inner", {"in"}, {}}});
  root.WritePlugins({{"0", {"zero"}, {}}}, 2);
  ASSERT_EQ(symlink(root.Path(kFirst + "a.json").c_str(), root.Path(kFirst + "link.json").c_str()), 0);
  root.WriteFile(kFirst + "README", "not a plugin");
  root.WriteFile(kFirst + "broken.json", "{ nope");

  RunResult run = RunBootstrand(root, {"--provides"});
  ASSERT_EQ(run.exitStatus, 0);
  EXPECT_EQ(LoadOrder(run), (Lines{"end-autoconf", "a", "b", "0"}));
  EXPECT_EQ(run.err, "Skipping " + kFirst + "README: unknown type\nSkipping " + kFirst +
                         "broken.json: 'value' is not a 'JsonObject'\n");
  const std::string exception = "exception occurred whilst loading plugin " + kFirst;
  EXPECT_EQ(root.Channel("kernel"),
            (Lines{exception + "README: unknown type", exception + "broken.json: 'value' is not a 'JsonObject'"}));

  // Named plugins are searched in both directories, without the built-in plugin.
  root.WriteFile("/opt/c.json", JsonPlugin({"c"}, {}, {}).dump());
  run = RunBootstrand(root, {"--provides", "--plugin", "0.json,/opt/c.json"});
  EXPECT_EQ(run.out, "c: c,json plugins\n0: json plugins,zero\n");  // "/opt" sorts before "/usr"
  run = RunBootstrand(root, {"--provides", "--plugin", "b.json,missing.json"});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "Failed to list plugins: Cannot find plugin 'missing.json'\n");
  EXPECT_EQ(root.Channel("kernel").back(),
            "exception occurred whilst listing plugins: Cannot find plugin 'missing.json'");
}

// The engine is seeded modulo 2^31-1; the built-in plugin is created before the shuffle.
TEST(Loading, ASeedShufflesTheOrderReproducibly) {
  HostRoot root;
  for (char name = 'a'; name <= 'l'; ++name) root.WritePlugin(std::string(1, name) + ".json", JsonPlugin({}, {}, {}));
  std::map<std::string, Lines> orders;
  for (const char* seed : {"0", "1", "2147483647", "2"}) {
    orders[seed] = LoadOrder(RunBootstrand(root, {"--provides", "--randomize", seed}));
  }
  EXPECT_EQ(orders["1"], orders["2147483647"]);
  EXPECT_NE(orders["1"], orders["0"]);
  EXPECT_NE(orders["1"], orders["2"]);
  EXPECT_TRUE(std::is_sorted(orders["0"].begin() + 1, orders["0"].end()));  // 0: no shuffle
  EXPECT_EQ(orders["1"].front(), "end-autoconf");
  EXPECT_EQ(root.Channel("kernel"), (Lines{"Bootstrand is randomizing iteration order using seed: 1",
                                            "Bootstrand is randomizing iteration order using seed: 2147483647",
                                            "Bootstrand is randomizing iteration order using seed: 2"}));
}

}  // namespace
}  // namespace bootstrand::testing
