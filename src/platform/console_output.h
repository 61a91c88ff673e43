// The console output. On a terminal, the status channel becomes one live line,
// "[done/total] activating: a; activating: b", rewritten in place (carriage return,
// erase to the end of the line) and cut to the terminal's width; progress lines and
// alerts are written as ordinary lines above it, and the line is drawn again below
// them. When PATH is not a terminal the same texts go out as plain lines (a status
// line only when it changed), without carriage returns or escape sequences. Control
// characters inside a message are shown as "?".
//
// The live line belongs to the process that runs the activation (activation_progress.h):
// anywhere else status messages are not shown, and other messages go out as plain
// lines. Opened without becoming the controlling terminal and without blocking: a
// slow console never holds up the boot. A redraw that does not fit is dropped (the
// next one replaces it); a line waits at most a second for room.
#pragma once

#include "platform/channel_output.h"
#include "platform/unique_fd.h"

namespace bootstrand {

class ConsoleOutput : public ChannelOutput {
 public:
  explicit ConsoleOutput(std::string path) : ChannelOutput("console=" + path), path_(std::move(path)) {}
  bool Takes(std::uint32_t node) const override;
  int Open() override;
  int Deliver(std::uint32_t node, const std::string& text) override;
  void ClearLiveLine() override;

 private:
  int ShowStatus(const std::string& text);
  int ShowLine(const std::string& text);
  // The live line as it fits on one row of the terminal.
  std::string Fitted() const;
  // Writes `bytes`; when the console has no room, a redraw is dropped and a line
  // waits for it a while. 0, or the errno value of a failure.
  int Write(const std::string& bytes, bool line);

  std::string path_;
  UniqueFd fd_;
  bool terminal_ = false;
  std::size_t columns_ = 80;
  std::string live_;       // the live line's text; empty when there is none
  bool shown_ = false;     // the live line is on the screen, the cursor at its end
  std::string lastPlain_;  // the last status line written when not a terminal
};

}  // namespace bootstrand
