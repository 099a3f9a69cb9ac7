#include "host_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <system_error>

namespace palvin::host {

Status appendWholeLine(const std::string& path, std::string_view line) {
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW, 0600);
  if (fd < 0) return Error{path + ": " + std::generic_category().message(errno)};
  // The lock dies with its holder, so a killed writer never blocks the rest.
  while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
  }
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
