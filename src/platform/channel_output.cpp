#include "platform/channel_output.h"

namespace bootstrand {

std::string ChannelOutput::Describe(std::uint32_t) const { return entry_; }

std::string OnOneLine(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    std::size_t end = text.find('\n');
    std::string_view part = text.substr(0, end);
    if (!part.empty()) {
      if (!line.empty()) line += "; ";
      line += part;
    }
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return line;
}

}  // namespace bootstrand
