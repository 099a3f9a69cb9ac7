#include "directory_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

namespace palvin::tool {

Result<std::unique_ptr<DirectoryWatch>> DirectoryWatch::start(const std::string& directory,
                                                              std::uint32_t inotifyEvents) {
  int inotifyFd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotifyFd < 0) return Error{std::string("inotify: ") + std::strerror(errno)};
  std::uint32_t mask = inotifyEvents | IN_ONLYDIR | IN_DELETE_SELF | IN_MOVE_SELF;
  if (inotify_add_watch(inotifyFd, directory.c_str(), mask) < 0) {
    Error error{directory + ": " + std::strerror(errno)};
    close(inotifyFd);
    return error;
  }
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigset_t previous;
  sigprocmask(SIG_BLOCK, &signals, &previous);
  int signalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalFd < 0) {
    Error error{std::string("signalfd: ") + std::strerror(errno)};
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    close(inotifyFd);
    return error;
  }
  return std::unique_ptr<DirectoryWatch>(new DirectoryWatch(inotifyFd, signalFd, previous));
}

DirectoryWatch::DirectoryWatch(int inotifyFd, int signalFd, sigset_t previousMask)
    : inotifyFd_(inotifyFd), signalFd_(signalFd), previousMask_(previousMask) {}

DirectoryWatch::~DirectoryWatch() {
  close(inotifyFd_);
  close(signalFd_);
  sigprocmask(SIG_SETMASK, &previousMask_, nullptr);
}

bool DirectoryWatch::run(std::optional<double> timeoutSeconds,
                         const std::function<void(const std::vector<std::string>&)>& onChange) {
  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> deadline;
  if (timeoutSeconds) {
    // Bounded (NaN included) so that the conversion below can't overflow.
    auto timeout = std::chrono::duration<double>(*timeoutSeconds <= 1e9 ? *timeoutSeconds : 1e9);
    deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(timeout);
  }
  alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
  for (;;) {
    int waitMs = -1;
    if (deadline) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
      if (left <= 0) return true;
      waitMs = static_cast<int>(std::min<long long>(left, INT_MAX));
    }
    pollfd fds[2] = {{inotifyFd_, POLLIN, 0}, {signalFd_, POLLIN, 0}};
    int ready = poll(fds, 2, waitMs);
    if (ready < 0 && errno != EINTR) return true;
    if (ready <= 0) continue;
    if (fds[1].revents != 0) {
      // Taken here, or it would be delivered, and end the tool, once unblocked.
      signalfd_siginfo info{};
      while (read(signalFd_, &info, sizeof info) > 0) {
      }
      return true;
    }
    ssize_t length = read(inotifyFd_, buffer, sizeof buffer);
    if (length <= 0) continue;
    std::vector<std::string> names;
    bool gone = false;
    for (ssize_t at = 0; at < length;) {
      inotify_event event{};
      std::memcpy(&event, buffer + at, sizeof event);
      if ((event.mask & IN_Q_OVERFLOW) != 0) {
        names.emplace_back();
      } else if (event.len > 0) {
        names.emplace_back(buffer + at + sizeof event);  // NUL-padded
      }
      gone = gone || (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0;
      at += static_cast<ssize_t>(sizeof event + event.len);
    }
    if (!names.empty()) onChange(names);
    if (gone) return false;
  }
}

}  // namespace palvin::tool
