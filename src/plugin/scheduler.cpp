// The activation scheduler: walks the plugin list in passes, hands every plugin
// that is no longer pending to the worker layer, and after each full pass reports the
// results that came back and drops those plugins from the list.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "log/channels.h"
#include "main/startup.h"
#include "platform/feature_state.h"
#include "platform/host_path.h"
#include "plugin/plugin.h"
#include "worker/worker.h"
#include "platform/standard_streams.h"

namespace bootstrand {

namespace {

bool HostFileExists(const char* path) {
  struct stat status {};
  return stat(HostPath(path).c_str(), &status) == 0;
}

}  // namespace

namespace {

void TestHostProfileMarkers(ActivateFlags& flags) {
  if (HostFileExists("/etc/tessary/hostprofile.xml") || HostFileExists("/etc/tessary/hostprofile.xml.gz")) {
    flags |= ActivateFlag::HostProfilePresent;
  }
}

// One pass as the operator sees it in interactive mode: every listed plugin is
// visited, because the prompt comes before the worker layer is asked.
int VisitEveryPlugin(ActivateFlags& flags) {
  int started = 0;
  for (Plugin* plugin : Plugin::plugins) {
    TestHostProfileMarkers(flags);
    if (Plugin::ActivatePlugin(plugin, flags)) {
      Plugin::plugins.Dispatched(plugin);
      ++started;
    }
  }
  return started;
}

// The same pass without prompting, at the cost of what it dispatches. Visiting a
// pending plugin has no effect, and neither has visiting one that needs a worker
// once every worker is busy and no more may be spawned; so only the ready plugins
// are visited, in list order, and once the pool is saturated only those that are
// passed over. The host-profile markers are tested before each of these visits,
// which is what a hand-over copies into its request.
int VisitReadyPlugins(ActivateFlags& flags) {
  int started = 0;
  const PluginList::Ordered& toRun = Plugin::plugins.ReadyToRun();
  const PluginList::Ordered& toPassOver = Plugin::plugins.ReadyToPassOver();
  std::uint64_t position = 0;  // the list position reached by this pass
  for (;;) {
    bool saturated = Worker::Saturated();
    auto run = saturated ? toRun.end() : toRun.lower_bound(position);
    auto over = toPassOver.lower_bound(position);
    Plugin* plugin;
    if (over != toPassOver.end() && (run == toRun.end() || over->first < run->first)) {
      position = over->first + 1;
      plugin = over->second;
    } else if (run != toRun.end()) {
      position = run->first + 1;
      plugin = run->second;
    } else {
      return started;
    }
    TestHostProfileMarkers(flags);
    if (Plugin::ActivatePlugin(plugin, flags)) {
      Plugin::plugins.Dispatched(plugin);
      ++started;
    }
  }
}

}  // namespace

void Plugin::ActivatePlugins(ActivateFlags& flags) {
  FeatureState_Init();
  ProgressLog() << "Activating Bootstrand Plugins: " << std::endl;
  plugins.TrackReadiness();
  int inFlight = 0;
  while (!plugins.empty()) {
    // The list does not change during a pass: results are handled only after it.
    inFlight += (flags & ActivateFlag::Interactive) ? VisitEveryPlugin(flags) : VisitReadyPlugins(flags);
    if (inFlight == 0) {
      AlertLog() << "Bootstrand has unmet dependencies!" << std::endl;
      CheckCycles();
      // Nothing can ever start again. Stop here, without the exit-time work of a
      // normal run (no timing summary); the idle workers see their request pipes
      // close and end by themselves.
      std::cout.flush();
      std::cerr.flush();
      std::fflush(nullptr);
      _exit(kUnmetDependenciesStatus);
    }
    StatusLog() << '\r';
    for (const auto& [position, plugin] : plugins.Active()) StatusLog() << "activating: " << plugin->name << '\n';
    StatusLog().flush();
    for (const PluginResult& result : Worker::PluginResults()) {
      result.first->Finish(result.second, flags);
      --inFlight;
      plugins.Remove(result.first);
    }
  }
  StatusLog() << '\r';
  StatusLog().flush();
  ProgressLog() << "All bootstrand plugins activated" << std::endl;
}

bool Plugin::ActivatePlugin(Plugin* plugin, ActivateFlags& flags) {
  if (plugin->Pending()) return false;
  if (!(flags & ActivateFlag::Interactive)) {
    bool accepted = Worker::ActivatePlugin(plugin, flags);
    flags &= ~ActivateFlag::Skip;
    return accepted;
  }
  if (!Pending(interactiveTags)) {
    flags &= ~ActivateFlag::Interactive;
    flags |= DebugAction(plugin->name);
  }
  bool accepted = Worker::ActivatePlugin(plugin, flags);
  // Ask again when the plugin is tried in a later pass.
  if (!accepted) flags |= ActivateFlag::Interactive;
  flags &= ~ActivateFlag::Skip;
  return accepted;
}

void Plugin::Finish(int status, ActivateFlags& flags) {
  if (skip) {
    KernelLog() << "Bootstrand plugin " << name << " skipped." << std::endl;
  } else if (status == 0) {
    KernelLog() << "Bootstrand plugin " << name << " activated." << std::endl;
    PreemptProviders();
    UpdateHostProfileBarrier(flags);
  } else if (preemptive) {
    if (IsPreemptivePluginsDisabled(flags)) {
      KernelLog() << "Bootstrand plugin " << name << " opportunistic skipped." << std::endl;
    } else {
      KernelLog() << "Bootstrand plugin " << name << " opportunistic activation failed." << std::endl;
    }
  } else {
    AlertLog() << "Bootstrand plugin " << name << " activation failed." << std::endl;
  }
}

void Plugin::PreemptProviders() {
  if (!preemptive) return;
  for (const std::string& tag : provides) {
    auto entries = providers.find(tag);
    if (entries == providers.end()) continue;
    // Most recently registered first.
    for (auto each = entries->second.rbegin(); each != entries->second.rend(); ++each) {
      Plugin* rival = *each;
      if (rival == this) continue;
      KernelLog() << "Bootstrand plugin " << rival->name << " skipped." << std::endl;
      plugins.Remove(rival);
    }
    providers.erase(entries);
  }
}

void Plugin::UpdateHostProfileBarrier(ActivateFlags& flags) {
  if (name == "restore-configuration" && IsStatelessAutodeploy()) flags ^= ActivateFlag::HostProfileBarrier;
}

bool Plugin::ApplyHostProfiles(ActivateFlags& flags, bool wanted) {
  if (!wanted) return false;
  if (flags & ActivateFlag::HostProfileBarrier) {
    WriteLine(STDERR_FILENO, "Plugin tries to execute before host profile requirement.");
    return false;
  }
  return (flags & ActivateFlag::HostProfilePresent) != 0;
}

bool Plugin::IsDryRun(ActivateFlags& flags) { return (flags & ActivateFlag::DryRun) != 0; }

bool Plugin::IsPreemptivePluginsDisabled(const ActivateFlags& flags) {
  return (flags & ActivateFlag::PreemptivePluginsDisabled) != 0;
}

bool Plugin::IsStatelessAutodeploy() { return HostFileExists("/stateless.tgz"); }

}  // namespace bootstrand
