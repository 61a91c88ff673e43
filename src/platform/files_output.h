// The files output: every message of a channel appended as one line to the sink file
// of its node (TroveSinkPath; the format is described in trove.h), in one write. The
// sinks are opened on their first message and stay open, shared with forked workers.
#pragma once

#include "platform/channel_output.h"

namespace bootstrand {

class FilesOutput : public ChannelOutput {
 public:
  FilesOutput() : ChannelOutput("files") {}
  // The sink file, for the node whose sink failed.
  std::string Describe(std::uint32_t node) const override;
  bool Takes(std::uint32_t) const override { return true; }
  int Deliver(std::uint32_t node, const std::string& text) override;
};

}  // namespace bootstrand
