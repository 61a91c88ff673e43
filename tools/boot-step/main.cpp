// The host's boot step, /usr/libexec/bootstrand/boot: bootstrand.service runs it at
// every boot instead of the activator itself. It passes the run-once keys of earlier
// boots to bootstrand with --disable, so that a run-once plugin runs once for each of
// its versions; after the boot it adds the keys of the run-once plugins that
// activated, as the boot record says; last, it publishes the boot's metrics
// (boot-metrics, beside it). Its own failures are said on standard error and never
// stop the boot: at worst a run-once plugin runs again. The exit status is bootstrand's.
//
//   BOOTSTRAND_ROOT       every host path is taken under this folder, as bootstrand
//                         takes it
//   BOOTSTRAND_ACTIVATOR  the activator to run; by default the bootstrand installed
//                         with this step
// Arguments are passed on to bootstrand.
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "boot-step/child_program.h"
#include "boot-step/run_once_keys.h"
#include "boot-step/run_once_state.h"
#include "platform/boot_record.h"
#include "platform/boot_record_reader.h"
#include "platform/host_path.h"
#include "platform/standard_streams.h"

namespace {

using namespace bootstrand;
using namespace bootstrand::boot_step;

void Say(const std::string& text) { WriteLine(STDERR_FILENO, "bootstrand boot step: " + text); }

// The folder this program was started from.
std::string OwnFolder(const char* argv0) {
  char path[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  std::string self = length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string(argv0);
  std::size_t slash = self.rfind('/');
  return slash == std::string::npos ? "." : self.substr(0, slash);
}

std::optional<BootRecordContents> ReadRecord(const std::string& path) {
  std::ifstream input(path);
  if (!input) return std::nullopt;
  BootRecordContents record = ReadBootRecord(input, path);
  for (const std::string& problem : record.problems) Say(problem);
  return record;
}

// Adds `activated` to the keys kept in `path`; returns the keys now kept. A file that
// could not be read at start is left alone rather than replaced by a shorter list.
std::vector<std::string> Remember(const std::string& path, const std::optional<std::vector<std::string>>& known,
                                  const std::vector<std::string>& activated) {
  bool changed = false;
  std::vector<std::string> keys = Merged(known.value_or(std::vector<std::string>{}), activated, changed);
  if (!changed || !known) return keys;
  try {
    WriteRunOnceState(path, keys);
  } catch (const std::runtime_error& error) {
    Say(std::string(error.what()) + ": run-once plugins of this boot run again at the next");
  }
  return keys;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = OwnFolder(argc > 0 ? argv[0] : "boot");
  const std::string statePath = HostPath("/var/lib/bootstrand/run-once");
  const std::string recordPath = HostPath(BootRecord::kPath);
  const char* chosen = std::getenv("BOOTSTRAND_ACTIVATOR");
  const std::string activator = chosen != nullptr && *chosen != '\0' ? chosen : folder + "/" BOOTSTRAND_STEP_TO_ACTIVATOR;

  std::optional<std::vector<std::string>> known;
  try {
    known = ReadRunOnceState(statePath);
  } catch (const std::runtime_error& error) {
    Say(std::string(error.what()) + ": the run-once plugins of earlier boots run again");
  }
  // The last run's record first: a boot cut short by a power cut or a stop never got
  // as far as keeping what activated in it.
  std::optional<BootRecordContents> last = ReadRecord(recordPath);
  std::vector<std::string> keys = Remember(statePath, known, last ? ActivatedRunOnceKeys(*last) : std::vector<std::string>{});
  if (known) known = keys;

  DisableArguments disable = DisableArgumentsFor(keys, last ? &*last : nullptr);
  for (const std::string& report : disable.reports) Say(report);
  std::vector<std::string> arguments;
  for (const std::string& value : disable.values) {
    arguments.push_back("--disable");
    arguments.push_back(value);
  }
  arguments.insert(arguments.end(), argv + (argc > 0 ? 1 : 0), argv + argc);
  int status = RunChildProgram(activator, arguments);

  // Whatever record is there now: this run's, or the last one's again when the
  // activator did not get to start one, whose keys are kept already.
  if (std::optional<BootRecordContents> record = ReadRecord(recordPath)) {
    std::vector<std::string> activated = ActivatedRunOnceKeys(*record);
    Remember(statePath, known, activated);
    if (!known && !activated.empty()) {
      Say("the run-once plugins that activated are not kept, since " + statePath +
          " could not be read: they run again at the next boot");
    }
  }

  // The metrics' publisher finds the analyzer beside the activator.
  std::string path = activator.substr(0, activator.rfind('/') + 1);
  if (const char* inherited = std::getenv("PATH")) path += std::string(":") + inherited;
  setenv("PATH", path.c_str(), 1);
  if (RunChildProgram(folder + "/boot-metrics", {}) != 0) Say("the boot's metrics were not published");
  return status;
}
