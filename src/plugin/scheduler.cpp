// The activation scheduler: walks the plugin list in passes, hands every plugin
// that is no longer pending to the worker pool, and after each full pass reports the
// results that came back and drops those plugins from the list.
#include "plugin/scheduler.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "log/channels.h"
#include "log/profile.h"
#include "main/startup.h"
#include "platform/activation_progress.h"
#include "platform/feature_state.h"
#include "platform/host_path.h"
#include "platform/standard_streams.h"
#include "plugin/plugin.h"
#include "plugin/recorded_run.h"
#include "worker/worker.h"

namespace bootstrand {

namespace {

bool HostFileExists(const char* path) {
  struct stat status {};
  return stat(HostPath(path).c_str(), &status) == 0;
}

// Once found, a host profile stays present for the run: the bit is never cleared, so
// the files are not looked for again.
void TestHostProfileMarkers(ActivateFlags& flags) {
  if (flags & ActivateFlag::HostProfilePresent) return;
  if (HostFileExists("/etc/tessary/hostprofile.xml") || HostFileExists("/etc/tessary/hostprofile.xml.gz")) {
    flags |= ActivateFlag::HostProfilePresent;
  }
}

// The remaining plugins can never start. The run ends here as a failure, without the
// timing summary of a completed run; exit() rather than _exit(), so that every
// stream the program has written to is flushed on the way out.
[[noreturn]] void StopOnUnmetDependencies() {
  Profile::OmitSummary();
  RecordedRun::UnmetDependencies(kUnmetDependenciesStatus);
  std::exit(kUnmetDependenciesStatus);
}

}  // namespace

bool Scheduler::Run() {
  StartActivationProgress(Plugin::plugins.size());
  while (!Plugin::plugins.empty()) {
    // The list does not change during a pass: results are handled only after it.
    inFlight_ += Pass();
    if (inFlight_ == 0) return false;
    ReportRunning();
    inFlight_ -= FinishResults();
    UpdateActivationProgress(Plugin::plugins.size());
  }
  return true;
}

int Scheduler::Pass() { return (flags_ & ActivateFlag::Interactive) ? VisitEveryPlugin() : VisitReadyPlugins(); }

// One pass as the operator sees it in interactive mode: every listed plugin is
// visited, because the prompt comes before the pool is asked.
int Scheduler::VisitEveryPlugin() {
  int started = 0;
  for (Plugin* plugin : Plugin::plugins) {
    TestHostProfileMarkers(flags_);
    if (Dispatch(plugin)) ++started;
  }
  return started;
}

// The same pass without prompting, at the cost of what it dispatches. Visiting a
// plugin that is not ready has no effect, and neither has visiting one that needs a
// worker once the pool has no room; so only the ready plugins are visited, in list
// order, and once the pool is full only those that are passed over. The host-profile
// markers are tested before each of these visits, which is what a hand-over copies
// into its request.
int Scheduler::VisitReadyPlugins() {
  int started = 0;
  PluginList& list = Plugin::plugins;
  std::uint64_t position = 0;  // the list position reached by this pass
  for (;;) {
    const PluginList::Ordered& toRun = list.ReadyToRun();
    const PluginList::Ordered& toPassOver = list.ReadyToPassOver();
    auto run = pool_.HasRoom() ? toRun.lower_bound(position) : toRun.end();
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
    TestHostProfileMarkers(flags_);
    if (Dispatch(plugin)) ++started;
  }
}

void Scheduler::ReportRunning() const {
  StatusLog() << '\r';
  for (const auto& [position, plugin] : Plugin::plugins.Running()) StatusLog() << "activating: " << plugin->name << '\n';
  StatusLog().flush();
}

int Scheduler::FinishResults() {
  std::vector<PluginResult> results = pool_.Collect();
  for (const PluginResult& result : results) {
    result.first->Finish(result.second, flags_);
    Plugin::plugins.Remove(result.first);
  }
  return static_cast<int>(results.size());
}

bool Scheduler::Dispatch(Plugin* plugin) {
  if (plugin->Pending()) return false;
  bool prompted = false;
  if ((flags_ & ActivateFlag::Interactive) && !Plugin::Pending(Plugin::interactiveTags)) {
    flags_ &= ~ActivateFlag::Interactive;
    flags_ |= Plugin::DebugAction(plugin->name);
    prompted = true;
  }
  WorkerPool::HandOverResult result = pool_.HandOver(plugin, flags_);
  // Ask again when the plugin is tried in a later pass.
  if (prompted && result == WorkerPool::HandOverResult::Refused) flags_ |= ActivateFlag::Interactive;
  flags_ &= ~ActivateFlag::Skip;
  if (result == WorkerPool::HandOverResult::Refused) return false;
  Plugin::plugins.HandedOver(plugin, result == WorkerPool::HandOverResult::Running);
  return true;
}

void Plugin::ActivatePlugins(ActivateFlags& flags) { ActivatePlugins(flags, Worker::Forked()); }

void Plugin::ActivatePlugins(ActivateFlags& flags, WorkerPool& pool) {
  FeatureState_Init();
  ProgressLog() << "Activating Bootstrand Plugins: " << std::endl;
  Scheduler scheduler(pool, flags);
  if (!scheduler.Run()) {
    AlertLog() << "Bootstrand has unmet dependencies!" << std::endl;
    CheckCycles();
    StopOnUnmetDependencies();
  }
  StatusLog() << '\r';
  StatusLog().flush();
  ProgressLog() << "All bootstrand plugins activated" << std::endl;
}

bool Plugin::ActivatePlugin(Plugin* plugin, ActivateFlags& flags) {
  return Scheduler(Worker::Forked(), flags).Dispatch(plugin);
}

void Plugin::Finish(int status, ActivateFlags& flags) {
  if (skip) {
    KernelLog() << "Bootstrand plugin " << name << " skipped." << std::endl;
    RecordedRun::Finished(*this, "skipped", status);
  } else if (status == 0) {
    KernelLog() << "Bootstrand plugin " << name << " activated." << std::endl;
    // On the disk before anything else happens: the plugins it lets go come after.
    RecordedRun::Finished(*this, "activated", status);
    PreemptProviders();
    UpdateHostProfileBarrier(flags);
  } else if (preemptive) {
    if (IsPreemptivePluginsDisabled(flags)) {
      KernelLog() << "Bootstrand plugin " << name << " opportunistic skipped." << std::endl;
      RecordedRun::Finished(*this, "opportunistic skipped", status);
    } else {
      KernelLog() << "Bootstrand plugin " << name << " opportunistic activation failed." << std::endl;
      RecordedRun::Finished(*this, "opportunistic activation failed", status);
    }
  } else {
    AlertLog() << "Bootstrand plugin " << name << " activation failed." << std::endl;
    RecordedRun::Finished(*this, "activation failed", status);
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
      RecordedRun::Preempted(*rival, *this);
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
