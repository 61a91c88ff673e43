#include "platform/channel_outputs.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "platform/console_output.h"
#include "platform/files_output.h"
#include "platform/host_path.h"
#include "platform/kmsg_output.h"
#include "platform/standard_streams.h"
#include "platform/syslog_output.h"
#include "platform/trove.h"

namespace bootstrand {

namespace {

constexpr const char* kRealHostDefault = "files,console,kmsg,syslog";
constexpr const char* kJournalHostDefault = "files,console,syslog";
constexpr const char* kOtherRootDefault = "files";

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// The output an entry names, or none.
std::unique_ptr<ChannelOutput> MakeOutput(std::string_view entry) {
  std::size_t equals = entry.find('=');
  std::string_view name = entry.substr(0, equals);
  std::optional<std::string> path;
  if (equals != std::string_view::npos) {
    path = std::string(entry.substr(equals + 1));
    if (path->empty()) return nullptr;
  }
  if (name == "files" && !path) return std::make_unique<FilesOutput>();
  if (name == "syslog" && !path) return std::make_unique<SyslogOutput>();
  if (name == "console") return std::make_unique<ConsoleOutput>(path.value_or(ConsoleDevice()));
  if (name == "kmsg") return std::make_unique<KmsgOutput>(path.value_or("/dev/kmsg"));
  return nullptr;
}

// The outputs that `list` names, each once; the entries that name none go to `notOutputs`.
std::vector<std::unique_ptr<ChannelOutput>> OutputsNamed(std::string_view list, std::vector<std::string>& notOutputs) {
  std::vector<std::unique_ptr<ChannelOutput>> outputs;
  while (!list.empty()) {
    std::size_t comma = list.find(',');
    std::string_view entry = Trimmed(list.substr(0, comma));
    list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
    if (entry.empty()) continue;
    std::unique_ptr<ChannelOutput> output = MakeOutput(entry);
    if (output == nullptr) {
      notOutputs.emplace_back(entry);
      continue;
    }
    bool listed = false;
    for (const auto& other : outputs) listed = listed || other->Entry() == output->Entry();
    if (!listed) outputs.push_back(std::move(output));
  }
  return outputs;
}

// What Current() made, and from which values. Never destroyed: messages may still be
// delivered while static objects are torn down at exit.
struct Made {
  std::string channels;
  std::string root;
  ChannelOutputs* outputs = nullptr;
};

Made& TheMade() {
  static Made* made = new Made;
  return *made;
}

// The journal's syslog socket: syslog(3) lines land in the journal, which also reads
// the kernel log.
bool SystemLogIsTheJournal() { return access(HostPath("/run/systemd/journal/dev-log").c_str(), F_OK) == 0; }

void AtExit() {
  ClearLiveConsoleLines();
  if (TheMade().outputs != nullptr) TheMade().outputs->Finish();
}

}  // namespace

ChannelOutputs::ChannelOutputs(const char* channels, const char* root, bool journal) {
  const char* fallback = !IsRealHostRoot(root) ? kOtherRootDefault : journal ? kJournalHostDefault : kRealHostDefault;
  std::string_view given = channels != nullptr ? channels : "";
  std::vector<std::string> notOutputs;
  auto outputs = OutputsNamed(Trimmed(given).empty() ? fallback : given, notOutputs);
  if (outputs.empty()) {
    // A boot without outputs would report nothing, anywhere.
    WriteLine(STDERR_FILENO, "BOOTSTRAND_CHANNELS: \"" + std::string(given) +
                                 "\" names no output (files, console[=PATH], kmsg[=PATH], syslog); the default " +
                                 fallback + " is used");
    outputs = OutputsNamed(fallback, notOutputs);
  } else {
    for (const std::string& entry : notOutputs) {
      WriteLine(STDERR_FILENO, "BOOTSTRAND_CHANNELS: \"" + entry +
                                   "\" is not an output (files, console[=PATH], kmsg[=PATH], syslog); left out");
    }
  }
  for (std::unique_ptr<ChannelOutput>& output : outputs) outputs_.push_back({std::move(output), 0, 0});
}

ChannelOutputs& ChannelOutputs::Current() {
  Made& made = TheMade();
  const char* channels = std::getenv("BOOTSTRAND_CHANNELS");
  const char* root = std::getenv("BOOTSTRAND_ROOT");
  if (channels == nullptr) channels = "";
  if (root == nullptr) root = "";
  if (made.outputs == nullptr) {
    std::atexit(AtExit);
  } else if (made.channels == channels && made.root == root) {
    return *made.outputs;
  }
  // Only tests change the environment while the program runs.
  delete made.outputs;
  made.outputs = new ChannelOutputs(channels, root, SystemLogIsTheJournal());
  made.channels = channels;
  made.root = root;
  return *made.outputs;
}

void ChannelOutputs::Open() {
  opened_ = true;
  openedBy_ = getpid();
  for (Listed& listed : outputs_) {
    int error = listed.output->Open();
    if (error != 0) LeaveOut(listed, ~0u, listed.output->Entry(), error);
  }
}

void ChannelOutputs::LeaveOut(Listed& listed, unsigned nodes, const std::string& what, int error) {
  listed.leftOut |= nodes;
  WriteLine(STDERR_FILENO, "Channel output " + what + " left out: " + std::strerror(error));
}

bool ChannelOutputs::Deliver(std::uint32_t node, const std::string& text) {
  if (!opened_) Open();
  unsigned bit = node < 32 ? 1u << node : 0;
  bool reached = false;
  bool failed = false;
  for (Listed& listed : outputs_) {
    listed.error = 0;
    if ((listed.leftOut & bit) != 0 || !listed.output->Takes(node)) continue;
    listed.error = listed.output->Deliver(node, text);
    if (listed.error == 0) {
      reached = true;
    } else {
      failed = true;
    }
  }
  if (!failed) return true;
  if (!reached) return false;
  for (Listed& listed : outputs_) {
    if (listed.error != 0) LeaveOut(listed, bit, listed.output->Describe(node), listed.error);
  }
  return true;
}

std::vector<std::string> ChannelOutputs::Entries() const {
  std::vector<std::string> entries;
  for (const Listed& listed : outputs_) entries.push_back(listed.output->Entry());
  return entries;
}

void ChannelOutputs::Finish() {
  // Forked workers run the exit handlers too, with copies of the outputs.
  if (!opened_ || openedBy_ != getpid()) return;
  auto takesKernel = [](const Listed& listed) {
    return (listed.leftOut & 1u << Trove_NODE_system_log) == 0 && listed.output->Takes(Trove_NODE_system_log);
  };
  for (Listed& listed : outputs_) {
    if (!takesKernel(listed)) continue;
    std::string elsewhere;
    for (const Listed& other : outputs_) {
      if (&other == &listed || !takesKernel(other)) continue;
      elsewhere += (elsewhere.empty() ? "" : ", ") + other.output->Describe(Trove_NODE_system_log);
    }
    listed.output->Finish(elsewhere);
  }
}

void ClearLiveConsoleLines() {
  ChannelOutputs* outputs = TheMade().outputs;
  if (outputs == nullptr) return;
  for (ChannelOutputs::Listed& listed : outputs->outputs_) listed.output->ClearLiveLine();
}

}  // namespace bootstrand
