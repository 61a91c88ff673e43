// The scheduler's side of the boot record: numbers the loaded plugins (their index
// in the record and their slot of the activation stamps), and turns each plugin's
// end into its line. Begin runs once, in the activator's start-up, before the first
// worker is forked; without it (queries, tests driving the scheduler) every other
// call does nothing. Workers call Started and Ended around a plugin's activation.
#pragma once

#include <string>

#include "platform/clocks.h"
#include "plugin/activate_flags.h"

namespace bootstrand {

class Plugin;

class RecordedRun {
 public:
  // Opens the boot record with the run's settings and every listed plugin.
  static void Begin(ActivateFlags flags);

  // In the worker, around the plugin's activation; Ended also hands back the reading
  // it stamped, for the timing log.
  static ClockReading Started(const Plugin& plugin);
  static ClockReading Ended(const Plugin& plugin);
  // In the scheduler: the plugin is passed over without running.
  static void PassedOver(const Plugin& plugin);

  // The scheduler learnt the plugin's outcome: `outcome` is the end of its outcome
  // line ("activated", "activation failed", ...). A run-once plugin that activated
  // is on the disk before this returns.
  static void Finished(const Plugin& plugin, const std::string& outcome, int status);
  static void Preempted(const Plugin& plugin, const Plugin& by);

  static void Completed();
  static void Interrupted(int signal, int status);
  static void UnmetDependencies(int status);
};

}  // namespace bootstrand
