// Plugin: the unit of work activated at boot. The kinds (JSON, native, built-in)
// derive from it, fill its fields and call Register() as the last step of their
// constructors; registered plugins live until the process ends. The static members
// are the process-wide registries and the operations on them (loading, queries,
// scheduling); all of them run on the main thread of the scheduler process.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "plugin/activate_flags.h"
#include "plugin/plugin_list.h"
#include "plugin/worker_pool.h"

namespace bootstrand {

using TagSet = std::unordered_set<std::string>;

class Plugin {
 public:
  Plugin(const std::string& name, const std::vector<std::string>& provides,
         const std::vector<std::string>& requires_);
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Runs the plugin's work; true on success. Called only inside a worker process.
  virtual bool Activate(ActivateFlags flags) = 0;

  // Enters the plugin into the registries; the last step of every kind's constructor.
  void Register();

  bool Provides(const std::string& tag) const;
  // True when some listed plugin provides one of `tags`.
  static bool Pending(const TagSet& tags);
  // True when this plugin may not be dispatched now: it is not listed, waits on
  // another listed plugin (see PluginList::WaitersOf), or was handed over already.
  bool Pending() const;
  // True when this plugin, a preemptive provider, holds `other` back: the plain
  // statement of the hold, which PluginList::WaitersOf applies to the listed plugins.
  bool Preempts(const Plugin& other) const;

  // Records `key` in the run-once marker, when it is open; true when the key is
  // disabled.
  static bool RunOnce(const std::string& key);
  static void DisablePlugins(const std::vector<std::string>& list);
  static ActivateFlags Interactive(const std::vector<std::string>& tags);

  // Discovery and loading (loading.cpp). Never throws for a bad file.
  static void LoadPlugins(const std::unordered_set<std::string>& names, std::uint32_t seed);
  static void LoadBuiltins();
  static void LoadPlugin(const std::string& path);
  static void LoadJsonPlugin(const std::string& path);
  static void LoadNativePlugin(const std::string& path);
  // The two plugin directories (host paths), in listing order.
  static const std::vector<std::string>& PluginDirectories();
  // An entry of a plugin directory that listing leaves out without a word although
  // its name does not start with ".": a symbolic link, a special file, or one whose
  // type the directory does not report. Only the linter asks for them.
  struct PassedOverEntry {
    enum class Type { SymbolicLink, SpecialFile, Unreported };
    std::string path;
    Type type;
  };
  // Appends the plugin files of `directory` (a host path), unsorted: its regular
  // files whose names do not start with "."; and to `passedOver`, when given, the
  // entries left out that are neither hidden nor directories.
  static void ListPluginDirectory(const std::string& directory, std::vector<std::string>& paths,
                                  std::vector<PassedOverEntry>* passedOver = nullptr);
  // The plugin files that `paths` (host paths: files or directories of them) name,
  // sorted and without repeats; none given, those of the two plugin directories. A
  // name without "/" is a file of the current folder, listed as "./name", or when
  // there is none, looked up in the plugin directories. Throws std::runtime_error
  // for a path that names nothing.
  static std::vector<std::string> ListPluginFiles(const std::vector<std::string>& paths,
                                                  std::vector<PassedOverEntry>* passedOver = nullptr);
  // The line written to standard error for a file that cannot be loaded.
  static std::string SkippingMessage(const std::string& path, const std::exception& error);

  // Queries and the cycle report (queries.cpp).
  static void DumpPluginsRequiring(const std::string& tag);
  static void DumpPluginsProviding(const std::string& tag);
  static void ListTags();
  static void CheckCycles();
  bool CheckCycle(std::unordered_set<const Plugin*>& visited) const;

  // The activation scheduler (scheduler.cpp).
  static void ActivatePlugins(ActivateFlags& flags);
  // The same run over another pool than the forked workers (tests).
  static void ActivatePlugins(ActivateFlags& flags, WorkerPool& pool);
  static bool ActivatePlugin(Plugin* plugin, ActivateFlags& flags);
  void Finish(int status, ActivateFlags& flags);
  void PreemptProviders();
  void UpdateHostProfileBarrier(ActivateFlags& flags);
  static bool ApplyHostProfiles(ActivateFlags& flags, bool wanted);
  static bool IsDryRun(ActivateFlags& flags);
  static bool IsPreemptivePluginsDisabled(const ActivateFlags& flags);
  static bool IsStatelessAutodeploy();

  // The operator prompt of interactive mode (interactive/debug_action.cpp).
  static ActivateFlags DebugAction(const std::string& name);

  // Empties every registry, forgets the run-once count and closes the run-once
  // marker, for tests that register plugins of their own. Plugins are not freed.
  static void ResetRegistries();

  std::string name;
  TagSet requires_;  // "requires" is a keyword in C++20
  TagSet provides;
  std::string pluginVersion;
  bool runOnce = false;
  TagSet requiredFlags;
  TagSet disablingFlags;
  bool noOperations = false;
  bool skip = false;
  bool preemptive = false;
  bool hostProfileOperations = false;
  std::int32_t apiVersion = 0;

  // Plugins that have not finished, in load order, and where each stands in the run.
  static PluginList plugins;
  // Tag to its providers in registration order; kind tags are never entered.
  static std::unordered_map<std::string, std::vector<Plugin*>> providers;
  static TagSet disabled;
  static TagSet interactiveTags;
  static const TagSet kindTags;

 protected:
  // Plugins are never destroyed through the base class.
  ~Plugin() = default;
};

// Creates or empties the run-once marker "/.runonce" and keeps it open for RunOnce.
// The activator does this before its entry point runs, whatever its mode; nothing
// else may.
void OpenRunOnceMarker();

}  // namespace bootstrand
