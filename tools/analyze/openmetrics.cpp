#include "analyze/openmetrics.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

namespace bootstrand::analyze {

namespace {

constexpr std::array<Outcome, 6> kOutcomes = {Outcome::Activated, Outcome::Failed, Outcome::Skipped,
                                              Outcome::OpportunisticSkipped, Outcome::OpportunisticFailed,
                                              Outcome::Unknown};

// One series of the per-plugin families.
struct PluginSeries {
  std::string label;
  std::optional<Microseconds> duration;  // absent for a plugin without a timing line
  bool failed = false;
};

// Length of the well-formed UTF-8 sequence at `text[i]`, or 0. The ranges of the
// second byte rule out overlong forms, surrogates and code points past U+10FFFF,
// which a label value may not hold either.
std::size_t WellFormedLength(std::string_view text, std::size_t i) {
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
  unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  std::size_t length = lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3
                     : lead >= 0xf0 && lead <= 0xf4 ? 4 : 0;
  if (length == 0 || i + length > text.size()) return 0;
  unsigned char low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  unsigned char high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (byte(1) < low || byte(1) > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if ((byte(k) & 0xc0) != 0x80) return 0;
  }
  return length;
}

// Exact decimal seconds from microseconds, without trailing zeros: "12", "0.0226".
std::string Seconds(Microseconds time) {
  char text[48];
  std::snprintf(text, sizeof text, "%s%lld.%06lld", time < 0 ? "-" : "", std::llabs(time / 1000000),
                std::llabs(time % 1000000));
  std::string seconds = text;
  seconds.erase(seconds.find_last_not_of('0') + 1);
  if (seconds.back() == '.') seconds.pop_back();
  return seconds;
}

void Family(std::ostream& output, std::string_view name, std::string_view help) {
  output << "# HELP " << name << ' ' << help << "\n# TYPE " << name << " gauge\n";
}

std::string OutcomeLabel(Outcome outcome) {
  std::string label(OutcomeName(outcome));
  for (char& c : label) c = c == ' ' ? '_' : c;
  return label;
}

std::vector<PluginSeries> SeriesByLabel(const Analysis& analysis) {
  std::vector<PluginSeries> series;
  std::unordered_map<std::string, std::size_t> byLabel;
  auto of = [&](const std::string& name) -> PluginSeries& {
    std::string label = LabelValue(name);
    auto [at, added] = byLabel.emplace(label, series.size());
    if (added) series.push_back({label, std::nullopt, false});
    return series[at->second];
  };
  for (std::size_t index : analysis.byStart) {
    const TimedPlugin& plugin = analysis.timing.plugins[index];
    PluginSeries& entry = of(plugin.name);
    entry.duration = entry.duration.value_or(0) + (plugin.end - plugin.start);
    entry.failed = entry.failed || analysis.outcomes[index] == Outcome::Failed;
  }
  for (const auto& [name, outcome] : analysis.untimed) {
    PluginSeries& entry = of(name);
    entry.failed = entry.failed || outcome == Outcome::Failed;
  }
  return series;
}

void WriteBootInfo(std::ostream& output, const std::optional<std::string>& bootId) {
  if (!bootId) return;
  Family(output, "bootstrand_boot_info", "The boot these metrics describe, by the kernel's boot id; always 1.");
  output << "bootstrand_boot_info{boot_id=" << LabelValue(*bootId) << "} 1\n";
}

void WriteCompleted(std::ostream& output, bool completed) {
  Family(output, "bootstrand_activation_completed",
         "1 when activation at the last boot ran to its end, 0 when it stopped before or did not run at all.");
  output << "bootstrand_activation_completed " << (completed ? 1 : 0) << '\n';
}

}  // namespace

std::string LabelValue(std::string_view name) {
  std::string value = "\"";
  for (std::size_t i = 0; i < name.size();) {
    std::size_t length = WellFormedLength(name, i);
    if (length == 0) {
      value += "\xef\xbf\xbd";
      ++i;
      continue;
    }
    char c = name[i];
    if (c == '\\' || c == '"') {
      value += '\\';
      value += c;
    } else if (c == '\n') {
      value += "\\n";
    } else {
      value.append(name.substr(i, length));
    }
    i += length;
  }
  return value + '"';
}

void WriteOpenMetrics(std::ostream& output, const Analysis& analysis) {
  const TimingLog& timing = analysis.timing;
  const bool timed = !timing.plugins.empty();
  WriteBootInfo(output, analysis.bootId);
  // Without an end of activation, the timed plugins stand in for the ends, as in the
  // report; an input that has neither leaves the figure out.
  if (timing.activationStart || timed) {
    Family(output, "bootstrand_activation_start_timestamp_seconds",
           "When plugin activation started at the last boot, in seconds since the epoch.");
    output << "bootstrand_activation_start_timestamp_seconds " << Seconds(analysis.origin) << '\n';
    if (analysis.activation || timed) {
      Family(output, "bootstrand_activation_duration_seconds",
             "How long plugin activation took at the last boot (without its end, the span of the timed plugins).");
      output << "bootstrand_activation_duration_seconds " << Seconds(analysis.finish - analysis.origin) << '\n';
    }
  }
  WriteCompleted(output, analysis.completed);
  if (timing.kernelTime) {
    Family(output, "bootstrand_kernel_to_activation_seconds",
           "Time from kernel start to the start of plugin activation at the last boot (in whole seconds from a "
           "timing log).");
    output << "bootstrand_kernel_to_activation_seconds " << Seconds(*timing.kernelTime) << '\n';
  }

  std::map<Outcome, std::size_t> counts;
  for (Outcome outcome : analysis.outcomes) ++counts[outcome];
  for (const auto& untimed : analysis.untimed) ++counts[untimed.second];
  Family(output, "bootstrand_plugins", "Plugins of the last boot by outcome, those that were not timed included.");
  for (Outcome outcome : kOutcomes) {
    output << "bootstrand_plugins{outcome=\"" << OutcomeLabel(outcome) << "\"} " << counts[outcome] << '\n';
  }

  std::vector<PluginSeries> series = SeriesByLabel(analysis);
  if (timed) {
    Family(output, "bootstrand_plugin_duration_seconds",
           "Time each plugin took at the last boot, on the monotonic clock when the boot record holds it.");
    for (const PluginSeries& each : series) {
      if (each.duration) output << "bootstrand_plugin_duration_seconds{plugin=" << each.label << "} "
                                << Seconds(*each.duration) << '\n';
    }
  }
  if (!series.empty()) {
    Family(output, "bootstrand_plugin_failed", "1 when the plugin's activation failed at the last boot, else 0.");
    for (const PluginSeries& each : series) {
      output << "bootstrand_plugin_failed{plugin=" << each.label << "} " << (each.failed ? 1 : 0) << '\n';
    }
  }
}

void WriteNoBootMetrics(std::ostream& output, const std::optional<std::string>& bootId) {
  WriteBootInfo(output, bootId);
  WriteCompleted(output, false);
}

}  // namespace bootstrand::analyze
