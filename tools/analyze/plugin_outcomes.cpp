#include "analyze/plugin_outcomes.h"

#include <array>

namespace bootstrand::analyze {

namespace {

constexpr std::string_view kDispatchPrefix = "Activating Bootstrand plugin ";
constexpr std::string_view kOutcomePrefix = "Bootstrand plugin ";

// Longest first: " activation failed." ends " opportunistic activation failed." too.
constexpr std::array<std::pair<std::string_view, Outcome>, 5> kOutcomeEndings = {{
    {" opportunistic activation failed.", Outcome::OpportunisticFailed},
    {" opportunistic skipped.", Outcome::OpportunisticSkipped},
    {" activation failed.", Outcome::Failed},
    {" activated.", Outcome::Activated},
    {" skipped.", Outcome::Skipped},
}};

// Calls `each(number, message)` for every well-formed line of a sink.
template <typename Each>
void ForEachMessage(std::istream& input, const std::string& file, Problems& problems, Each each) {
  std::string message;
  ForEachCompleteLine(input, file, problems, [&](std::size_t number, const std::string& line) {
    if (!UnescapeSinkLine(line, message)) {
      problems.push_back({file, number, "broken escape in channel message, skipped"});
      return;
    }
    each(message);
  });
}

}  // namespace

std::string_view OutcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::Activated: return "activated";
    case Outcome::Failed: return "failed";
    case Outcome::Skipped: return "skipped";
    case Outcome::OpportunisticSkipped: return "opportunistic skipped";
    case Outcome::OpportunisticFailed: return "opportunistic failed";
    case Outcome::Unknown: break;
  }
  return "unknown";
}

bool UnescapeSinkLine(std::string_view line, std::string& message) {
  message.clear();
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] != '\\') {
      message += line[i];
      continue;
    }
    if (i + 1 == line.size()) return false;
    char next = line[++i];
    if (next == 'n') {
      message += '\n';
    } else if (next == '\\') {
      message += '\\';
    } else {
      return false;
    }
  }
  return true;
}

std::vector<PluginOutcomes::Episode>& PluginOutcomes::EpisodesOf(const std::string& name) {
  auto [entry, added] = episodes_.try_emplace(name);
  if (added) names_.push_back(name);
  return entry->second;
}

void PluginOutcomes::ReadKernelSink(std::istream& input, const std::string& file, Problems& problems) {
  ForEachMessage(input, file, problems, [&](const std::string& message) {
    std::string_view text(message);
    if (text.starts_with(kDispatchPrefix) && text.ends_with('.')) {
      std::string name(text.substr(kDispatchPrefix.size(), text.size() - kDispatchPrefix.size() - 1));
      EpisodesOf(name).push_back({Outcome::Unknown, true, false});
      return;
    }
    if (!text.starts_with(kOutcomePrefix)) return;
    for (const auto& [ending, outcome] : kOutcomeEndings) {
      if (text.size() >= kOutcomePrefix.size() + ending.size() && text.ends_with(ending)) {
        Report(std::string(text.substr(kOutcomePrefix.size(), text.size() - kOutcomePrefix.size() - ending.size())),
               outcome);
        return;
      }
    }
  });
}

void PluginOutcomes::ReadAlertSink(std::istream& input, const std::string& file, Problems& problems) {
  constexpr std::string_view kFailed = " activation failed.";
  ForEachMessage(input, file, problems, [&](const std::string& message) {
    std::string_view text(message);
    if (!text.starts_with(kOutcomePrefix) || !text.ends_with(kFailed) ||
        text.size() < kOutcomePrefix.size() + kFailed.size()) {
      return;
    }
    std::string name(text.substr(kOutcomePrefix.size(), text.size() - kOutcomePrefix.size() - kFailed.size()));
    std::vector<Episode>& episodes = EpisodesOf(name);
    for (Episode& episode : episodes) {
      if (episode.dispatched && episode.outcome == Outcome::Unknown) {
        episode = {Outcome::Failed, true, true};
        return;
      }
    }
    // The kernel sink did not show the dispatch (missing, or cut at the front).
    episodes.push_back({Outcome::Failed, true, true});
  });
}

void PluginOutcomes::Report(const std::string& name, Outcome outcome) {
  std::vector<Episode>& episodes = EpisodesOf(name);
  Episode* open = episodes.empty() || episodes.back().closed ? nullptr : &episodes.back();
  if (outcome == Outcome::Skipped) {
    // A plugin passed over is reported skipped by the worker layer and, when it was
    // disabled, once more by the scheduler; a preempted one once per shared tag.
    if (open != nullptr && !open->dispatched) return;
    // A dispatch without a kernel-channel outcome stays open to a failure from the
    // alert sink.
    if (open != nullptr) open->closed = true;
    episodes.push_back({Outcome::Skipped, false, false});
    return;
  }
  if (open != nullptr && !open->dispatched) {
    // Passed over without running (skip answer, no operations), then reported as
    // activated by the scheduler: it was skipped all the same.
    open->closed = true;
    return;
  }
  if (open != nullptr) {
    *open = {outcome, true, true};
    return;
  }
  episodes.push_back({outcome, false, true});
}

Outcome PluginOutcomes::Of(const std::string& name, std::size_t index, std::size_t count) const {
  auto found = episodes_.find(name);
  if (found == episodes_.end() || index >= count) return Outcome::Unknown;
  const std::vector<Episode>& episodes = found->second;
  if (episodes.size() + index < count) return Outcome::Unknown;
  return episodes[episodes.size() + index - count].outcome;
}

std::vector<std::pair<std::string, Outcome>> PluginOutcomes::Latest() const {
  std::vector<std::pair<std::string, Outcome>> latest;
  latest.reserve(names_.size());
  for (const std::string& name : names_) latest.emplace_back(name, episodes_.at(name).back().outcome);
  return latest;
}

}  // namespace bootstrand::analyze
