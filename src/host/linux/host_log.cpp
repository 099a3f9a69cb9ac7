#include "host_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <system_error>

namespace palvin::host {

namespace {

using FinderLog::kTrimKeep;
using FinderLog::kTrimThreshold;

// Past the extension's log's threshold, the file is replaced by its last
// bytes, as that log does; the caller holds the lock.
void trim(int fd, const std::string& path, off_t size) {
  if (size <= static_cast<off_t>(kTrimThreshold)) return;
  std::string kept(kTrimKeep, '\0');
  ssize_t got = ::pread(fd, kept.data(), kept.size(), size - static_cast<off_t>(kTrimKeep));
  if (got != static_cast<ssize_t>(kept.size())) return;
  std::string temporary = path + ".XXXXXX";
  int out = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (out < 0) return;
  bool written = ::write(out, kept.data(), kept.size()) == static_cast<ssize_t>(kept.size());
  if (::close(out) != 0 || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
  }
}

}  // namespace

Status appendWholeLine(const std::string& path, std::string_view line) {
  int fd = -1;
  for (int attempt = 0; attempt < 3; ++attempt) {
    fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0600);
    if (fd < 0) return Error{path + ": " + std::generic_category().message(errno)};
    // The lock dies with its holder, so a killed writer never blocks the rest.
    while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    // A trim by another writer meanwhile put a new file under the name.
    struct stat locked {
    }, named{};
    if (::fstat(fd, &locked) == 0 && ::stat(path.c_str(), &named) == 0 && locked.st_ino == named.st_ino &&
        locked.st_dev == named.st_dev) {
      break;
    }
    ::close(fd);
    fd = -1;
  }
  if (fd < 0) return Error{path + ": replaced while being written"};
  std::string bytes;
  struct stat info {};
  char last = '\n';
  if (::fstat(fd, &info) == 0 && info.st_size > 0 && ::pread(fd, &last, 1, info.st_size - 1) == 1 &&
      last != '\n') {
    bytes.push_back('\n');
  }
  bytes.append(line);
  ssize_t written;
  do {
    written = ::write(fd, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  int error = written < 0 ? errno : EIO;
  if (written > 0 && ::fstat(fd, &info) == 0) trim(fd, path, info.st_size);
  ::close(fd);
  if (written == static_cast<ssize_t>(bytes.size())) return success();
  return Error{path + ": " + std::generic_category().message(error)};
}

void HostLog::log(FinderLog::Level level, const std::string& message) const {
  std::string line = FinderLog::formatLine(platform_.now(), level, message);
  if (auto appended = appendWholeLine(path_, line); !appended.ok()) {
    // A full disk must not silence the host app: the journal keeps the line.
    std::cerr << line.substr(0, line.size() - 1) << " (" << appended.error() << ")\n";
    const auto type = level == FinderLog::Level::debug  ? UnifiedLogType::debug
                      : level == FinderLog::Level::info ? UnifiedLogType::info
                                                        : UnifiedLogType::error;
    platform_.unifiedLog(type,
                         "PalvinHost: " + message + " (not in " + path_ + ": " + appended.error() + ")");
  }
}

}  // namespace palvin::host
