#include "platform/console_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/activation_progress.h"
#include "platform/trove.h"

namespace bootstrand {

namespace {

constexpr const char* kEraseLine = "\r\x1b[K";
constexpr auto kLinePatience = std::chrono::seconds(1);

// Control characters (an escape in a plugin's file name, say) would act on the
// terminal; they are shown as "?".
std::string Printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return text;
}

}  // namespace

bool ConsoleOutput::Takes(std::uint32_t node) const {
  return node == Trove_NODE_system_progressTerm_statusText || node == Trove_NODE_system_progressTerm_progressText ||
         node == Trove_NODE_system_sysAlert;
}

int ConsoleOutput::Open() {
  // O_NOCTTY: a boot service is a session leader without a terminal, and must not
  // make the console its own. O_NONBLOCK: neither a serial line waiting for carrier
  // nor a console that cannot keep up may stop the boot.
  fd_.Reset(open(path_.c_str(), O_WRONLY | O_APPEND | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!fd_.Valid()) return errno;
  terminal_ = isatty(fd_.Get()) == 1;
  winsize size {};
  if (terminal_ && ioctl(fd_.Get(), TIOCGWINSZ, &size) == 0 && size.ws_col > 1) columns_ = size.ws_col;
  return 0;
}

int ConsoleOutput::Deliver(std::uint32_t node, const std::string& text) {
  if (node == Trove_NODE_system_progressTerm_statusText) return ShowStatus(text);
  return ShowLine(text);
}

int ConsoleOutput::ShowStatus(const std::string& text) {
  std::optional<ActivationProgress> progress = CurrentActivationProgress();
  if (!progress) return 0;
  std::string status = Printable(OnOneLine(text));
  std::string live;
  if (!status.empty()) live = "[" + std::to_string(progress->done) + "/" + std::to_string(progress->total) + "] " + status;
  if (!terminal_) {
    live_ = live;
    if (live.empty() || live == lastPlain_) return 0;
    lastPlain_ = live;
    return Write(live + "\n", true);
  }
  // Nothing to change on the screen.
  if (live == live_ && shown_ == !live.empty()) return 0;
  live_ = live;
  shown_ = !live_.empty();
  return Write(kEraseLine + Fitted(), false);
}

int ConsoleOutput::ShowLine(const std::string& text) {
  if (text.empty()) return 0;
  if (!terminal_) return Write(Printable(text) + "\n", true);
  // "\r\n": the console may have been left without newline translation.
  std::string bytes = (shown_ ? kEraseLine : "") + Printable(text) + "\r\n";
  // Only the process that runs the activation draws the line again.
  shown_ = CurrentActivationProgress() && !live_.empty();
  if (shown_) bytes += Fitted();
  return Write(bytes, true);
}

void ConsoleOutput::ClearLiveLine() {
  if (!shown_ || !CurrentActivationProgress()) return;
  shown_ = false;
  Write(kEraseLine, false);
}

std::string ConsoleOutput::Fitted() const {
  // One column stays free: a character in the last one wraps the cursor onto the
  // next row on some terminals, and the carriage return would no longer reach the
  // start of the line.
  std::size_t room = columns_ - 1;
  std::size_t characters = 0;
  for (std::size_t i = 0; i < live_.size(); ++i) {
    // Bytes that continue a UTF-8 sequence take no column of their own.
    if ((static_cast<unsigned char>(live_[i]) & 0xC0) == 0x80) continue;
    if (++characters > room) return live_.substr(0, i);
  }
  return live_;
}

int ConsoleOutput::Write(const std::string& bytes, bool line) {
  auto deadline = std::chrono::steady_clock::now() + kLinePatience;
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t written = write(fd_.Get(), bytes.data() + done, bytes.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return errno;
    if (!line) return 0;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd entry {fd_.Get(), POLLOUT, 0};
    if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) == 0) return 0;
  }
  return 0;
}

}  // namespace bootstrand
