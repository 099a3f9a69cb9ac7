#include "platform/linux_mount_table.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <thread>

#include "shared/threads.h"

namespace palvin::linux_mount_table {
namespace {

bool isOctal(char c) {
  return c >= '0' && c <= '7';
}

// The kernel writes space, tab, line feed and backslash in paths as \ooo.
std::string decode(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && isOctal(field[i + 1]) && isOctal(field[i + 2]) &&
        isOctal(field[i + 3])) {
      out.push_back(
          static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0')));
      i += 3;
    } else {
      out.push_back(field[i]);
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> mountPoints(std::string_view mountinfo) {
  std::vector<std::string> points;
  while (!mountinfo.empty()) {
    auto end = mountinfo.find('\n');
    std::string_view line = mountinfo.substr(0, end);
    mountinfo.remove_prefix(end == std::string_view::npos ? mountinfo.size() : end + 1);
    // Fields: mount id, parent id, major:minor, root, mount point, ...
    std::size_t start = 0;
    for (int field = 0; field < 4 && start != std::string_view::npos; ++field) {
      start = line.find(' ', start);
      if (start != std::string_view::npos) ++start;
    }
    if (start == std::string_view::npos || start >= line.size()) continue;
    std::string_view point = line.substr(start, line.find(' ', start) - start);
    if (!point.empty()) points.push_back(decode(point));
  }
  return points;
}

struct Watcher::State {
  std::mutex mutex;
  std::function<void()> handler;
  bool stopped = false;
  std::thread thread;
  int mountFd = -1;
  int wakeFd = -1;

  ~State() {
    if (mountFd >= 0) ::close(mountFd);
    if (wakeFd >= 0) ::close(wakeFd);
  }

  // The kernel marks the mount table's descriptor with POLLPRI|POLLERR once
  // per change; poll itself consumes the mark.
  static void run(const std::shared_ptr<State>& state) {
    pollfd fds[2] = {{state->mountFd, POLLPRI, 0}, {state->wakeFd, POLLIN, 0}};
    for (;;) {
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (fds[1].revents != 0 || (fds[0].revents & POLLNVAL) != 0) return;
      if ((fds[0].revents & (POLLPRI | POLLERR)) == 0) continue;
      std::function<void()> handler;
      {
        std::lock_guard lock(state->mutex);
        if (state->stopped) return;
        handler = state->handler;
      }
      try {
        if (handler) handler();
      } catch (...) {
        // A throwing handler loses this event, not the watcher.
      }
    }
  }
};

Watcher::Watcher(std::shared_ptr<State> state) : state_(std::move(state)) {}

Watcher::~Watcher() {
  stop();
}

std::unique_ptr<Watcher> Watcher::start(std::function<void()> handler) {
  auto state = std::make_shared<State>();
  state->handler = std::move(handler);
  state->mountFd = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  state->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (state->mountFd < 0 || state->wakeFd < 0) return nullptr;
  try {
    std::lock_guard lock(state->mutex);
    state->thread = startQuietThread([state] { State::run(state); });
  } catch (...) {
    return nullptr;
  }
  return std::unique_ptr<Watcher>(new Watcher(std::move(state)));
}

void Watcher::setHandler(std::function<void()> handler) {
  std::lock_guard lock(state_->mutex);
  if (!state_->stopped) state_->handler = std::move(handler);
}

void Watcher::stop() {
  std::thread thread;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopped) return;
    state_->stopped = true;
    state_->handler = nullptr;
    thread = std::move(state_->thread);
  }
  std::uint64_t one = 1;
  while (::write(state_->wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
  }
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();  // called from the handler: the thread ends after it
  } else {
    thread.join();
  }
}

}  // namespace palvin::linux_mount_table
