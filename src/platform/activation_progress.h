// How far the activation of this boot has got, for the live line of the console
// output: the scheduler reports how many plugins it starts with and, after each pass,
// how many are still listed. The process that started the activation owns the
// figures; a forked worker, whose copy is stale at once, sees none.
#pragma once

#include <cstddef>
#include <optional>

namespace bootstrand {

struct ActivationProgress {
  std::size_t done = 0;   // plugins that have left the list: finished or preempted
  std::size_t total = 0;  // plugins listed when the activation started
};

void StartActivationProgress(std::size_t plugins);
void UpdateActivationProgress(std::size_t pluginsLeft);

// The figures, in the process that started the activation; none anywhere else or
// before it started.
std::optional<ActivationProgress> CurrentActivationProgress();

}  // namespace bootstrand
