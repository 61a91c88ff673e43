// One activation run: passes over the plugin list in list order, each handing every
// plugin that may start to a WorkerPool, and the results of a pass handled only
// after it. Plugin::ActivatePlugins drives it with the forked workers; the linter and
// the tests drive it with pools of their own, so that the order of a boot is decided
// here and nowhere else. Writes the status channel and the plugins' outcome lines.
#pragma once

#include "plugin/activate_flags.h"
#include "plugin/worker_pool.h"

namespace bootstrand {

class Plugin;

class Scheduler {
 public:
  // `flags` is the run's one flag word; the scheduler changes it as the run goes.
  Scheduler(WorkerPool& pool, ActivateFlags& flags) : pool_(pool), flags_(flags) {}

  // Runs passes until the plugin list is empty (true), or until a pass starts
  // nothing while nothing is in flight (false: the plugins left can never start).
  bool Run();

  // One pass: hands every plugin that may start to the pool, in list order. Returns
  // how many the pool accepted.
  int Pass();
  // Writes the status channel's list of the plugins running now.
  void ReportRunning() const;
  // Collects the pool's results and finishes each plugin, which then leaves the list.
  // Returns how many there were.
  int FinishResults();

  // One attempt to hand `plugin` over, with the operator's prompt in interactive
  // mode; true when the pool accepted it.
  bool Dispatch(Plugin* plugin);

  int InFlight() const { return inFlight_; }

 private:
  int VisitEveryPlugin();
  int VisitReadyPlugins();

  WorkerPool& pool_;
  ActivateFlags& flags_;
  int inFlight_ = 0;
};

}  // namespace bootstrand
