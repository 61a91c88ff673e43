// Validation of JSON plugin files: every message, the order in which faults are
// found, hostile input, version truncation and the version gates.
#include <fstream>

#include "kinds/json_plugin.h"
#include "support/test_plugin.h"

namespace bootstrand::testing {
namespace {

class JsonPluginFile : public PluginTest {
 protected:
  // Writes `text` as /<name> and loads it. Returns the exception's message, or the
  // plugin's fields as Describe has them followed by " start=…" and, when set,
  // " apply=…" (the operations, joined by commas).
  std::string Load(const std::string& text, const std::string& name = "net.json") {
    std::ofstream(root_.Path("/" + name)) << text;
    try {
      Plugin::LoadJsonPlugin("/" + name);
    } catch (const std::exception& thrown) {
      return thrown.what();
    }
    const auto& plugin = static_cast<const bootstrand::JsonPlugin&>(**std::prev(Plugin::plugins.end()));
    return Describe(plugin) + " start=" + Joined(plugin.startOperations) +
           (plugin.hostProfileOperations ? " apply=" + Joined(plugin.applyHostProfileOperations) : "");
  }
};

// A plugin file with these members of "metadata" and "operations".
std::string File(const std::string& metadata, const std::string& operations = "") {
  return "{\"metadata\":{" + metadata + "},\"operations\":{" + operations + "}}";
}

TEST_F(JsonPluginFile, EachFaultHasItsMessage) {
  const std::string none = R"("provides":[],"requires":[])", meta = none + R"(,"version":1)", start = R"("start":[])";
  const std::string notAnObject = "'value' is not a 'JsonObject'";
  const std::pair<std::string, std::string> cases[] = {
      {"{", notAnObject}, {"[]", notAnObject},
      {R"({"operations":{}})", "'plugin[\"metadata\"]' is not a 'JsonObject'"},
      {R"({"metadata":{}})", "'plugin[\"operations\"]' is not a 'JsonObject'"},
      {File(R"("requires":[])"), "'meta[\"provides\"]' is not a 'JsonArray'"},
      {File(R"("provides":[1])"), "'i' is not a 'JsonString'"},  // the first fault in reading order wins
      {File(R"("provides":[])"), "'meta[\"requires\"]' is not a 'JsonArray'"},
      {File(none + R"(,"version":"1")"), "'meta[\"version\"]' is not a 'JsonNumber'"},
      {File(none + R"(,"version":6)"), "Unsupported API version: 6"},
      {File(none + R"(,"version":0.5)"), "Unsupported API version: 0"},
      {File(none + R"(,"version":1e300)"), "Unsupported API version: -2147483648"},
      {File(meta), "'ops[\"start\"]' is not a 'JsonArray'"},
      {File(none + R"(,"version":2)", start + R"(,"apply_host_profile":{})"),
       "'ops[\"apply_host_profile\"]' is not a 'JsonArray'"},
      {File(meta + R"(,"plugin_version":1)", start), "'meta[\"plugin_version\"]' is not a 'JsonString'"},
      {File(meta + R"(,"required_flags":"x")", start), "'meta[\"required_flags\"]' is not a 'JsonArray'"},
      {File(meta + R"(,"disabling_flags":[3])", start), "'i' is not a 'JsonString'"},
      {File(meta + R"(,"run_once":"yes")", start), "'meta[\"run_once\"]' is not a 'JsonBool'"},
      {File(none + R"(,"version":3)", start), "'meta[\"run_once\"]' is not a 'JsonBool'"},  // required from 3 on
      {File(meta + R"(,"preemptive_provider":1)", start), "'meta[\"preemptive_provider\"]' is not a 'JsonBool'"},
  };
  for (const auto& [text, message] : cases) EXPECT_EQ(Load(text), message) << text;
  EXPECT_THROW(Plugin::LoadJsonPlugin("/does/not/exist.json"), JsonException);
  EXPECT_TRUE(Plugin::plugins.empty());
}

TEST_F(JsonPluginFile, HostileFilesAreRejectedWithoutHarm) {
  const std::string head = R"({"metadata":{"provides":["a)";
  const std::string rest = R"("],"requires":[],"version":1,"extra":)";
  const std::string tail = R"(},"operations":{"start":[]}})";
  auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const std::string rejected = "'value' is not a 'JsonObject'";
  EXPECT_EQ(Load(head + rest + nested(200000) + tail), rejected);
  EXPECT_EQ(Load(R"({"metadata":)" + nested(200000) + tail), rejected);
  EXPECT_EQ(Load(head + '\xff' + rest + "0" + tail), rejected);
  EXPECT_EQ(Load(head + '\0' + rest + "0" + tail), rejected);
  EXPECT_TRUE(Plugin::plugins.empty());
  // Nesting that a person could have written still loads.
  EXPECT_EQ(Load(head + rest + nested(500) + tail), "net v1 provides=a,json plugins requires= no_operations start=");
}

TEST_F(JsonPluginFile, FieldsFollowTheVersionGates) {
  EXPECT_EQ(Load(R"({"metadata":{"provides":["net","json plugins"],"requires":["disk"],"version":1.9,
      "unknown":1},"operations":{"start":["a","a"],"apply_host_profile":7}})", "a.b.json"),
            "a.b v1 provides=json plugins,net requires=disk start=a,a");
  // A non-array list of disabling flags is an empty one.
  EXPECT_EQ(Load(R"({"metadata":{"provides":[],"requires":[],"version":2.9,"disabling_flags":"x",
      "plugin_version":""},"operations":{"start":[],"apply_host_profile":[]}})"),
            "net v2 provides=json plugins requires= host_profile no_operations start= apply=");
  EXPECT_EQ(Load(R"({"metadata":{"provides":["dhcp"],"requires":[],"version":5,"run_once":true,
      "plugin_version":"2.1","required_flags":["a","a"],"disabling_flags":["b"],"preemptive_provider":true},
      "operations":{"start":["x"],"apply_host_profile":["y","z"]}})", "v5.json"),
            "v5 v5 provides=dhcp,json plugins requires= version=2.1 run_once required=a disabling=b preemptive "
            "host_profile start=x apply=y,z");
  EXPECT_EQ(Plugin::plugins.size(), 3u);
}

}  // namespace
}  // namespace bootstrand::testing
