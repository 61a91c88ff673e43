#include "log/profile.h"

#include <fcntl.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <ctime>
#include <iomanip>
#include <sstream>

#include "platform/clocks.h"
#include "platform/host_path.h"

namespace bootstrand {

Profile* Profile::instance = nullptr;

Profile::Profile()
    : stream(open(HostPath("/var/log/sysboot.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)),
      pid(getpid()) {
  struct sysinfo info {};
  unsigned long long uptime = sysinfo(&info) == 0 ? static_cast<unsigned long long>(info.uptime) : 0;
  startTime = WallClockNow();
  WriteLine("Ondrik Initialization Time: " + std::to_string(uptime * 1000000ULL) + "\n");
  instance = this;
}

Profile::~Profile() {
  if (summary && getpid() == pid) {
    timeval end = WallClockNow();
    WriteLine("=== Bootstrand configuration info ===\n");
    std::ostringstream start;
    WriteTimestamp(start << " Start: ", startTime) << '\n';
    WriteLine(start.str());
    std::ostringstream finish;
    WriteTimestamp(finish << " End: ", end) << '\n';
    WriteLine(finish.str());
  }
  if (instance == this) instance = nullptr;
}

void Profile::RecordPlugin(const std::string& name, const timeval& start) {
  RecordPlugin(name, start, WallClockNow());
}

void Profile::RecordPlugin(const std::string& name, const timeval& start, const timeval& end) {
  std::ostringstream line;
  line << '[';
  WriteTimestamp(line, start) << " - ";
  WriteTimestamp(line, end) << ']' << " sysboot: " << name << '\n';
  if (instance != nullptr) instance->WriteLine(line.str());
}

void Profile::OmitSummary() {
  if (instance != nullptr) instance->summary = false;
}

void Profile::WriteLine(const std::string& text) {
  if (stream.Valid()) WriteAll(stream.Get(), text.data(), text.size());
}

std::ostream& WriteTimestamp(std::ostream& stream, const timeval& time) {
  tm calendar {};
  time_t seconds = time.tv_sec;
  gmtime_r(&seconds, &calendar);
  stream << std::setfill('0') << std::setw(4) << calendar.tm_year + 1900 << '-' << std::setw(2)
         << calendar.tm_mon + 1 << '-' << std::setw(2) << calendar.tm_mday << ' ' << std::setw(2)
         << calendar.tm_hour << ':' << std::setw(2) << calendar.tm_min << ':' << std::setw(2) << calendar.tm_sec
         << '.' << std::setw(6) << time.tv_usec;
  return stream;
}

}  // namespace bootstrand
