#include "request_watch.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "shared/paths.h"

namespace palvin::host {
namespace {

constexpr std::uint32_t kEvents = IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR | IN_DELETE_SELF | IN_MOVE_SELF;

std::string systemError(std::string_view what, int errnum) {
  return std::string(what) + ": " + std::generic_category().message(errnum);
}

// The FIFO the extension writes a line into after each request: made when
// missing, and held open for reading and writing so it never reports an end.
int openNotificationFifo(const std::string& fifo, std::string* problem) {
  std::string directory = paths::parent(fifo);
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    *problem = systemError(directory, errno);
    return -1;
  }
  if (::mkfifo(fifo.c_str(), 0600) != 0 && errno != EEXIST) {
    *problem = systemError(fifo, errno);
    return -1;
  }
  int fd = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  struct stat info {};
  if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISFIFO(info.st_mode)) {
    *problem = fd < 0 ? systemError(fifo, errno) : fifo + ": not a FIFO";
    if (fd >= 0) ::close(fd);
    return -1;
  }
  return fd;
}

void drain(int fd) {
  char buffer[4096];
  while (::read(fd, buffer, sizeof buffer) > 0) {
  }
}

}  // namespace

Result<std::unique_ptr<RequestWatch>> RequestWatch::start(const std::string& requests,
                                                          const std::string& fifo, int stopFd,
                                                          std::string* fifoProblem) {
  int inotifyFd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotifyFd < 0) return Error{systemError("inotify", errno)};
  if (::inotify_add_watch(inotifyFd, requests.c_str(), kEvents) < 0) {
    Error error{systemError(requests, errno)};
    ::close(inotifyFd);
    return error;
  }
  int fifoFd = openNotificationFifo(fifo, fifoProblem);
  return std::unique_ptr<RequestWatch>(new RequestWatch(requests, inotifyFd, fifoFd, stopFd));
}

RequestWatch::~RequestWatch() {
  ::close(inotifyFd_);
  if (fifoFd_ >= 0) ::close(fifoFd_);
}

Status RequestWatch::rewatch() {
  if (::inotify_add_watch(inotifyFd_, requests_.c_str(), kEvents) < 0)
    return Error{systemError(requests_, errno)};
  return success();
}

RequestWatch::Wake RequestWatch::wait(int idleSeconds) {
  const int timeout = idleSeconds > 0 ? idleSeconds * 1000 : -1;
  for (;;) {
    pollfd fds[3] = {{stopFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}, {fifoFd_, POLLIN, 0}};
    int ready = ::poll(fds, fifoFd_ >= 0 ? 3 : 2, timeout);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return Wake::stop;
    }
    if (ready == 0) return Wake::idle;
    if (fds[0].revents != 0) return Wake::stop;
    bool gone = false;
    if (fds[1].revents != 0) {
      alignas(inotify_event) char buffer[64 * (sizeof(inotify_event) + NAME_MAX + 1)];
      ssize_t length;
      while ((length = ::read(inotifyFd_, buffer, sizeof buffer)) > 0) {
        for (ssize_t at = 0; at < length;) {
          inotify_event event{};
          std::memcpy(&event, buffer + at, sizeof event);
          gone = gone || (event.mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0;
          at += static_cast<ssize_t>(sizeof event + event.len);
        }
      }
    }
    if (fifoFd_ >= 0 && fds[2].revents != 0) drain(fifoFd_);
    return gone ? Wake::directoryGone : Wake::requests;
  }
}

}  // namespace palvin::host
