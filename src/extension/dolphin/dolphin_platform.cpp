#include "extension/dolphin/dolphin_platform.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "extension/shell/menu_rendering.h"
#include "platform/linux_files.h"

namespace palvin {
namespace {

// In the child, before exec: the host app gets a session of its own and
// default signal handling, whatever the file manager's thread had blocked or
// ignored.
void resetForExec() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP) sigaction(signal, &standard, nullptr);
  }
  ::setsid();
}

void report(int fd, int error) {
  while (::write(fd, &error, sizeof error) < 0 && errno == EINTR) {
  }
}

// Starts `program` in a new session with default signal handling and no
// blocked signals, as the grandchild of a child that ends at once: the program
// is left to init (or the session's subreaper), so there is nothing to reap
// later and no thread waits for it. Only async-signal-safe calls run between
// fork and exec, as Dolphin has many threads. Returns 0 once the program runs,
// else the error number of the fork or exec that failed.
int spawnDetached(const char* program, char* const arguments[], char* const environment[]) {
  // The grandchild's exec closes the pipe; a failure writes its errno first.
  int channel[2];
  if (::pipe2(channel, O_CLOEXEC) != 0) return errno;
  pid_t child = ::fork();
  if (child < 0) {
    int error = errno;
    ::close(channel[0]);
    ::close(channel[1]);
    return error;
  }
  if (child == 0) {
    ::close(channel[0]);
    resetForExec();
    pid_t grandchild = ::fork();
    if (grandchild == 0) {
      ::execve(program, arguments, environment);
      report(channel[1], errno);
      ::_exit(127);
    }
    if (grandchild < 0) report(channel[1], errno);
    ::_exit(0);
  }
  ::close(channel[1]);
  int status = 0;
  // Another part of the process may have reaped it already (ECHILD): the pipe still tells.
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int error = 0;
  ssize_t got = 0;
  while ((got = ::read(channel[0], &error, sizeof error)) < 0 && errno == EINTR) {
  }
  ::close(channel[0]);
  return got == static_cast<ssize_t>(sizeof error) ? error : 0;
}

}  // namespace

std::optional<std::string> DolphinPlatform::userDefaultString(std::string_view key) {
  if (key == "AppleInterfaceStyle") return appearance_;
  return LinuxPlatform::userDefaultString(key);
}

void DolphinPlatform::openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                                      LaunchCompletion completion) {
  LaunchCommand command = launchCommand(bundlePath, configuration);
  std::vector<char*> arguments = LaunchCommand::pointers(command.arguments);
  std::vector<char*> environment = LaunchCommand::pointers(command.environment);
  int error = spawnDetached(command.program.c_str(), arguments.data(), environment.data());
  if (error != 0) {
    completion(linux_files::describe(command.program, error));
    return;
  }
  completion(std::nullopt);
}

bool DolphinPlatform::hasSymbolImage(std::string_view name) {
  return menu_rendering::freedesktopIconName(name).has_value();
}

}  // namespace palvin
