// Validation of JSON plugin files: every message, the order in which faults are
// found, hostile input, version truncation and the version gates.
#include <fstream>

#include "kinds/json_plugin.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

class JsonPluginFile : public PluginTest {
 protected:
  // Writes `text` as /<name> and loads it; returns the plugin, or nullptr with the
  // exception's message in `error`.
  JsonPlugin* Load(const std::string& text, const std::string& name = "net.json") {
    std::ofstream(root_.Path("/" + name)) << text;
    error.clear();
    try {
      Plugin::LoadJsonPlugin("/" + name);
    } catch (const std::exception& thrown) {
      error = thrown.what();
      return nullptr;
    }
    return static_cast<JsonPlugin*>(*std::prev(Plugin::plugins.end()));
  }
  std::string LoadError(const std::string& text) {
    Load(text);
    return error;
  }

  std::string error;
};

// A plugin file with these members of "metadata" and "operations".
std::string File(const std::string& metadata, const std::string& operations = "") {
  return "{\"metadata\":{" + metadata + "},\"operations\":{" + operations + "}}";
}

TEST_F(JsonPluginFile, EachFaultHasItsMessage) {
  const std::string none = R"("provides":[],"requires":[])", meta = none + R"(,"version":1)", start = R"("start":[])";
  const std::string notAnObject = "'value' is not a 'JsonObject'";
  const std::pair<std::string, std::string> cases[] = {
      {"", notAnObject}, {"{", notAnObject}, {"[]", notAnObject},
      {R"({"operations":{}})", "'plugin[\"metadata\"]' is not a 'JsonObject'"},
      {R"({"metadata":{}})", "'plugin[\"operations\"]' is not a 'JsonObject'"},
      {File(R"("requires":[])"), "'meta[\"provides\"]' is not a 'JsonArray'"},
      {File(R"("provides":[1])"), "'i' is not a 'JsonString'"},
      {File(R"("provides":[])"), "'meta[\"requires\"]' is not a 'JsonArray'"},
      {File(none), "'meta[\"version\"]' is not a 'JsonNumber'"},
      {File(none + R"(,"version":"1")"), "'meta[\"version\"]' is not a 'JsonNumber'"},
      {File(none + R"(,"version":6)"), "Unsupported API version: 6"},
      {File(none + R"(,"version":0.5)"), "Unsupported API version: 0"},
      {File(none + R"(,"version":1e300)"), "Unsupported API version: -2147483648"},
      {File(meta), "'ops[\"start\"]' is not a 'JsonArray'"},
      {File(meta, R"("start":["a",2])"), "'i' is not a 'JsonString'"},
      {File(none + R"(,"version":2)", start + R"(,"apply_host_profile":{})"),
       "'ops[\"apply_host_profile\"]' is not a 'JsonArray'"},
      {File(meta + R"(,"plugin_version":1)", start), "'meta[\"plugin_version\"]' is not a 'JsonString'"},
      {File(meta + R"(,"required_flags":"x")", start), "'meta[\"required_flags\"]' is not a 'JsonArray'"},
      {File(meta + R"(,"disabling_flags":[3])", start), "'i' is not a 'JsonString'"},
      {File(meta + R"(,"run_once":"yes")", start), "'meta[\"run_once\"]' is not a 'JsonBool'"},
      {File(none + R"(,"version":3)", start), "'meta[\"run_once\"]' is not a 'JsonBool'"},
      {File(meta + R"(,"preemptive_provider":1)", start), "'meta[\"preemptive_provider\"]' is not a 'JsonBool'"},
      // The first fault in reading order wins: provides before version.
      {File(R"("provides":[7],"requires":[])"), "'i' is not a 'JsonString'"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(LoadError(text), message) << text;
  EXPECT_TRUE(Plugin::plugins.empty());
  try {
    Plugin::LoadJsonPlugin("/does/not/exist.json");
    ADD_FAILURE() << "a missing file loaded";
  } catch (const JsonException& error) {
    EXPECT_EQ(error.what(), notAnObject);
  }
}

TEST_F(JsonPluginFile, HostileFilesAreRejectedWithoutHarm) {
  const std::string head = R"({"metadata":{"provides":["a)";
  const std::string rest = R"("],"requires":[],"version":1,"extra":)";
  const std::string tail = R"(},"operations":{"start":[]}})";
  auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const std::string rejected = "'value' is not a 'JsonObject'";
  EXPECT_EQ(LoadError(head + rest + nested(200000) + tail), rejected);
  EXPECT_EQ(LoadError(R"({"metadata":)" + nested(200000) + tail), rejected);
  EXPECT_EQ(LoadError(head + '\xff' + rest + "0" + tail), rejected);
  EXPECT_EQ(LoadError(head + '\0' + rest + "0" + tail), rejected);
  EXPECT_TRUE(Plugin::plugins.empty());
  // Nesting that a person could have written still loads.
  EXPECT_EQ(LoadError(head + rest + nested(500) + tail), "");
  EXPECT_EQ(Plugin::plugins.size(), 1u);
}

TEST_F(JsonPluginFile, FieldsFollowTheVersionGates) {
  JsonPlugin* v1 = Load(R"({"metadata":{"provides":["net","json plugins"],"requires":["disk"],"version":1.9,
      "unknown":1},"operations":{"start":["a","a"],"apply_host_profile":7}})", "a.b.json");
  ASSERT_NE(v1, nullptr) << error;
  EXPECT_EQ(Describe(*v1), "a.b v1 provides=json plugins,net requires=disk");
  EXPECT_EQ(v1->startOperations, (std::vector<std::string>{"a", "a"}));

  // A non-array list of disabling flags is an empty one.
  JsonPlugin* v2 = Load(R"({"metadata":{"provides":[],"requires":[],"version":2.9,"disabling_flags":"x",
      "plugin_version":""},"operations":{"start":[],"apply_host_profile":[]}})");
  ASSERT_NE(v2, nullptr) << error;
  EXPECT_EQ(Describe(*v2), "net v2 provides=json plugins requires= host_profile no_operations");
  EXPECT_TRUE(v2->applyHostProfileOperations.empty());

  JsonPlugin* v5 = Load(R"({"metadata":{"provides":["dhcp"],"requires":[],"version":5,"run_once":true,
      "plugin_version":"2.1","required_flags":["a","a"],"disabling_flags":["b"],"preemptive_provider":true},
      "operations":{"start":["x"],"apply_host_profile":["y","z"]}})", "v5.json");
  ASSERT_NE(v5, nullptr) << error;
  EXPECT_EQ(Describe(*v5), "v5 v5 provides=dhcp,json plugins requires= version=2.1 run_once required=a "
                           "disabling=b preemptive host_profile");
  EXPECT_EQ(v5->applyHostProfileOperations, (std::vector<std::string>{"y", "z"}));
  EXPECT_EQ(Plugin::plugins.size(), 3u);
}

}  // namespace
}  // namespace bootstrand::testing
