// The outputs of the message channels, chosen by BOOTSTRAND_CHANNELS, a comma list of
//   files            the sink files under the host root (see trove.h)
//   console[=PATH]   status and progress as a live line, and the alerts (console_output.h)
//   kmsg[=PATH]      kernel-channel and alert messages as kernel log records (kmsg_output.h)
//   syslog           every channel to syslog(3) (syslog_output.h)
// Unset or empty, or naming no output, it is "files" for a host root under another
// folder and "files,console,kmsg,syslog" on a real host (BOOTSTRAND_ROOT unset, empty
// or "/"), without kmsg where the system log is the journal: the journal reads the
// kernel log too, and would hold every kernel-channel line and alert twice.
// Trove_Set hands every delivered message to Deliver.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/channel_output.h"

namespace bootstrand {

class ChannelOutputs {
 public:
  // The outputs that `channels` lists for the host root `root` (values of
  // BOOTSTRAND_CHANNELS and BOOTSTRAND_ROOT, null when unset), each once; `journal`:
  // the system log is the journal. An entry that names no output is reported on
  // standard error and left out; a list of nothing else is reported once, whole, and
  // the default takes its place. Opens nothing.
  ChannelOutputs(const char* channels, const char* root, bool journal);

  // The outputs for the environment of the moment, made again when BOOTSTRAND_CHANNELS
  // or BOOTSTRAND_ROOT has changed since the last call.
  static ChannelOutputs& Current();

  // Hands one message of the channel of `node` to every output that takes it, opening
  // the outputs first if this is the first message. False only when it reached none
  // of the outputs meant to take it (with files alone, the sink could not be
  // written): the channel then reports its failure and goes silent, as it always has.
  // Otherwise an output that fails, here or when opened, reports itself once on
  // standard error and is left out from then on (files: for this channel only).
  bool Deliver(std::uint32_t node, const std::string& text);

  // The entries of the outputs, in order ("files", "console=/dev/console", ...).
  std::vector<std::string> Entries() const;

  // At exit of the process that opened the outputs, after the live lines are
  // cleared: each output's last word (ChannelOutput::Finish).
  void Finish();

 private:
  struct Listed {
    std::unique_ptr<ChannelOutput> output;
    unsigned leftOut = 0;  // bit n: left out for node n
    int error = 0;         // of the message being delivered
  };

  void Open();
  void LeaveOut(Listed& listed, unsigned nodes, const std::string& what, int error);

  std::vector<Listed> outputs_;
  bool opened_ = false;
  pid_t openedBy_ = 0;

  friend void ClearLiveConsoleLines();
};

// Takes the live status line off every console until the next status message, in the
// process that shows it: the interactive prompt calls it before it writes, and it
// runs at exit, so that the prompt and the shell that comes after the program start
// on a clean line.
void ClearLiveConsoleLines();

}  // namespace bootstrand
