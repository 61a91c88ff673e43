#include "platform/boot_record_reader.h"

#include <nlohmann/json.hpp>

namespace bootstrand {

namespace {

using nlohmann::json;

// The accessors throw json exceptions on a wrong type; the caller turns them into
// one problem for the line.
ClockReading MomentOf(const json& moment) {
  return {moment.at("wall_us").get<std::int64_t>(), moment.at("boottime_us").get<std::int64_t>()};
}

std::optional<std::string> OptionalText(const json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  return found->get<std::string>();
}

void ReadStart(const json& line, BootRecordContents& contents) {
  BootRecordContents::Start start;
  start.version = line.at("version").get<std::string>();
  start.bootId = OptionalText(line, "boot_id");
  start.pid = line.at("pid").get<std::int64_t>();
  start.settings.dryRun = line.at("dry_run").get<bool>();
  start.settings.disabled = line.at("disabled").get<std::vector<std::string>>();
  if (const json& limit = line.at("worker_limit"); !limit.is_null()) start.settings.workerLimit = limit.get<std::uint32_t>();
  start.settings.preemptivePluginsDisabled = line.value("preemptive_plugins_disabled", false);
  start.settings.interactive = line.value("interactive", false);
  start.at = MomentOf(line.at("at"));
  contents.start = std::move(start);
}

void ReadPlugin(const json& line, BootRecordContents& contents) {
  RecordedPlugin plugin;
  plugin.index = line.at("index").get<std::size_t>();
  plugin.name = line.at("name").get<std::string>();
  plugin.kind = line.at("kind").get<std::string>();
  plugin.provides = line.at("provides").get<std::vector<std::string>>();
  plugin.requires_ = line.at("requires").get<std::vector<std::string>>();
  plugin.runOnceKey = OptionalText(line, "run_once_key");
  plugin.preemptive = line.value("preemptive", false);
  plugin.disabled = line.value("disabled", false);
  contents.plugins.push_back(std::move(plugin));
}

void ReadOutcome(const json& line, BootRecordContents& contents) {
  RecordedOutcome outcome;
  outcome.index = line.at("index").get<std::size_t>();
  outcome.name = line.at("name").get<std::string>();
  outcome.outcome = line.at("outcome").get<std::string>();
  if (const json& status = line.at("status"); !status.is_null()) outcome.status = status.get<std::int32_t>();
  outcome.passedOver = line.value("passed_over", false);
  if (line.contains("start")) outcome.start = MomentOf(line.at("start"));
  if (line.contains("end")) outcome.end = MomentOf(line.at("end"));
  outcome.preemptedBy = OptionalText(line, "preempted_by");
  contents.outcomes.push_back(std::move(outcome));
}

void ReadEnd(const json& line, BootRecordContents& contents) {
  BootRecordContents::End end;
  end.outcome = line.at("outcome").get<std::string>();
  end.status = line.at("status").get<std::int32_t>();
  end.signal = OptionalText(line, "signal");
  end.at = MomentOf(line.at("at"));
  contents.end = std::move(end);
}

}  // namespace

BootRecordContents ReadBootRecord(std::istream& input, const std::string& file) {
  BootRecordContents contents;
  std::string text;
  for (std::size_t number = 1; std::getline(input, text); ++number) {
    if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
    // getline sets eof only when the last line had no newline: the write was cut off.
    bool cutOff = input.eof();
    std::string where = file + ":" + std::to_string(number) + ": ";
    json line = json::parse(text, nullptr, false);
    if (line.is_discarded() || !line.is_object()) {
      contents.problems.push_back(where + (cutOff ? "the last line is cut off; skipped" : "not a JSON object; skipped"));
      continue;
    }
    try {
      std::string event = line.at("event").get<std::string>();
      if (event == "start") {
        ReadStart(line, contents);
      } else if (event == "plugin") {
        ReadPlugin(line, contents);
      } else if (event == "outcome") {
        ReadOutcome(line, contents);
      } else if (event == "end") {
        ReadEnd(line, contents);
      }
    } catch (const json::exception& error) {
      contents.problems.push_back(where + "a field is missing or of the wrong type (" + error.what() + "); skipped");
    }
  }
  return contents;
}

bool LooksLikeBootRecord(std::istream& input) {
  std::istream::pos_type start = input.tellg();
  char first = 0;
  bool object = static_cast<bool>(input >> first) && first == '{';
  input.clear();
  input.seekg(start);
  return object;
}

}  // namespace bootstrand
