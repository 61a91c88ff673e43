#include "boot-step/run_once_state.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "platform/host_path.h"
#include "platform/unique_fd.h"

namespace bootstrand::boot_step {

namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
  throw std::runtime_error(what + ": " + std::strerror(error));
}

constexpr char kTemporaryPrefix[] = ".run-once.";

// A power cut between a temporary's creation and its rename leaves it behind. The step
// is the only writer, one run a boot, so every temporary found is such a leftover.
void RemoveLeftTemporaries(const std::string& folder) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    if (entry.path().filename().string().starts_with(kTemporaryPrefix)) std::filesystem::remove(entry.path(), ignored);
  }
}

}  // namespace

std::vector<std::string> ReadRunOnceState(const std::string& path) {
  // O_NONBLOCK: a named pipe put in its place must not hold the boot until someone
  // writes to it.
  UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.Valid()) {
    if (errno == ENOENT) return {};
    Fail("cannot read " + path, errno);
  }
  struct stat status {};
  if (fstat(file.Get(), &status) != 0) Fail("cannot read " + path, errno);
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(path + " is not a regular file");
  std::string text;
  char buffer[65536];
  for (;;) {
    ssize_t count = read(file.Get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) Fail("cannot read " + path, errno);
    if (count == 0) break;
    text.append(buffer, static_cast<std::size_t>(count));
  }
  std::vector<std::string> keys;
  for (std::size_t start = 0; start < text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) keys.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return keys;
}

void WriteRunOnceState(const std::string& path, const std::vector<std::string>& keys) {
  std::string folder = path.substr(0, path.rfind('/'));
  if (!MakeDirectories(folder)) Fail("cannot make " + folder, errno);
  RemoveLeftTemporaries(folder);
  std::string temporary = folder + "/" + kTemporaryPrefix + "XXXXXX";
  UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.Valid()) Fail("cannot write in " + folder, errno);
  std::string text;
  for (const std::string& key : keys) text += key + "\n";
  bool written = WriteAll(file.Get(), text.data(), text.size()) && fchmod(file.Get(), 0644) == 0 &&
                 fsync(file.Get()) == 0;
  int error = errno;
  file.Reset();
  if (!written || rename(temporary.c_str(), path.c_str()) != 0) {
    if (written) error = errno;
    unlink(temporary.c_str());
    Fail("cannot write " + path, error);
  }
  // The rename is durable only once the folder is.
  UniqueFd directory(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.Valid() || fsync(directory.Get()) != 0) Fail("cannot flush " + folder, errno);
}

}  // namespace bootstrand::boot_step
