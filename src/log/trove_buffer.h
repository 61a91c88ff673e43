// The stream buffer behind the four message channels: it collects the characters of
// one message and hands the whole message to its system-information node on flush.
// It has no put area, so every character reaches overflow() one at a time.
#pragma once

#include <cstdint>
#include <streambuf>
#include <string>

namespace bootstrand {

class TroveBuffer : public std::streambuf {
 public:
  TroveBuffer(std::uint16_t node, bool keepNewlines) : node(node), keepNewlines(keepNewlines) {}

 protected:
  // Delivers the collected message (possibly empty); -1 when delivery failed, after
  // which the owning stream goes bad and stays silent.
  int sync() override;
  int_type overflow(int_type c) override;

 private:
  std::string line;
  std::uint32_t node;
  bool keepNewlines;
};

}  // namespace bootstrand
