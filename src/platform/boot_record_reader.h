// The boot record read back (see boot_record.h for its lines). Reading never throws
// on content: a line that is not a JSON object of a known event is reported as a
// problem and skipped, and so is a last line cut off by a power cut or a kill in the
// middle of its write. Events this reader does not know are passed over in silence,
// so that a newer activator's record still reads.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "platform/boot_record.h"

namespace bootstrand {

struct BootRecordContents {
  struct Start {
    std::string version;
    std::optional<std::string> bootId;
    std::int64_t pid = 0;
    RecordedRunSettings settings;
    ClockReading at;
  };
  struct End {
    std::string outcome;  // "completed", "interrupted", "unmet dependencies"
    std::int32_t status = 0;
    std::optional<std::string> signal;
    ClockReading at;
  };

  std::optional<Start> start;
  std::vector<RecordedPlugin> plugins;    // in load order
  std::vector<RecordedOutcome> outcomes;  // in the order the scheduler learnt them
  std::optional<End> end;                 // none: the run did not end (power cut, kill)
  std::vector<std::string> problems;      // "FILE:LINE: what", one per line skipped
};

BootRecordContents ReadBootRecord(std::istream& input, const std::string& file);

// True when the stream's first character that is not white space opens a JSON
// object, as a boot record's does and a timing log's never does. Leaves the stream
// at its start.
bool LooksLikeBootRecord(std::istream& input);

}  // namespace bootstrand
