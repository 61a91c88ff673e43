// The linter's report as text for people and as JSON.
#include <string>

#include "lint.h"

namespace bootstrand::lint {

namespace {

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::string Counted(std::size_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

// How many plugins a line names before it only counts the rest, so that a line stays
// readable when a long cycle holds back thousands of plugins.
constexpr std::size_t kShown = 20;

std::string Abridged(const std::vector<std::string>& names) {
  if (names.size() <= kShown) return Joined(names);
  return Joined({names.begin(), names.begin() + kShown}) + " and " + std::to_string(names.size() - kShown) + " more";
}

std::string CycleText(const Finding& finding) {
  std::string path;
  std::string reasons;
  for (std::size_t index = 0; index < finding.cycle.size() && index < kShown; ++index) {
    const CycleStep& step = finding.cycle[index];
    path += step.plugin + " -> ";
    reasons += reasons.empty() ? "" : "; ";
    if (step.heldBack) {
      reasons += step.plugin + " is held back by " + step.waitsFor + ", a preemptive provider of " + Quoted(step.tag);
    } else {
      reasons += step.plugin + " requires " + Quoted(step.tag) + " from " + step.waitsFor;
    }
  }
  if (finding.cycle.size() > kShown) {
    path += "(" + std::to_string(finding.cycle.size() - kShown) + " more) -> ";
    reasons += "; ...";
  }
  if (!finding.cycle.empty()) path += finding.cycle.front().plugin;
  std::string text = "dependency cycle " + path + " (" + reasons + ")";
  if (finding.plugins.size() > finding.cycle.size()) {
    text += "; plugins on entangled cycles: " + Abridged(finding.plugins);
  }
  return text;
}

std::string DisabledText(const Finding& finding) {
  std::string text = "plugin " + finding.plugin + " would be disabled by --disable";
  std::string separator = " ";
  for (const DisableMatch& match : finding.disabledBy) {
    std::string what = match.as == "name" ? "its name" : match.as == "tag" ? "a tag it provides" : "its run-once key";
    text += separator + Quoted(match.entry) + " (" + what + ")";
    separator = ", ";
  }
  return text;
}

std::string FindingText(const Finding& finding) {
  switch (finding.kind) {
    case FindingKind::Cycle:
      return CycleText(finding);
    case FindingKind::SelfRequirement: {
      std::vector<std::string> tags;
      for (const std::string& tag : finding.tags) tags.push_back(Quoted(tag));
      return "plugin " + finding.plugin + " requires " + Joined(tags) + ", which it provides itself";
    }
    case FindingKind::PreemptiveConflict:
      return "preemptive providers " + Joined(finding.plugins) + " share the tag " + Quoted(finding.tag) +
             " and hold each other back";
    case FindingKind::Blocked:
      return Counted(finding.plugins.size(), "plugin") +
             " would never start, waiting on the above: " + Abridged(finding.plugins);
    case FindingKind::UnprovidedTag:
      return "tag " + Quoted(finding.tag) + " is required by " + Joined(finding.plugins) + " but no plugin provides it";
    case FindingKind::SharedTag:
      return "tag " + Quoted(finding.tag) + " is provided by " + Joined(finding.plugins) + ", none of them preemptive";
    case FindingKind::RunOnceWithoutVersion:
      return "run-once plugin " + finding.plugin + " has no plugin version, so its run-once key is its name alone";
    case FindingKind::Disabled:
      return DisabledText(finding);
    case FindingKind::UnmatchedDisable:
      return "--disable " + Quoted(finding.tag) + " matches no plugin name, provided tag or run-once key";
    case FindingKind::RunOnceKeyCollision:
      return "run-once key " + Quoted(finding.tag) + " of plugin " + finding.plugin + " is also the name or a tag of " +
             Joined(finding.plugins) + ", which --disable would turn off with it; give " + finding.plugin +
             " a plugin version";
  }
  return "";
}

const char* KindName(FindingKind kind) {
  switch (kind) {
    case FindingKind::Cycle:
      return "cycle";
    case FindingKind::SelfRequirement:
      return "self_requirement";
    case FindingKind::PreemptiveConflict:
      return "preemptive_conflict";
    case FindingKind::Blocked:
      return "blocked";
    case FindingKind::UnprovidedTag:
      return "unprovided_tag";
    case FindingKind::SharedTag:
      return "shared_tag";
    case FindingKind::RunOnceWithoutVersion:
      return "run_once_without_version";
    case FindingKind::Disabled:
      return "disabled";
    case FindingKind::UnmatchedDisable:
      return "unmatched_disable";
    case FindingKind::RunOnceKeyCollision:
      return "run_once_key_collision";
  }
  return "";
}

nlohmann::json FindingJson(const Finding& finding) {
  nlohmann::json json = {{"kind", KindName(finding.kind)}};
  switch (finding.kind) {
    case FindingKind::Cycle:
      json["plugins"] = finding.plugins;
      json["cycle"] = nlohmann::json::array();
      for (const CycleStep& step : finding.cycle) {
        json["cycle"].push_back(
            {{"plugin", step.plugin}, {"waits_for", step.waitsFor}, {"tag", step.tag}, {"held_back", step.heldBack}});
      }
      break;
    case FindingKind::SelfRequirement:
      json["plugin"] = finding.plugin;
      json["tags"] = finding.tags;
      break;
    case FindingKind::PreemptiveConflict:
    case FindingKind::UnprovidedTag:
    case FindingKind::SharedTag:
      json["tag"] = finding.tag;
      json["plugins"] = finding.plugins;
      break;
    case FindingKind::Blocked:
      json["plugins"] = finding.plugins;
      break;
    case FindingKind::RunOnceWithoutVersion:
      json["plugin"] = finding.plugin;
      break;
    case FindingKind::Disabled:
      json["plugin"] = finding.plugin;
      json["by"] = nlohmann::json::array();
      for (const DisableMatch& match : finding.disabledBy)
        json["by"].push_back({{"entry", match.entry}, {"as", match.as}});
      break;
    case FindingKind::UnmatchedDisable:
      json["entry"] = finding.tag;
      break;
    case FindingKind::RunOnceKeyCollision:
      json["plugin"] = finding.plugin;
      json["key"] = finding.tag;
      json["plugins"] = finding.plugins;
      break;
  }
  return json;
}

}  // namespace

void WriteReportText(const LintReport& report, std::ostream& stream) {
  for (const SkippedFile& skipped : report.skippedFiles) stream << skipped.message << '\n';
  for (const Finding& stop : report.stops) stream << "stop: " << FindingText(stop) << '\n';
  for (const Finding& error : report.errors) stream << "error: " << FindingText(error) << '\n';
  for (const Finding& warning : report.warnings) stream << "warning: " << FindingText(warning) << '\n';
  for (const TrustFinding& finding : report.trust) {
    stream << "untrusted: " << finding.path << " (owner " << finding.owner << ", mode " << finding.mode
           << "): " << finding.reason << '\n';
  }

  std::string limit = report.workers == 0 ? "no worker limit" : "at most " + Counted(report.workers, "worker");
  if (report.prediction) {
    stream << "predicted boot, " << limit
           << (report.prediction->fromRecord ? ", from the boot record " : ", from the timing log ")
           << report.prediction->timingLog << ":\n";
    WritePredictionText(*report.prediction, stream);
  } else {
    stream << "activation order, " << limit << ":\n";
  }
  std::size_t nextPreemption = 0;
  for (std::size_t index = 0; index < report.waves.size(); ++index) {
    const Wave& wave = report.waves[index];
    stream << "  wave " << index + 1 << ": " << Joined(wave.run);
    if (!wave.passedOver.empty()) {
      stream << (wave.run.empty() ? "" : "; ") << "passed over: " << Joined(wave.passedOver);
    }
    stream << '\n';
    for (; nextPreemption < report.preempted.size() && report.preempted[nextPreemption].wave == index + 1;
         ++nextPreemption) {
      const Preemption& preemption = report.preempted[nextPreemption];
      stream << "    " << preemption.plugin << " preempted by " << preemption.by << '\n';
    }
  }

  stream << Counted(report.pluginCount, "plugin");
  if (!report.skippedFiles.empty()) stream << ", " << Counted(report.skippedFiles.size(), "skipped file");
  stream << ", " << Counted(report.stops.size(), "stop");
  if (!report.errors.empty()) stream << ", " << Counted(report.errors.size(), "error");
  stream << ", " << Counted(report.warnings.size(), "warning");
  if (!report.trust.empty()) stream << ", " << Counted(report.trust.size(), "untrusted path");
  stream << ": " << (report.BootCompletes() ? "boot would complete in " : "boot would stop after ");
  if (report.prediction) {
    stream << analyze::FormatDuration(report.prediction->activation);
    if (report.prediction->lastActivation) {
      stream << " (the last boot: " << analyze::FormatDuration(*report.prediction->lastActivation) << ")";
    }
  } else {
    stream << Counted(report.waves.size(), "wave");
  }
  stream << '\n';
  stream.flush();
}

nlohmann::json ReportJson(const LintReport& report) {
  nlohmann::json json = {
      {"boot_completes", report.BootCompletes()},
      {"plugins", report.pluginCount},
      {"workers", report.workers == 0 ? nlohmann::json(nullptr) : nlohmann::json(report.workers)},
      {"skipped_files", nlohmann::json::array()},
      {"stops", nlohmann::json::array()},
      {"errors", nlohmann::json::array()},
      {"warnings", nlohmann::json::array()},
      {"trust", nlohmann::json::array()},
      {"waves", nlohmann::json::array()},
      {"preempted", nlohmann::json::array()},
  };
  for (const SkippedFile& skipped : report.skippedFiles) {
    json["skipped_files"].push_back({{"path", skipped.path}, {"reason", skipped.reason}, {"message", skipped.message}});
  }
  for (const Finding& stop : report.stops) json["stops"].push_back(FindingJson(stop));
  for (const Finding& error : report.errors) json["errors"].push_back(FindingJson(error));
  for (const Finding& warning : report.warnings) json["warnings"].push_back(FindingJson(warning));
  for (const TrustFinding& finding : report.trust) {
    json["trust"].push_back(
        {{"path", finding.path}, {"owner", finding.owner}, {"mode", finding.mode}, {"reason", finding.reason}});
  }
  for (const Wave& wave : report.waves) json["waves"].push_back({{"run", wave.run}, {"passed_over", wave.passedOver}});
  for (const Preemption& preemption : report.preempted) {
    json["preempted"].push_back({{"plugin", preemption.plugin}, {"by", preemption.by}, {"wave", preemption.wave}});
  }
  if (report.prediction) {
    for (const char* instead : {"trust", "waves", "preempted"}) json.erase(instead);
    json.update(PredictionJson(*report.prediction));
  }
  return json;
}

}  // namespace bootstrand::lint
