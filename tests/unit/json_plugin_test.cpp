// Validation of JSON plugin files: every message, the order in which faults are
// found, version truncation and the version gates.
#include <gtest/gtest.h>

#include <fstream>

#include "kinds/json_plugin.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

class JsonPluginFile : public ::testing::Test {
 protected:
  void SetUp() override { Plugin::ResetRegistries(); }
  void TearDown() override { Plugin::ResetRegistries(); }

  // Writes `text` as <root>/plugins/<name> and returns its host path.
  std::string Write(const std::string& text, const std::string& name = "net.json") {
    std::string hostPath = "/" + name;
    std::ofstream(root_.Path(hostPath)) << text;
    return hostPath;
  }

  // The message of the exception the file raises, or "" when it loads.
  std::string LoadError(const std::string& text) {
    try {
      Plugin::LoadJsonPlugin(Write(text));
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  }

  JsonPlugin& Load(const std::string& text, const std::string& name = "net.json") {
    Plugin::LoadJsonPlugin(Write(text, name));
    return static_cast<JsonPlugin&>(**std::prev(Plugin::plugins.end()));
  }

  ScopedRoot root_;
};

TEST_F(JsonPluginFile, EachFaultHasItsMessage) {
  const std::string meta = R"("provides":[],"requires":[],"version":1)";
  const std::pair<std::string, std::string> cases[] = {
      {"", "'value' is not a 'JsonObject'"},
      {"{", "'value' is not a 'JsonObject'"},
      {"[]", "'value' is not a 'JsonObject'"},
      {R"({"operations":{}})", "'plugin[\"metadata\"]' is not a 'JsonObject'"},
      {R"({"metadata":{}})", "'plugin[\"operations\"]' is not a 'JsonObject'"},
      {R"({"metadata":{"requires":[]},"operations":{}})", "'meta[\"provides\"]' is not a 'JsonArray'"},
      {R"({"metadata":{"provides":[1]},"operations":{}})", "'i' is not a 'JsonString'"},
      {R"({"metadata":{"provides":[]},"operations":{}})", "'meta[\"requires\"]' is not a 'JsonArray'"},
      {R"({"metadata":{"provides":[],"requires":[]},"operations":{}})", "'meta[\"version\"]' is not a 'JsonNumber'"},
      {R"({"metadata":{"provides":[],"requires":[],"version":"1"},"operations":{}})",
       "'meta[\"version\"]' is not a 'JsonNumber'"},
      {R"({"metadata":{"provides":[],"requires":[],"version":6},"operations":{}})", "Unsupported API version: 6"},
      {R"({"metadata":{"provides":[],"requires":[],"version":0.5},"operations":{}})", "Unsupported API version: 0"},
      {R"({"metadata":{"provides":[],"requires":[],"version":1e300},"operations":{}})",
       "Unsupported API version: -2147483648"},
      {"{\"metadata\":{" + meta + "},\"operations\":{}}", "'ops[\"start\"]' is not a 'JsonArray'"},
      {"{\"metadata\":{" + meta + "},\"operations\":{\"start\":[\"a\",2]}}", "'i' is not a 'JsonString'"},
      {R"({"metadata":{"provides":[],"requires":[],"version":2},"operations":{"start":[],"apply_host_profile":{}}})",
       "'ops[\"apply_host_profile\"]' is not a 'JsonArray'"},
      {"{\"metadata\":{" + meta + ",\"plugin_version\":1},\"operations\":{\"start\":[]}}",
       "'meta[\"plugin_version\"]' is not a 'JsonString'"},
      {"{\"metadata\":{" + meta + ",\"required_flags\":\"x\"},\"operations\":{\"start\":[]}}",
       "'meta[\"required_flags\"]' is not a 'JsonArray'"},
      {"{\"metadata\":{" + meta + ",\"disabling_flags\":[3]},\"operations\":{\"start\":[]}}",
       "'i' is not a 'JsonString'"},
      {"{\"metadata\":{" + meta + ",\"run_once\":\"yes\"},\"operations\":{\"start\":[]}}",
       "'meta[\"run_once\"]' is not a 'JsonBool'"},
      {R"({"metadata":{"provides":[],"requires":[],"version":3},"operations":{"start":[]}})",
       "'meta[\"run_once\"]' is not a 'JsonBool'"},
      {"{\"metadata\":{" + meta + ",\"preemptive_provider\":1},\"operations\":{\"start\":[]}}",
       "'meta[\"preemptive_provider\"]' is not a 'JsonBool'"},
      // The first fault in reading order wins: provides before version.
      {R"({"metadata":{"provides":[7],"requires":[]},"operations":{}})", "'i' is not a 'JsonString'"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(LoadError(text), message) << text;
    EXPECT_TRUE(Plugin::plugins.empty()) << text;
  }
  EXPECT_EQ(LoadError("ignored"), "'value' is not a 'JsonObject'");
  try {
    Plugin::LoadJsonPlugin("/does/not/exist.json");
    FAIL();
  } catch (const JsonException& error) {
    EXPECT_STREQ(error.what(), "'value' is not a 'JsonObject'");
  }
}

TEST_F(JsonPluginFile, HostileFilesAreRejectedWithoutHarm) {
  const std::string head = R"({"metadata":{"provides":["a"],"requires":[],"version":1,"extra":)";
  const std::string tail = R"(},"operations":{"start":[]}})";
  auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const std::string rejected = "'value' is not a 'JsonObject'";
  EXPECT_EQ(LoadError(head + nested(200000) + tail), rejected);
  EXPECT_EQ(LoadError(R"({"metadata":)" + nested(200000) + tail), rejected);
  EXPECT_EQ(LoadError(std::string(R"({"metadata":{"provides":["a)") + '\xff' + R"("],"requires":[],"version":1)" +
                      tail),
            rejected);
  EXPECT_EQ(LoadError(std::string(R"({"metadata":{"provides":["a)") + '\0' + R"("],"requires":[],"version":1)" +
                      tail),
            rejected);
  EXPECT_TRUE(Plugin::plugins.empty());
  // Nesting that a person could have written still loads.
  EXPECT_EQ(LoadError(head + nested(500) + tail), "");
  EXPECT_EQ(Plugin::plugins.size(), 1u);
}

TEST_F(JsonPluginFile, FieldsFollowTheVersionGates) {
  JsonPlugin& v1 = Load(R"({"metadata":{"provides":["net","json plugins"],"requires":["disk"],"version":1.9,
      "unknown":1},"operations":{"start":["a","a"],"apply_host_profile":7}})",
                        "a.b.json");
  EXPECT_EQ(v1.name, "a.b");
  EXPECT_EQ(v1.apiVersion, 1);
  EXPECT_EQ(v1.provides, (TagSet{"net", "json plugins"}));
  EXPECT_EQ(v1.requires_, TagSet{"disk"});
  EXPECT_EQ(v1.startOperations, (std::vector<std::string>{"a", "a"}));
  EXPECT_FALSE(v1.hostProfileOperations);
  EXPECT_FALSE(v1.noOperations);

  JsonPlugin& v2 = Load(R"({"metadata":{"provides":[],"requires":[],"version":2.9,"disabling_flags":"x",
      "plugin_version":""},"operations":{"start":[],"apply_host_profile":[]}})");
  EXPECT_EQ(v2.apiVersion, 2);
  EXPECT_TRUE(v2.hostProfileOperations);
  EXPECT_TRUE(v2.applyHostProfileOperations.empty());
  EXPECT_TRUE(v2.noOperations);
  EXPECT_FALSE(v2.runOnce);
  EXPECT_TRUE(v2.disablingFlags.empty());
  EXPECT_EQ(v2.provides, TagSet{"json plugins"});

  JsonPlugin& v5 = Load(R"({"metadata":{"provides":["dhcp"],"requires":[],"version":5,"run_once":true,
      "plugin_version":"2.1","required_flags":["a","a"],"disabling_flags":["b"],"preemptive_provider":true},
      "operations":{"start":["x"],"apply_host_profile":["y","z"]}})");
  EXPECT_TRUE(v5.runOnce);
  EXPECT_TRUE(v5.preemptive);
  EXPECT_EQ(v5.pluginVersion, "2.1");
  EXPECT_EQ(v5.requiredFlags, TagSet{"a"});
  EXPECT_EQ(v5.disablingFlags, TagSet{"b"});
  EXPECT_EQ(v5.applyHostProfileOperations, (std::vector<std::string>{"y", "z"}));
  EXPECT_EQ(Plugin::plugins.size(), 3u);
}

}  // namespace
}  // namespace bootstrand::testing
