#include "platform/activation_progress.h"

#include <pthread.h>

namespace bootstrand {

namespace {

struct State {
  bool owned = false;  // this process started the activation
  ActivationProgress progress;
};

State state;

}  // namespace

void StartActivationProgress(std::size_t plugins) {
  // A child learns at fork, without a system call per message, that the figures are
  // not its own.
  [[maybe_unused]] static const bool forgottenInChildren =
      pthread_atfork(nullptr, nullptr, [] { state.owned = false; }) == 0;
  state.owned = true;
  state.progress = {0, plugins};
}

void UpdateActivationProgress(std::size_t pluginsLeft) {
  std::size_t total = state.progress.total;
  state.progress.done = pluginsLeft < total ? total - pluginsLeft : total;
}

std::optional<ActivationProgress> CurrentActivationProgress() {
  if (!state.owned) return std::nullopt;
  return state.progress;
}

}  // namespace bootstrand
