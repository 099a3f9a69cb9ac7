#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <palvin/identifiers.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/platform.h"
#include "services/container.h"
#include "tool.h"

namespace palvin::tool {

Result<FinderCapabilities> loadCapabilities(const std::string& path) {
  auto bytes = currentPlatform().readFile(path);
  if (!bytes.ok()) return Error{bytes.error()};
  return FinderCapabilities::decode(*bytes);
}

std::string stringsDirectory() {
  std::error_code ignored;
  std::filesystem::path beside =
      std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path() / "Resources";
  return std::filesystem::is_directory(beside, ignored) ? beside.string() : std::string(PALVIN_STRINGS_DIR);
}

namespace {
std::string wrap(bool enabled, const char* code, std::string_view s) {
  if (!enabled) return std::string(s);
  std::string out = "\x1b[";
  out += code;
  out += 'm';
  out += s;
  out += "\x1b[0m";
  return out;
}
}  // namespace

std::string Style::bold(std::string_view s) const { return wrap(enabled, "1", s); }
std::string Style::dim(std::string_view s) const { return wrap(enabled, "2", s); }
std::string Style::red(std::string_view s) const { return wrap(enabled, "31", s); }
std::string Style::yellow(std::string_view s) const { return wrap(enabled, "33", s); }
std::string Style::green(std::string_view s) const { return wrap(enabled, "32", s); }
std::string Style::cyan(std::string_view s) const { return wrap(enabled, "36", s); }

Style styleForStdout() {
  const char* noColor = std::getenv("NO_COLOR");
  bool noColorSet = noColor != nullptr && noColor[0] != '\0';
  return Style{isatty(STDOUT_FILENO) == 1 && !noColorSet};
}

std::string sharedContainerHelp() {
  std::string text =
      "Shared container: the directory the extension and the host app share. It holds\n"
      "\"capabilities.json\" (written by the host app), \"finder-extension.log\" and the \"requests\"\n"
      "directory. On Linux it is --container DIR when given, else $PALVIN_SHARED_CONTAINER (an\n"
      "absolute path; the extension hands its container to the host app in it), else\n  $XDG_DATA_HOME/";
  text += ids::kAppGroupIdentifier;
  text += "\nor, when XDG_DATA_HOME is unset or relative,\n  ~/.local/share/";
  text += ids::kAppGroupIdentifier;
  text += "\nand there is none when HOME is unset too.\n";
  return text;
}

std::optional<std::string> resolveContainer(const std::string& option) {
  if (option.empty()) return FinderSharedContainer::url();
  std::error_code error;
  auto absolute = std::filesystem::absolute(option, error);
  return error ? option : absolute.lexically_normal().string();
}

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
