#include "platform/host_log.h"

#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/channel_outputs.h"
#include "platform/forced_failure.h"
#include "platform/standard_streams.h"
#include "platform/str_format.h"

struct LogOutput {
  std::string id;
  int maximumLevel = LOG_INFO;
  bool timeStamps = true;
  bool milliseconds = true;
};

namespace {

// The whole state of the logging library in this process.
struct LogState {
  std::string id = "bootstrand";
  bool syslogOpen = false;
  int syslogMaximumLevel = LOG_INFO;
  bool stderrCopy = true;
  std::unique_ptr<LogOutput> stdoutOutput;
  std::string productInfo;
};

LogState& State() {
  static LogState* state = new LogState;
  return *state;
}

bool Forced(const char* operation) { return bootstrand::ForcedFailure("BOOTSTRAND_LOG_FAIL", operation); }

int LevelFromName(const std::string& name, int fallback) {
  static const char* const names[] = {"emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"};
  for (int level = 0; level < 8; ++level) {
    if (name == names[level]) return level;
  }
  return fallback;
}

const char* LevelName(int level) {
  static const char* const names[] = {"emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"};
  return level >= 0 && level < 8 ? names[level] : "log";
}

std::string Lookup(Dictionary* dictionary, const char* key, const char* fallback) {
  if (dictionary == nullptr) return fallback;
  auto found = dictionary->values.find(key);
  return found == dictionary->values.end() ? fallback : found->second;
}

std::string TimeStamp(bool milliseconds) {
  timeval now {};
  gettimeofday(&now, nullptr);
  tm calendar {};
  gmtime_r(&now.tv_sec, &calendar);
  char text[64];
  std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &calendar);
  if (milliseconds) {
    std::snprintf(text + length, sizeof text - length, ".%03ldZ", static_cast<long>(now.tv_usec / 1000));
  } else {
    std::snprintf(text + length, sizeof text - length, "Z");
  }
  return text;
}

void Emit(int level, const char* format, va_list arguments) {
  char* formatted = Str_SafeVasprintf(nullptr, format, arguments);
  std::string message(formatted);
  std::free(formatted);
  while (!message.empty() && message.back() == '\n') message.pop_back();

  LogState& state = State();
  if (state.syslogOpen && level <= state.syslogMaximumLevel) {
    syslog(level < 0 || level > 7 ? LOG_INFO : level, "%s", message.c_str());
  }
  if (state.stdoutOutput && level <= state.stdoutOutput->maximumLevel) {
    std::string line;
    if (state.stdoutOutput->timeStamps) line = TimeStamp(state.stdoutOutput->milliseconds) + " ";
    line += state.stdoutOutput->id + "[" + std::to_string(getpid()) + "]: " + LevelName(level) + " " + message;
    // Workers share their log files: each line in one write.
    bootstrand::WriteLine(STDOUT_FILENO, line);
  }
  if (state.stderrCopy) bootstrand::WriteLine(STDERR_FILENO, std::string(LevelName(level)) + ": " + message);
}

}  // namespace

void Log_SetProductInfo(const char* name, const char* version, const char* buildNumber,
                        const char* compilationOption) {
  State().productInfo = std::string(name) + " " + version + " " + buildNumber + " " + compilationOption;
}

int Log_InitWithSyslogInt(const char* id, Dictionary* dictionary, int) {
  if (Forced("InitThrow")) throw std::runtime_error("syslog connection refused (forced)");
  if (Forced("InitThrowOther")) throw 42;
  if (Forced("Syslog")) return 0;
  LogState& state = State();
  state.id = Lookup(dictionary, "log.syslogID", id);
  state.syslogMaximumLevel = LevelFromName(Lookup(dictionary, "log.syslogLevel", "info"), LOG_INFO);
  // The log lines go to the system log where the channels do: on a real host, not
  // from a boot of a host root under another folder (a test, an experiment), unless
  // BOOTSTRAND_CHANNELS lists syslog.
  std::vector<std::string> outputs = bootstrand::ChannelOutputs::Current().Entries();
  if (std::find(outputs.begin(), outputs.end(), "syslog") == outputs.end()) return 1;
  // openlog keeps the pointer, so the identity must outlive the connection.
  openlog(state.id.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
  state.syslogOpen = true;
  return 1;
}

LogOutput* Log_NewStdioOutput(const char* id, Dictionary* dictionary, int) {
  if (Forced("Stdio")) return nullptr;
  auto* output = new LogOutput;
  output->id = id;
  output->maximumLevel = LevelFromName(Lookup(dictionary, "log.stdoutLevel", "info"), LOG_INFO);
  output->timeStamps = Lookup(dictionary, "log.useTimeStamps.stdio", "false") == "true";
  output->milliseconds = Lookup(dictionary, "log.useMilliseconds.stdio", "false") == "true";
  return output;
}

bool Log_AddOutput(LogOutput* output) {
  if (output == nullptr) return false;
  if (Forced("AddOutput")) {
    delete output;
    return false;
  }
  State().stdoutOutput.reset(output);
  return true;
}

void Log_SetStderrLevel(int, int maximum) { State().stderrCopy = maximum >= 0; }

void Log_Level(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Emit(level, format, arguments);
  va_end(arguments);
}

void Warning(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Emit(LOG_WARNING, format, arguments);
  va_end(arguments);
}
