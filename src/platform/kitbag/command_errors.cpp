#include "platform/kitbag/command_errors.h"

#include <algorithm>

#include "platform/unique_fd.h"

namespace Kitbag::AutoCli {

CommandErrors::CommandErrors(int passOn) : passOn_(passOn) {}

void CommandErrors::Write(std::string_view text) const {
  if (!text.empty()) bootstrand::WriteAll(passOn_, text.data(), text.size());
}

void CommandErrors::Count(std::string_view text) {
  for (char c : text) {
    if (c != '\n') {
      lines_ += inLine_ ? 0 : 1;
      inLine_ = true;
    } else {
      inLine_ = false;
    }
  }
}

void CommandErrors::Add(std::string_view text) {
  Count(text);
  if (!passing_) {
    held_.append(text);
    if (held_.size() <= kHeldBytes && lines_ <= kHeldLines) return;
    // More than the failure text can show: from here on nothing is held back. The
    // held text goes first, so that the log keeps the output in its order.
    passing_ = true;
    partial_.swap(held_);
    held_.assign(partial_, 0, kHeldBytes);
    text = {};
  }
  partial_.append(text);
  // Whole lines in one write each time, so that lines of commands running in other
  // workers are never cut into this output; a line longer than the held bytes goes
  // on in pieces rather than growing without bound.
  std::size_t end = partial_.rfind('\n');
  if (end != std::string::npos) {
    Write(std::string_view(partial_).substr(0, end + 1));
    partial_.erase(0, end + 1);
  }
  if (partial_.size() >= kHeldBytes) {
    Write(partial_);
    partial_.clear();
  }
}

void CommandErrors::PassOn() {
  Write(passing_ ? partial_ : held_);
  partial_.clear();
  if (!passing_) held_.clear();
}

std::vector<std::string> CommandErrors::FailureLines() const {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < held_.size() && lines.size() < kHeldLines) {
    std::size_t end = std::min(held_.find('\n', start), held_.size());
    if (end > start) lines.push_back(held_.substr(start, end - start));
    start = end + 1;
  }
  if (lines_ > lines.size()) {
    lines.push_back("... " + std::to_string(lines_ - lines.size()) + " more lines of standard error left out");
  }
  return lines;
}

}  // namespace Kitbag::AutoCli
