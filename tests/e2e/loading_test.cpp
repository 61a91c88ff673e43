// Plugin discovery through the real binary: what is listed, in which order, and how
// bad files and missing names are reported.
#include <gtest/gtest.h>

#include <unistd.h>

#include <sstream>

#include "support/host_root.h"

namespace bootstrand::testing {
namespace {

const char* const kFirst = "/usr/libexec/bootstrand/plugins/";
const char* const kSecond = "/usr/libexec/bootstrand/plugins2/";

// Plugin names in load order, as the provides query lists them.
std::vector<std::string> LoadOrder(const RunResult& run) {
  std::vector<std::string> names;
  std::istringstream lines(run.out);
  for (std::string line; std::getline(lines, line);) names.push_back(line.substr(0, line.find(':')));
  return names;
}

TEST(Loading, ListsRegularFilesOfBothDirectoriesInByteOrder) {
  HostRoot root;
  root.WritePlugin("b.json", JsonPlugin({"b"}, {}, {}));
  root.WritePlugin("a.json", JsonPlugin({"a"}, {}, {}));
  root.WritePlugin("0.json", JsonPlugin({"zero"}, {}, {}), 2);
  root.WritePlugin(".hidden.json", JsonPlugin({"hidden"}, {}, {}));
  root.WritePlugin("sub.json/inner.json", JsonPlugin({"inner"}, {}, {}));
  ASSERT_EQ(symlink(root.Path(std::string(kFirst) + "a.json").c_str(), root.Path(std::string(kFirst) + "link.json").c_str()),
            0);
  root.WriteFile(std::string(kFirst) + "README", "not a plugin");
  root.WriteFile(std::string(kFirst) + "broken.json", "{ nope");

  RunResult run = RunBootstrand(root, {"--provides"});
  ASSERT_EQ(run.exitStatus, 0);
  EXPECT_EQ(LoadOrder(run), (std::vector<std::string>{"end-autoconf", "a", "b", "0"}));
  EXPECT_EQ(run.err, std::string("Skipping ") + kFirst + "README: unknown type\n" + "Skipping " + kFirst +
                         "broken.json: 'value' is not a 'JsonObject'\n");
  EXPECT_EQ(root.Channel("kernel"),
            (std::vector<std::string>{
                std::string("exception occurred whilst loading plugin ") + kFirst + "README: unknown type",
                std::string("exception occurred whilst loading plugin ") + kFirst +
                    "broken.json: 'value' is not a 'JsonObject'",
            }));
}

TEST(Loading, NamedPluginsAreSearchedInBothDirectoriesWithoutTheBuiltin) {
  HostRoot root;
  root.WritePlugin("a.json", JsonPlugin({"a"}, {}, {}), 2);
  root.WritePlugin("b.json", JsonPlugin({"b"}, {}, {}));
  root.WriteFile("/opt/c.json", JsonPlugin({"c"}, {}, {}).dump());
  RunResult run = RunBootstrand(root, {"--provides", "--plugin", "a.json,/opt/c.json"});
  ASSERT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, "c: c,json plugins\na: a,json plugins\n");  // "/opt" sorts before "/usr"

  RunResult missing = RunBootstrand(root, {"--provides", "--plugin", "b.json,missing.json"});
  EXPECT_EQ(missing.exitStatus, 0);
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(missing.err, "Failed to list plugins: Cannot find plugin 'missing.json'\n");
  EXPECT_EQ(root.Channel("kernel").back(),
            "exception occurred whilst listing plugins: Cannot find plugin 'missing.json'");
}

TEST(Loading, ASeedShufflesTheOrderReproducibly) {
  HostRoot root;
  for (char name = 'a'; name <= 'l'; ++name) root.WritePlugin(std::string(1, name) + ".json", JsonPlugin({}, {}, {}));
  std::vector<std::string> sorted = LoadOrder(RunBootstrand(root, {"--provides", "--randomize=0"}));
  EXPECT_TRUE(root.Channel("kernel").empty());
  std::vector<std::string> one = LoadOrder(RunBootstrand(root, {"--provides", "--randomize", "1"}));
  std::vector<std::string> again = LoadOrder(RunBootstrand(root, {"--provides", "--randomize", "1"}));
  std::vector<std::string> wrapped = LoadOrder(RunBootstrand(root, {"--provides", "--randomize", "2147483647"}));
  std::vector<std::string> two = LoadOrder(RunBootstrand(root, {"--provides", "--randomize", "2"}));
  EXPECT_EQ(one, again);
  EXPECT_EQ(one, wrapped);  // the engine is seeded modulo 2^31-1
  EXPECT_NE(one, sorted);
  EXPECT_NE(one, two);
  EXPECT_EQ(one.front(), "end-autoconf");  // the built-in is created before the shuffle
  EXPECT_EQ(root.Channel("kernel"), (std::vector<std::string>{
                                        "Bootstrand is randomizing iteration order using seed: 1",
                                        "Bootstrand is randomizing iteration order using seed: 1",
                                        "Bootstrand is randomizing iteration order using seed: 2147483647",
                                        "Bootstrand is randomizing iteration order using seed: 2",
                                    }));
}

TEST(Queries, ListTagsAndRequirementsWithoutActivating) {
  HostRoot root;
  root.WritePlugin("net.json", JsonPlugin({"net", "link"}, {"drivers"}, {"x"}));
  root.WritePlugin("drivers.json", JsonPlugin({"drivers"}, {}, {"y"}));
  RunResult run = RunBootstrand(root, {"--tags", "--requires", "drivers"});
  ASSERT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.out, "net: drivers\ndrivers\nlink\nnet\n");
  RunResult nobody = RunBootstrand(root, {"--requires", "nothing"});
  EXPECT_EQ(nobody.out, "");
  RunResult all = RunBootstrand(root, {"--requires"});
  EXPECT_EQ(all.out, "end-autoconf: json plugins,native plugins\ndrivers:\nnet: drivers\n");
  EXPECT_FALSE(root.Exists("/var/log/sysboot.log"));
  EXPECT_TRUE(root.Channel("progress").empty());
}

}  // namespace
}  // namespace bootstrand::testing
