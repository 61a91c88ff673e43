// Stand-in for the host's configuration store. Every call is appended as one line to
// "/var/lib/configstore/calls.log" under the host root. BOOTSTRAND_CONFIGSTORE_FAIL
// (a comma list of EndAutoConf, CleanupBootState, EnablePalladNotification) makes the
// named operations throw std::runtime_error for tests.
#pragma once

class CormConfigStore {
 public:
  static void EndAutoConf();
  static void CleanupBootState();
  static void EnablePalladNotification(bool enable);
};
