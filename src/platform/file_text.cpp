#include "platform/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "platform/unique_fd.h"

namespace bootstrand {

namespace {

// Opens `path` relative to its folder, which stays open between calls: plugin files
// are read folder by folder, and walking the folder's whole path again for each of
// thousands of files costs more than reading them.
int OpenInFolder(const std::string& path, int flags) {
  static std::string* folder = new std::string;
  static int folderFd = -1;
  std::size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return open(path.c_str(), flags);
  if (folderFd < 0 || path.compare(0, slash, *folder) != 0 || folder->size() != slash) {
    int opened = open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0) return open(path.c_str(), flags);
    if (folderFd >= 0) close(folderFd);
    folderFd = opened;
    folder->assign(path, 0, slash);
  }
  int fd = openat(folderFd, path.c_str() + slash + 1, flags);
  // The folder may have been replaced since it was opened: ask by the whole path.
  if (fd < 0 && errno == ENOENT) fd = open(path.c_str(), flags);
  return fd;
}

}  // namespace

std::optional<std::string> ReadWholeFile(const std::string& path) {
  // Non-blocking, so that opening a named pipe does not wait for a writer.
  UniqueFd file(OpenInFolder(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.Valid()) return std::nullopt;
  struct stat status {};
  if (fstat(file.Get(), &status) != 0 || S_ISDIR(status.st_mode)) return std::nullopt;
  if (!S_ISREG(status.st_mode)) throw std::runtime_error("not a regular file");
  // One byte more than the size, so that a file that has not grown is read in one
  // call and its end seen without another.
  std::string text(static_cast<std::size_t>(status.st_size) + 1, '\0');
  std::size_t length = 0;
  for (;;) {
    if (length == text.size()) text.resize(text.size() * 2);
    ssize_t count = read(file.Get(), text.data() + length, text.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    length += static_cast<std::size_t>(count);
    if (count == 0 || length < text.size()) break;
  }
  text.resize(length);
  return text;
}

}  // namespace bootstrand
