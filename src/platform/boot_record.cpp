#include "platform/boot_record.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/boot_id.h"
#include "platform/host_path.h"
#include "platform/standard_streams.h"
#include "platform/unique_fd.h"

namespace bootstrand {

namespace {

// Keys stay in the order written, "event" first.
using Json = nlohmann::ordered_json;

struct Record {
  UniqueFd file;
  std::string path;
  bool failed = false;  // said once; nothing more is written
  bool ended = false;
};

Record& TheRecord() {
  static Record record;
  return record;
}

void Fail(const std::string& what, int error) {
  Record& record = TheRecord();
  if (!record.failed) {
    WriteLine(STDERR_FILENO, "bootstrand: cannot write the boot record " + record.path + ": " + what + ": " +
                                 std::strerror(error) + "; the boot goes on without it");
  }
  record.failed = true;
  record.file.Reset();
}

Json Moment(const ClockReading& reading) {
  return {{"wall_us", reading.wallMicroseconds}, {"boottime_us", reading.boottimeMicroseconds}};
}

// Names come from plugin files and may hold any bytes: what is not UTF-8 becomes
// U+FFFD rather than an exception.
std::string Line(const Json& object) {
  return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

void Write(const std::string& text, bool durable) {
  Record& record = TheRecord();
  if (!record.file.Valid() || record.ended) return;
  if (!WriteAll(record.file.Get(), text.data(), text.size())) return Fail("writing", errno);
  if (durable && fdatasync(record.file.Get()) != 0) Fail("fdatasync", errno);
}

// A new file's name reaches the disk only with its folder.
void SyncFolder(const std::string& path) {
  std::string folder = path.substr(0, path.rfind('/'));
  UniqueFd directory(open(folder.empty() ? "/" : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.Valid() || fsync(directory.Get()) != 0) Fail("fsync of its folder", errno);
}

}  // namespace

void BootRecord::Open(const RecordedRunSettings& settings, const std::vector<RecordedPlugin>& plugins,
                      const ClockReading& at) {
  Record& record = TheRecord();
  record = {};
  record.path = HostPath(kPath);
  std::string folder = record.path.substr(0, record.path.rfind('/'));
  if (!MakeDirectories(folder)) return Fail("making " + folder, errno);
  if (rename(record.path.c_str(), HostPath(kPreviousPath).c_str()) != 0 && errno != ENOENT) {
    return Fail("keeping the last one as " + HostPath(kPreviousPath), errno);
  }
  // O_NOFOLLOW: a link put in its place is refused, not written through.
  record.file.Reset(open(record.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!record.file.Valid()) return Fail("opening it", errno);

  std::optional<std::string> bootId = CurrentBootId();
  Json start = {{"event", "start"},
                {"version", BOOTSTRAND_VERSION},
                {"boot_id", bootId ? Json(*bootId) : Json(nullptr)},
                {"pid", static_cast<long long>(getpid())},
                {"dry_run", settings.dryRun},
                {"disabled", settings.disabled},
                {"worker_limit", settings.workerLimit ? Json(*settings.workerLimit) : nullptr},
                {"preemptive_plugins_disabled", settings.preemptivePluginsDisabled},
                {"interactive", settings.interactive},
                {"at", Moment(at)}};
  std::string text = Line(start);
  for (const RecordedPlugin& plugin : plugins) {
    text += Line({{"event", "plugin"},
                  {"index", plugin.index},
                  {"name", plugin.name},
                  {"kind", plugin.kind},
                  {"provides", plugin.provides},
                  {"requires", plugin.requires_},
                  {"run_once_key", plugin.runOnceKey ? Json(*plugin.runOnceKey) : nullptr},
                  {"preemptive", plugin.preemptive},
                  {"disabled", plugin.disabled}});
  }
  // Durable from the start, name and lines: a boot whose power is cut before its
  // first run-once plugin must still leave a record that it began, or the next boot
  // would read nothing at all instead of an interrupted run.
  Write(text, true);
  if (record.file.Valid()) SyncFolder(record.path);
}

bool BootRecord::IsOpen() { return TheRecord().file.Valid(); }

void BootRecord::Outcome(const RecordedOutcome& outcome, bool durable) {
  if (!IsOpen()) return;
  Json line = {{"event", "outcome"},
               {"index", outcome.index},
               {"name", outcome.name},
               {"outcome", outcome.outcome},
               {"status", outcome.status ? Json(*outcome.status) : nullptr},
               {"passed_over", outcome.passedOver}};
  if (outcome.start) line["start"] = Moment(*outcome.start);
  if (outcome.end) line["end"] = Moment(*outcome.end);
  if (outcome.preemptedBy) line["preempted_by"] = *outcome.preemptedBy;
  Write(Line(line), durable);
}

void BootRecord::End(const std::string& outcome, int status, const char* signal, const ClockReading& at) {
  if (!IsOpen()) return;
  Json line = {{"event", "end"}, {"outcome", outcome}, {"status", status}};
  if (signal != nullptr) line["signal"] = signal;
  line["at"] = Moment(at);
  Write(Line(line), true);
  TheRecord().ended = true;
}

void BootRecord::Close() { TheRecord() = {}; }

}  // namespace bootstrand
