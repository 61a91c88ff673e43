// In-process plugins and a private host root for unit tests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "plugin/plugin.h"

namespace bootstrand::testing {

// A plugin whose activation runs the given function (success when it returns true).
class TestPlugin : public Plugin {
 public:
  TestPlugin(const std::string& name, const std::vector<std::string>& provides,
             const std::vector<std::string>& requires_, std::function<bool()> activate = [] { return true; })
      : Plugin(name, provides, requires_), activate_(std::move(activate)) {}
  bool Activate(ActivateFlags) override { return activate_(); }

 private:
  std::function<bool()> activate_;
};

// Points BOOTSTRAND_ROOT at a fresh temporary directory for the lifetime of the
// object and removes it afterwards.
class ScopedRoot {
 public:
  ScopedRoot();
  ~ScopedRoot();
  const std::string& Root() const { return root_; }
  std::string Path(const std::string& hostPath) const { return root_ + hostPath; }
  std::string Read(const std::string& hostPath) const;

 private:
  std::string root_;
};

}  // namespace bootstrand::testing
