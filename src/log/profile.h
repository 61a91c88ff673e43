// The boot timing log "/var/log/sysboot.log". The worker layer creates the one
// Profile of the run at the first hand-over; workers inherit it through fork and
// append one line per plugin; only the creating process writes the summary when the
// object is destroyed at exit.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <ostream>
#include <string>

#include "platform/unique_fd.h"

namespace bootstrand {

class Profile {
 public:
  Profile();
  ~Profile();
  Profile(const Profile&) = delete;
  Profile& operator=(const Profile&) = delete;

  // Appends "[<start> - <now>] sysboot: <name>". The profile must exist.
  static void RecordPlugin(const std::string& name, const timeval& start);
  // The same line with an end read by the caller.
  static void RecordPlugin(const std::string& name, const timeval& start, const timeval& end);
  // The run did not end normally: the profile, if any, writes no summary.
  static void OmitSummary();

 private:
  // Each line goes out in one write, so nothing is ever left in a buffer at fork.
  void WriteLine(const std::string& text);

  timeval startTime {};
  UniqueFd stream;
  pid_t pid;
  bool summary = true;
  static Profile* instance;
};

// Writes a UTC timestamp "YYYY-MM-DD HH:MM:SS.uuuuuu"; leaves the stream's fill at '0'.
std::ostream& WriteTimestamp(std::ostream& stream, const timeval& time);

}  // namespace bootstrand
