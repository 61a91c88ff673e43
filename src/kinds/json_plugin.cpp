#include "kinds/json_plugin.h"

#include <unistd.h>

#include <cmath>
#include <optional>
#include <iostream>

#include "log/channels.h"
#include "log/process_logging.h"
#include "platform/host_log.h"
#include "platform/file_text.h"
#include "platform/host_path.h"
#include "platform/jsonxx.h"
#include "platform/standard_streams.h"

namespace bootstrand {

namespace {

using jsonxx::value;
using Kind = value::kind;

const char* const kNotA = "'%s' is not a '%s'";

value Require(const value& object, const char* key, Kind kind, const char* subject, const char* typeName) {
  value member = object.get(key);
  if (!member.is(kind)) throw JsonException(kNotA, subject, typeName);
  return member;
}

// Every element must be a string.
std::vector<std::string> Strings(const value& array) {
  std::vector<std::string> strings;
  for (const value& element : array.elements()) {
    if (!element.is(Kind::string)) throw JsonException(kNotA, "i", "JsonString");
    strings.push_back(element.text());
  }
  return strings;
}

std::vector<std::string> StringArray(const value& object, const char* key, const char* subject) {
  return Strings(Require(object, key, Kind::array, subject, "JsonArray"));
}

// Truncates toward zero; anything that does not fit (or is not a number) becomes the
// smallest 32-bit integer.
std::int32_t ApiVersion(double number) {
  if (!(number > -2147483649.0 && number < 2147483648.0)) return INT32_MIN;
  return static_cast<std::int32_t>(std::trunc(number));
}

std::string NameOf(const std::string& path) {
  std::string base = path.substr(path.rfind('/') + 1);
  std::size_t dot = base.rfind('.');
  return dot == std::string::npos ? base : base.substr(0, dot);
}

}  // namespace

void Plugin::LoadJsonPlugin(const std::string& path) { new JsonPlugin(path); }

JsonPlugin::JsonPlugin(const std::string& path) : Plugin(NameOf(path), {"json plugins"}, {}) {
  // A file that cannot be read leaves a root that is not an object, and fails below.
  value root;
  if (std::optional<std::string> text = ReadWholeFile(HostPath(path))) jsonxx::parse(*text, root);
  if (!root.is(Kind::object)) throw JsonException(kNotA, "value", "JsonObject");
  value meta = Require(root, "metadata", Kind::object, "plugin[\"metadata\"]", "JsonObject");
  value ops = Require(root, "operations", Kind::object, "plugin[\"operations\"]", "JsonObject");

  for (std::string& tag : StringArray(meta, "provides", "meta[\"provides\"]")) provides.insert(std::move(tag));
  for (std::string& tag : StringArray(meta, "requires", "meta[\"requires\"]")) requires_.insert(std::move(tag));

  apiVersion = ApiVersion(Require(meta, "version", Kind::number, "meta[\"version\"]", "JsonNumber").number());
  if (apiVersion < 1 || apiVersion > 5) throw VersionException("%s: %d", "Unsupported API version", apiVersion);

  startOperations = StringArray(ops, "start", "ops[\"start\"]");
  hostProfileOperations = false;
  if (apiVersion >= 2 && ops.has("apply_host_profile")) {
    applyHostProfileOperations = StringArray(ops, "apply_host_profile", "ops[\"apply_host_profile\"]");
    hostProfileOperations = true;
  }
  if (meta.has("plugin_version")) {
    pluginVersion = Require(meta, "plugin_version", Kind::string, "meta[\"plugin_version\"]", "JsonString").text();
  }
  if (meta.has("required_flags")) {
    for (std::string& flag : StringArray(meta, "required_flags", "meta[\"required_flags\"]")) {
      requiredFlags.insert(std::move(flag));
    }
  }
  // The container's own type is not checked: a non-array simply has no elements.
  if (meta.has("disabling_flags")) {
    for (std::string& flag : Strings(meta.get("disabling_flags"))) disablingFlags.insert(std::move(flag));
  }
  if (meta.has("run_once") || apiVersion >= 3) {
    runOnce = Require(meta, "run_once", Kind::boolean, "meta[\"run_once\"]", "JsonBool").boolean();
  }
  if (meta.has("preemptive_provider")) {
    preemptive =
        Require(meta, "preemptive_provider", Kind::boolean, "meta[\"preemptive_provider\"]", "JsonBool").boolean();
  }
  if (startOperations.empty()) noOperations = true;
  Register();
}

bool JsonPlugin::Activate(ActivateFlags flags) {
  if (!IsDryRun(flags)) {
    try {
      init_fds("/var/log/bootstrand-cormcli-stdout.log");
    } catch (...) {
      Log_Level(2, "Failed to initialize logging.\n");
    }
  }
  bool hostProfile = ApplyHostProfiles(flags, hostProfileOperations);
  const std::vector<std::string>& operations = hostProfile ? applyHostProfileOperations : startOperations;
  const char* label = hostProfile ? "apply_host_profile" : "start";
  // Dry-run workers share the scheduler's standard output: one write per line.
  if (IsDryRun(flags)) WriteLine(STDOUT_FILENO, name + ": start");
  KernelLog() << "Applying " << label << " on plugin " << name << std::endl;
  if (preemptive && IsPreemptivePluginsDisabled(flags)) {
    KernelLog() << "Plugin " << name << " skipped." << std::endl;
    return false;
  }
  std::vector<CormcliException> failures =
      executor.Execute(operations, IsDryRun(flags), (flags & ActivateFlag::TimeOps) != 0);
  if (failures.empty()) return true;
  for (const CormcliException& failure : failures) {
    Log_Level(2, "Method invocation failed: %s\n", failure.what());
    for (const std::string& line : failure.errors) Log_Level(2, "%s: %s\n", name.c_str(), line.c_str());
  }
  return false;
}

}  // namespace bootstrand
