// Writes one synthetic dependency graph three ways: as a host root with one JSON
// plugin per node (each running the tick executable through a command-definition
// directory), as a Makefile and as a build.ninja whose jobs run the same executable.
//
//   bench_generate SHAPE N OUTPUT TICK [SLEEP_MS]
//
// SHAPE is chain, fan, layered (random layers of about sqrt(N) nodes with a fixed
// seed) or layered:L (L such layers). SLEEP_MS is how long each job sleeps, or MIN-MAX
// for a random whole number of milliseconds in that range per job (fixed seed).
// Prints the length of the longest chain.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using Graph = std::vector<std::vector<int>>;  // node -> the nodes it requires

Graph Chain(int n) {
  Graph graph(n);
  for (int i = 1; i < n; ++i) graph[i] = {i - 1};
  return graph;
}

Graph Fan(int n) {
  Graph graph(n);
  for (int i = 1; i < n; ++i) graph[i] = {0};
  return graph;
}

// `layers` layers (about sqrt(n) when 0); each node requires one to three nodes of
// the layer before it.
Graph Layered(int n, int layers) {
  std::mt19937 random(20261123);
  int width = layers > 0 ? std::max(1, n / layers) : std::max(1, static_cast<int>(std::sqrt(static_cast<double>(n))));
  Graph graph(n);
  for (int i = width; i < n; ++i) {
    int layerStart = (i / width - 1) * width;
    int count = 1 + static_cast<int>(random() % 3);
    for (int k = 0; k < count; ++k) graph[i].push_back(layerStart + static_cast<int>(random() % width));
    std::sort(graph[i].begin(), graph[i].end());
    graph[i].erase(std::unique(graph[i].begin(), graph[i].end()), graph[i].end());
  }
  return graph;
}

int LongestChain(const Graph& graph) {
  std::vector<int> depth(graph.size(), 1);
  int longest = graph.empty() ? 0 : 1;
  for (std::size_t i = 0; i < graph.size(); ++i) {
    for (int dependency : graph[i]) depth[i] = std::max(depth[i], depth[dependency] + 1);
    longest = std::max(longest, depth[i]);
  }
  return longest;
}

std::string Name(int node) {
  char text[16];
  std::snprintf(text, sizeof text, "p%05d", node);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::cerr << "usage: bench_generate chain|fan|layered|layered:LAYERS N OUTPUT TICK [SLEEP_MS|MIN-MAX]\n";
    return 2;
  }
  std::string shape = argv[1];
  int n = std::atoi(argv[2]);
  std::filesystem::path output = argv[3];
  std::string tick = std::filesystem::absolute(argv[4]).string();
  std::string sleepText = argc > 5 ? argv[5] : "0";
  int sleepMin = std::atoi(sleepText.c_str());
  int sleepMax = sleepText.find('-') != std::string::npos ? std::atoi(sleepText.c_str() + sleepText.find('-') + 1)
                                                          : sleepMin;
  std::mt19937 sleepRandom(20261124);
  auto sleepOf = [&] {
    return sleepMax > sleepMin ? sleepMin + static_cast<int>(sleepRandom() % (sleepMax - sleepMin + 1)) : sleepMin;
  };
  // "layered:20": twenty layers instead of about sqrt(n).
  int layers = shape.rfind("layered:", 0) == 0 ? std::atoi(shape.c_str() + 8) : 0;
  Graph graph = shape == "chain" ? Chain(n) : shape == "fan" ? Fan(n) : Layered(n, layers);

  std::filesystem::path root = output / "root";
  std::filesystem::path plugins = root / "usr/libexec/bootstrand/plugins";
  std::filesystem::path commands = root / "usr/lib/tessary/cormcli";
  std::filesystem::create_directories(plugins);
  std::filesystem::create_directories(commands);
  std::filesystem::create_directories(root / "var/log");
  std::filesystem::copy_file(tick, commands / "tick", std::filesystem::copy_options::overwrite_existing);

  std::ofstream makefile(output / "Makefile");
  std::ofstream ninja(output / "build.ninja");
  makefile << ".PHONY: all";
  for (int i = 0; i < n; ++i) makefile << ' ' << Name(i);
  makefile << "\nall:";
  for (int i = 0; i < n; ++i) makefile << ' ' << Name(i);
  makefile << "\n";
  // The jobs of make and ninja get the very arguments that the command dispatcher
  // passes (one "--name=value" each): /bin/true, for one, does more work when it is
  // given exactly one argument.
  ninja << "rule tick\n  command = " << tick << " --name=$name$sleep\n";

  for (int i = 0; i < n; ++i) {
    std::string name = Name(i);
    std::vector<std::string> requires_;
    for (int dependency : graph[i]) requires_.push_back(Name(dependency));
    int sleepMs = sleepOf();
    std::string command = "tick --name " + name + (sleepMs > 0 ? " --sleep-ms " + std::to_string(sleepMs) : "");
    nlohmann::json plugin = {
        {"metadata", {{"version", 1}, {"provides", {name}}, {"requires", requires_}}},
        {"operations", {{"start", {command}}}},
    };
    std::ofstream(plugins / (name + ".json")) << plugin.dump();

    makefile << name << ":";
    for (const std::string& dependency : requires_) makefile << ' ' << dependency;
    makefile << "\n\t@" << tick << " --name=" << name
             << (sleepMs > 0 ? " --sleep-ms=" + std::to_string(sleepMs) : "") << "\n";
    ninja << "build " << name << ": tick";
    if (!requires_.empty()) {
      ninja << " ||";
      for (const std::string& dependency : requires_) ninja << ' ' << dependency;
    }
    ninja << "\n  name = " << name << "\n";
    // Ninja strips the leading blank of a value, so the blank before the option
    // comes from an escaped space.
    if (sleepMs > 0) ninja << "  sleep = $ --sleep-ms=" << sleepMs << "\n";
  }
  ninja << "default";
  for (int i = 0; i < n; ++i) ninja << ' ' << Name(i);
  ninja << "\n";
  std::cout << LongestChain(graph) << "\n";
  return 0;
}
