// A mount namespace of the test's own, so that what it mounts is seen by
// nobody else and goes with the process.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

namespace palvin::testing {

// Root makes one directly; anyone else inside a user namespace of their own,
// where they are root. Only before the process has a second thread (or in a
// child just forked). Nothing, or why none could be made.
inline std::optional<std::string> enterPrivateMountNamespace() {
  auto write = [](const char* path, const std::string& text) {
    int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    bool written = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) ::close(fd);
    return written;
  };
  const std::string uid = std::to_string(::getuid()), gid = std::to_string(::getgid());
  if (::unshare(CLONE_NEWNS) != 0 &&
      (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !write("/proc/self/setgroups", "deny") ||
       !write("/proc/self/uid_map", "0 " + uid + " 1") || !write("/proc/self/gid_map", "0 " + gid + " 1")))
    return std::string("no mount namespace: ") + std::strerror(errno);
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return std::string("mounts stay shared: ") + std::strerror(errno);
  return std::nullopt;
}

}  // namespace palvin::testing
