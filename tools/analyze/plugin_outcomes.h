// What became of each plugin, as the activator reported it on the message channels:
// the kernel-channel sink carries "activated", "skipped" and the opportunistic
// outcomes, the alert-channel sink the plain activation failures. The sinks are only
// ever appended to, so they may hold several boots; each plugin's latest outcomes are
// the ones that count.
#pragma once

#include <istream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "analyze/problem.h"

namespace bootstrand::analyze {

enum class Outcome { Activated, Failed, Skipped, OpportunisticSkipped, OpportunisticFailed, Unknown };

// "activated", "failed", "skipped", "opportunistic skipped", "opportunistic failed", "unknown".
std::string_view OutcomeName(Outcome outcome);

class PluginOutcomes {
 public:
  // Sink files hold one message per line, a newline inside a message written as
  // backslash-n and a backslash doubled. Lines with a broken escape are reported.
  void ReadKernelSink(std::istream& input, const std::string& file, Problems& problems);
  // Read after the kernel sink: each failure settles the earliest dispatch of that
  // plugin that the kernel channel left without an outcome.
  void ReadAlertSink(std::istream& input, const std::string& file, Problems& problems);

  // The outcome of the `index`-th of `count` timed plugins called `name`: the last
  // `count` outcomes of that name, in order, belong to the latest boot.
  Outcome Of(const std::string& name, std::size_t index, std::size_t count) const;

  // Every plugin name with its latest outcome, in order of first appearance.
  std::vector<std::pair<std::string, Outcome>> Latest() const;

 private:
  // One activation of a plugin as the channels show it: a dispatch ("Activating
  // Bootstrand plugin X.") or a passing over ("... skipped.") opens it, the
  // scheduler's final report closes it.
  struct Episode {
    Outcome outcome = Outcome::Unknown;
    bool dispatched = false;
    bool closed = false;
  };

  void Report(const std::string& name, Outcome outcome);
  std::vector<Episode>& EpisodesOf(const std::string& name);

  std::unordered_map<std::string, std::vector<Episode>> episodes_;
  std::vector<std::string> names_;  // first appearance order
};

// Undoes the sink escaping; false when the line holds a broken escape.
bool UnescapeSinkLine(std::string_view line, std::string& message);

}  // namespace bootstrand::analyze
