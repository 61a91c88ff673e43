// One place where the messages of the channels go: the sink files, a console, the
// kernel log or the system log. ChannelOutputs makes the outputs from
// BOOTSTRAND_CHANNELS, opens each once, in the process that delivers first (so forked
// workers inherit what it opened; every descriptor is close-on-exec), and hands it
// each message of the channels it takes, after the channel's own rules.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace bootstrand {

class ChannelOutput {
 public:
  explicit ChannelOutput(std::string entry) : entry_(std::move(entry)) {}
  virtual ~ChannelOutput() = default;
  ChannelOutput(const ChannelOutput&) = delete;
  ChannelOutput& operator=(const ChannelOutput&) = delete;

  // The output as BOOTSTRAND_CHANNELS names it, with its path ("kmsg=/dev/kmsg").
  const std::string& Entry() const { return entry_; }
  // What failed, for the one line that reports it: the entry, or the sink file.
  virtual std::string Describe(std::uint32_t node) const;

  // Whether messages of the channel of `node` go here.
  virtual bool Takes(std::uint32_t node) const = 0;
  // 0, or the errno value of a failure; called once, before the first message.
  virtual int Open() { return 0; }
  // Delivers one message; 0, or the errno value of a failure.
  virtual int Deliver(std::uint32_t node, const std::string& text) = 0;
  // Takes a live line that this process shows off the screen until the next status
  // message; for consoles only.
  virtual void ClearLiveLine() {}
  // The last word of an output that still takes the kernel channel, at exit of the
  // process that opened it: the kmsg output's count of the lines it held back.
  // `kernelElsewhere` names the other outputs that took the channel, as in a
  // failure's report ("files (/var/run/trove/system.log.log), syslog"), or is empty.
  virtual void Finish(const std::string& /*kernelElsewhere*/) {}

 private:
  std::string entry_;
};

// The status channel's text, one line per plugin in progress, as one line: the
// lines joined by "; ", empty ones left out.
std::string OnOneLine(std::string_view text);

}  // namespace bootstrand
