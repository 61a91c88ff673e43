// The scheduler alone: plugins that do nothing, registered in-process in a layered
// graph, activated through real workers, serially and with two workers.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "plugin/plugin.h"
#include "worker/worker.h"

namespace {

class NoOpPlugin : public bootstrand::Plugin {
 public:
  using Plugin::Plugin;
  bool Activate(bootstrand::ActivateFlags) override { return true; }
};

// The same layered shape as the generated trees: layers of about sqrt(n) plugins,
// each requiring one to three plugins of the layer before.
std::vector<std::unique_ptr<NoOpPlugin>> RegisterLayered(int n) {
  std::mt19937 random(20261123);
  int width = std::max(1, static_cast<int>(std::sqrt(static_cast<double>(n))));
  std::vector<std::unique_ptr<NoOpPlugin>> plugins;
  plugins.reserve(n);
  for (int i = 0; i < n; ++i) {
    std::vector<std::string> requires_;
    if (i >= width) {
      int layerStart = (i / width - 1) * width;
      for (int k = 0, count = 1 + static_cast<int>(random() % 3); k < count; ++k) {
        requires_.push_back("t" + std::to_string(layerStart + static_cast<int>(random() % width)));
      }
    }
    plugins.push_back(std::make_unique<NoOpPlugin>("p" + std::to_string(i),
                                                   std::vector<std::string>{"t" + std::to_string(i)}, requires_));
    plugins.back()->Register();
  }
  return plugins;
}

void ActivateLayered(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const int workers = static_cast<int>(state.range(1));
  char pattern[] = "/tmp/bootstrand-bench-XXXXXX";
  std::string root = mkdtemp(pattern);
  std::filesystem::create_directories(root + "/var/log");
  setenv("BOOTSTRAND_ROOT", root.c_str(), 1);
  for (auto _ : state) {
    state.PauseTiming();
    bootstrand::Plugin::ResetRegistries();
    bootstrand::Worker::ResetPool();
    bootstrand::Worker::LimitWorkers(workers);
    std::filesystem::remove_all(root + "/var/run");
    auto plugins = RegisterLayered(n);
    bootstrand::ActivateFlags flags = 0;
    state.ResumeTiming();
    bootstrand::Plugin::ActivatePlugins(flags);
    state.PauseTiming();
    bootstrand::Worker::ResetPool();
    state.ResumeTiming();
  }
  state.counters["us_per_plugin"] =
      benchmark::Counter(static_cast<double>(n) * 1e-6, benchmark::Counter::kIsIterationInvariantRate |
                                                          benchmark::Counter::kInvert);
  std::filesystem::remove_all(root);
}

BENCHMARK(ActivateLayered)
    ->ArgNames({"plugins", "workers"})
    ->Args({1000, 1})
    ->Args({10000, 1})
    ->Args({1000, 2})
    ->Args({10000, 2})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
