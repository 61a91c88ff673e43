// In-process plugins, a private host root, a fixture with empty plugin registries
// and a forked child to run code in, for the unit tests.
#pragma once

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plugin/plugin.h"
#include "support/host_root.h"

namespace bootstrand::testing {

// A plugin whose activation runs `activate` (success when it returns true).
class TestPlugin final : public Plugin {
 public:
  using Plugin::Plugin;
  bool Activate(ActivateFlags) override { return activate(); }

  std::function<bool()> activate = [] { return true; };
};

// A host root that BOOTSTRAND_ROOT points at for the lifetime of the object.
class ScopedRoot : public HostRoot {
 public:
  ScopedRoot() { setenv("BOOTSTRAND_ROOT", Root().c_str(), 1); }
  ~ScopedRoot() { unsetenv("BOOTSTRAND_ROOT"); }
};

// The items joined by `separator`.
template <typename Items>
std::string Joined(const Items& items, const std::string& separator = ",") {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : separator) + item;
  return text;
}

// Every field of a plugin on one line, tag sets sorted:
// "name vN provides=a,b requires=c", then only what is set of " version=TEXT",
// " run_once", " required=…", " disabling=…", " preemptive", " host_profile",
// " no_operations" and " skip".
std::string Describe(const Plugin& plugin);

// Runs `body` in a forked child whose standard output (unbuffered, as the activator
// has it) is a packet pipe; each write to it lands in `writes` when given. Returns
// what `body` returned (0 to 99), or -1 when the child ended otherwise or took more
// than 20 seconds.
int RunInChild(const std::function<int()>& body, std::vector<std::string>* writes = nullptr);

// A test with a private host root and empty plugin registries, emptied again
// afterwards. The plugins it makes live as long as the test.
class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override { Plugin::ResetRegistries(); }
  void TearDown() override { Plugin::ResetRegistries(); }

  // A plugin that is not registered yet (Register is the loaders' last step).
  TestPlugin& Make(const std::string& name, const std::vector<std::string>& provides = {},
                   const std::vector<std::string>& requires_ = {}) {
    return *owned_.emplace_back(std::make_unique<TestPlugin>(name, provides, requires_));
  }

  ScopedRoot root_;
  std::vector<std::unique_ptr<TestPlugin>> owned_;
};

}  // namespace bootstrand::testing
