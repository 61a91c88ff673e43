// In-process plugins, a private host root and a fixture with empty plugin
// registries, for the unit tests.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plugin/plugin.h"

namespace bootstrand::testing {

// A plugin whose activation runs `activate` (success when it returns true).
class TestPlugin : public Plugin {
 public:
  using Plugin::Plugin;
  bool Activate(ActivateFlags) override { return activate(); }

  std::function<bool()> activate = [] { return true; };
};

// Points BOOTSTRAND_ROOT at a fresh temporary directory (with var/log) for the
// lifetime of the object and removes it afterwards.
class ScopedRoot {
 public:
  ScopedRoot();
  ~ScopedRoot();
  const std::string& Root() const { return root_; }
  std::string Path(const std::string& hostPath) const { return root_ + hostPath; }
  // The file's contents; "" when it is missing.
  std::string Read(const std::string& hostPath) const;

 private:
  std::string root_;
};

// Every field of a plugin on one line, tag sets sorted:
// "name vN provides=a,b requires=c", then only what is set of " version=TEXT",
// " run_once", " required=…", " disabling=…", " preemptive", " host_profile",
// " no_operations" and " skip".
std::string Describe(const Plugin& plugin);

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
  TestPlugin& Add(const std::string& name, const std::vector<std::string>& provides = {},
                  const std::vector<std::string>& requires_ = {}, bool preemptive = false) {
    TestPlugin& plugin = Make(name, provides, requires_);
    plugin.preemptive = preemptive;
    plugin.Register();
    return plugin;
  }

  ScopedRoot root_;
  std::vector<std::unique_ptr<TestPlugin>> owned_;
};

}  // namespace bootstrand::testing
