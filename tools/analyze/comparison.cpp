#include "analyze/comparison.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <unordered_map>
#include <unordered_set>

namespace bootstrand::analyze {

namespace {

constexpr std::size_t kNamesListed = 10;

// Reads "digits[.digits]" from the front of `text` as a number with `decimals`
// decimal places, scaled to an integer; more decimals than that, or more than
// `maxDigits` digits before the point, do not fit.
std::optional<std::int64_t> TakeDecimal(std::string_view& text, int decimals, std::size_t maxDigits) {
  std::size_t digits = 0;
  std::int64_t value = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
    value = value * 10 + (text[digits] - '0');
    if (++digits > maxDigits) return std::nullopt;
  }
  if (digits == 0) return std::nullopt;
  text.remove_prefix(digits);
  int fraction = 0;
  if (!text.empty() && text.front() == '.') {
    text.remove_prefix(1);
    for (; !text.empty() && text.front() >= '0' && text.front() <= '9'; ++fraction) {
      if (fraction == decimals) return std::nullopt;
      value = value * 10 + (text.front() - '0');
      text.remove_prefix(1);
    }
    if (fraction == 0) return std::nullopt;
  }
  for (; fraction < decimals; ++fraction) value *= 10;
  return value;
}

// The time of every name in the order the names first appear; plugins that share a
// name add up. A sum past the range stays at its end.
std::vector<std::pair<std::string, Microseconds>> TimesByName(const Analysis& analysis) {
  std::vector<std::pair<std::string, Microseconds>> times;
  std::unordered_map<std::string, std::size_t> index;
  for (const TimedPlugin& plugin : analysis.timing.plugins) {
    auto [at, isNew] = index.try_emplace(plugin.name, times.size());
    if (isNew) times.emplace_back(plugin.name, 0);
    Microseconds& sum = times[at->second].second;
    if (__builtin_add_overflow(sum, plugin.end - plugin.start, &sum)) sum = std::numeric_limits<Microseconds>::max();
  }
  return times;
}

BootTotals Totals(const Analysis& analysis) {
  BootTotals totals;
  totals.kernelTime = analysis.timing.kernelTime;
  totals.hasSummary = analysis.activation.has_value();
  totals.activation = analysis.activation.value_or(analysis.finish - analysis.origin);
  totals.activationUnknown = analysis.activationUnknown;
  totals.clockSteps = analysis.clockSteps;
  return totals;
}

std::optional<std::vector<std::string>> ChainNames(const Analysis& analysis) {
  if (!analysis.chain) return std::nullopt;
  std::vector<std::string> names;
  for (std::size_t index : *analysis.chain) names.push_back(analysis.timing.plugins[index].name);
  return names;
}

std::string Percent(std::int64_t basisPoints) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld.%02lld", static_cast<long long>(basisPoints / 100),
                static_cast<long long>(basisPoints % 100));
  std::string percent = text;
  while (percent.back() == '0') percent.pop_back();
  if (percent.back() == '.') percent.pop_back();
  return percent + " %";
}

std::string Joined(const std::vector<std::string>& names, const char* separator) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : separator) + name;
  return text;
}

void PrintNames(std::ostream& output, const char* heading, const std::vector<std::string>& names) {
  output << heading << ':';
  if (names.empty()) output << " none";
  for (std::size_t i = 0; i < names.size() && i < kNamesListed; ++i) output << (i == 0 ? " " : ", ") << names[i];
  if (names.size() > kNamesListed) output << " and " << names.size() - kNamesListed << " more";
  output << '\n';
}

void PrintChanges(std::ostream& output, const char* heading, const Comparison& comparison,
                  const std::vector<std::size_t>& listed, std::size_t top) {
  output << '\n' << heading;
  if (listed.empty()) {
    output << ": none\n";
    return;
  }
  output << ":\n       before        after       change  plugin\n";
  std::size_t shown = top == 0 ? listed.size() : std::min(top, listed.size());
  char row[64];
  for (std::size_t i = 0; i < shown; ++i) {
    const PluginChange& change = comparison.plugins[listed[i]];
    std::snprintf(row, sizeof row, "  %11s  %11s  %11s  ", FormatDuration(change.before).c_str(),
                  FormatDuration(change.after).c_str(), FormatChange(change.Delta()).c_str());
    output << row << change.name << '\n';
  }
  if (shown < listed.size()) output << "  and " << listed.size() - shown << " more\n";
}

nlohmann::json ChangeJson(const PluginChange& change) {
  return {{"name", change.name}, {"before_us", change.before}, {"after_us", change.after},
          {"delta_us", change.Delta()}};
}

nlohmann::json ChangesJson(const Comparison& comparison, const std::vector<std::size_t>& listed, std::size_t top) {
  nlohmann::json changes = nlohmann::json::array();
  std::size_t shown = top == 0 ? listed.size() : std::min(top, listed.size());
  for (std::size_t i = 0; i < shown; ++i) changes.push_back(ChangeJson(comparison.plugins[listed[i]]));
  return changes;
}

}  // namespace

std::optional<Threshold> ParseThreshold(std::string_view text) {
  Threshold threshold;
  bool haveAbsolute = false;
  bool havePercent = false;
  for (;;) {
    std::size_t comma = text.find(',');
    std::string_view part = text.substr(0, comma);
    if (part.ends_with('%')) {
      part.remove_suffix(1);
      auto basisPoints = TakeDecimal(part, 2, 6);
      if (havePercent || !basisPoints || !part.empty()) return std::nullopt;
      threshold.basisPoints = *basisPoints;
      havePercent = true;
    } else {
      std::size_t unit = part.find_first_not_of("0123456789.");
      if (haveAbsolute || unit == std::string_view::npos) return std::nullopt;
      std::string_view suffix = part.substr(unit);
      int decimals = suffix == "us" ? 0 : suffix == "ms" ? 3 : suffix == "s" ? 6 : -1;
      part.remove_suffix(suffix.size());
      auto absolute = decimals < 0 ? std::nullopt : TakeDecimal(part, decimals, 9);
      if (!absolute || !part.empty()) return std::nullopt;
      threshold.absolute = *absolute;
      haveAbsolute = true;
    }
    if (comma == std::string_view::npos) return threshold;
    text.remove_prefix(comma + 1);
  }
}

std::string FormatChange(Microseconds change) { return (change > 0 ? "+" : "") + FormatDuration(change); }

bool PastThreshold(const PluginChange& change, const Threshold& threshold) {
  Microseconds magnitude = change.Delta() < 0 ? -change.Delta() : change.Delta();
  // In floating point, which cannot overflow; exact while the products stay below
  // 2^53, that is for changes up to days.
  return magnitude != 0 && magnitude >= threshold.absolute &&
         static_cast<double>(magnitude) * 10000.0 >=
             static_cast<double>(threshold.basisPoints) * static_cast<double>(change.before);
}

Comparison Compare(const Analysis& before, const Analysis& after, const Threshold& threshold) {
  Comparison comparison;
  comparison.before = Totals(before);
  comparison.after = Totals(after);
  comparison.threshold = threshold;

  std::unordered_set<std::string> unknown;
  for (const Analysis* boot : {&before, &after}) {
    for (const TimedPlugin& line : boot->timing.endsBeforeStart) {
      if (unknown.insert(line.name).second) comparison.timeUnknown.push_back(line.name);
    }
  }
  std::vector<std::pair<std::string, Microseconds>> timesBefore = TimesByName(before);
  std::vector<std::pair<std::string, Microseconds>> timesAfter = TimesByName(after);
  std::unordered_map<std::string, Microseconds> lookup(timesBefore.begin(), timesBefore.end());
  std::unordered_set<std::string> namesAfter;
  for (const auto& [name, time] : timesAfter) {
    namesAfter.insert(name);
    if (unknown.contains(name)) continue;
    auto found = lookup.find(name);
    if (found == lookup.end()) {
      comparison.added.push_back(name);
    } else {
      comparison.plugins.push_back({name, found->second, time});
    }
  }
  for (const auto& [name, time] : timesBefore) {
    if (!namesAfter.contains(name) && !unknown.contains(name)) comparison.removed.push_back(name);
  }

  std::sort(comparison.plugins.begin(), comparison.plugins.end(), [](const PluginChange& a, const PluginChange& b) {
    return a.Delta() != b.Delta() ? a.Delta() > b.Delta() : a.name < b.name;
  });
  for (std::size_t i = 0; i < comparison.plugins.size(); ++i) {
    const PluginChange& change = comparison.plugins[i];
    if (!PastThreshold(change, threshold)) continue;
    (change.Delta() > 0 ? comparison.slower : comparison.faster).push_back(i);
  }
  std::stable_sort(comparison.faster.begin(), comparison.faster.end(), [&](std::size_t a, std::size_t b) {
    return comparison.plugins[a].Delta() < comparison.plugins[b].Delta();
  });

  comparison.chainBefore = ChainNames(before);
  comparison.chainAfter = ChainNames(after);
  if (!comparison.chainBefore || !comparison.chainAfter) {
    comparison.chainNotes = after.chainNotes;
  } else {
    for (const std::string& note : before.chainNotes) comparison.chainNotes.push_back("before: " + note);
    for (const std::string& note : after.chainNotes) comparison.chainNotes.push_back("after: " + note);
  }
  return comparison;
}

void PrintComparison(std::ostream& output, const Comparison& comparison, std::size_t top) {
  const BootTotals& before = comparison.before;
  const BootTotals& after = comparison.after;
  output << "Activation: " << FormatDuration(before.activation) << " -> " << FormatDuration(after.activation)
         << " (" << FormatChange(after.activation - before.activation) << ")\n";
  for (const auto& [boot, totals] : {std::pair{"before", &before}, std::pair{"after", &after}}) {
    if (!totals->hasSummary) {
      output << "  " << boot << ": " << totals->activationUnknown << "; the span of its timed plugins counts instead\n";
    }
  }
  // In whole seconds, as a timing log has it.
  auto seconds = [](const std::optional<Microseconds>& time) {
    return time ? std::to_string(*time / 1000000) + " s" : std::string("unknown (no start line)");
  };
  output << "Kernel start to activation start: " << seconds(before.kernelTime) << " -> "
         << seconds(after.kernelTime);
  if (before.kernelTime && after.kernelTime) {
    Microseconds change = *after.kernelTime / 1000000 - *before.kernelTime / 1000000;
    output << " (" << (change > 0 ? "+" : "") << change << " s)";
  }
  output << '\n';

  output << "Plugins timed in both boots: " << comparison.plugins.size() << "; " << comparison.slower.size()
         << " slower, " << comparison.faster.size() << " faster by at least "
         << FormatDuration(comparison.threshold.absolute) << " and " << Percent(comparison.threshold.basisPoints)
         << '\n';
  PrintChanges(output, "Slower plugins", comparison, comparison.slower, top);
  PrintChanges(output, "Faster plugins", comparison, comparison.faster, top);
  output << '\n';
  PrintNames(output, "Added plugins", comparison.added);
  PrintNames(output, "Removed plugins", comparison.removed);
  if (!comparison.timeUnknown.empty()) {
    PrintNames(output, "Time unknown (a timing line that ends before it starts)", comparison.timeUnknown);
  }

  output << "\nCritical chain";
  if (comparison.chainBefore && comparison.chainAfter) {
    if (*comparison.chainBefore == *comparison.chainAfter) {
      output << " unchanged: " << Joined(*comparison.chainAfter, " -> ") << '\n';
    } else {
      output << " changed:\n  before: " << Joined(*comparison.chainBefore, " -> ")
             << "\n  after:  " << Joined(*comparison.chainAfter, " -> ") << '\n';
    }
  } else {
    output << ":\n";
  }
  for (const std::string& note : comparison.chainNotes) output << "  " << note << '\n';

  for (const auto& [boot, totals] : {std::pair{"before", &before}, std::pair{"after", &after}}) {
    for (const ClockStep& step : totals->clockSteps) {
      output << "\nClock step in the boot " << boot << ": " << ClockStepText(step);
    }
  }
  if (!before.clockSteps.empty() || !after.clockSteps.empty()) output << '\n';
}

nlohmann::json ComparisonJson(const Comparison& comparison, std::size_t top) {
  const BootTotals& before = comparison.before;
  const BootTotals& after = comparison.after;
  nlohmann::json report;
  report["activation"] = {{"before_us", before.activation},
                          {"after_us", after.activation},
                          {"delta_us", after.activation - before.activation},
                          {"before_has_summary", before.hasSummary},
                          {"after_has_summary", after.hasSummary}};
  nlohmann::json& kernel = report["kernel_to_activation"] = {
      {"before_us", before.kernelTime ? nlohmann::json(*before.kernelTime) : nlohmann::json(nullptr)},
      {"after_us", after.kernelTime ? nlohmann::json(*after.kernelTime) : nlohmann::json(nullptr)},
      {"delta_us", nullptr}};
  if (before.kernelTime && after.kernelTime) kernel["delta_us"] = *after.kernelTime - *before.kernelTime;
  report["threshold"] = {{"absolute_us", comparison.threshold.absolute},
                         {"relative_percent", static_cast<double>(comparison.threshold.basisPoints) / 100}};

  nlohmann::json& plugins = report["plugins"] = nlohmann::json::array();
  for (const PluginChange& change : comparison.plugins) plugins.push_back(ChangeJson(change));
  report["slower"] = ChangesJson(comparison, comparison.slower, top);
  report["faster"] = ChangesJson(comparison, comparison.faster, top);
  report["added"] = comparison.added;
  report["removed"] = comparison.removed;
  report["time_unknown"] = comparison.timeUnknown;
  report["clock_steps"] = {{"before", ClockStepsJson(before.clockSteps)}, {"after", ClockStepsJson(after.clockSteps)}};
  report["critical_chain"] = nullptr;
  if (comparison.chainBefore && comparison.chainAfter) {
    report["critical_chain"] = {{"changed", *comparison.chainBefore != *comparison.chainAfter},
                                {"before", *comparison.chainBefore},
                                {"after", *comparison.chainAfter}};
  }
  report["notes"] = comparison.chainNotes;
  return report;
}

}  // namespace bootstrand::analyze
