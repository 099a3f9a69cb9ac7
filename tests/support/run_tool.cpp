#include "support/run_tool.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace palvin::testing {
namespace {

std::string drain(int fd) {
  std::string out;
  char buffer[65536];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(fd);
  return out;
}

}  // namespace

ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& env,
                const std::function<void(int pid)>& started) {
  return runProgram(PALVIN_TOOL_PATH, args, env, started);
}

ToolRun runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::vector<std::string>& env, const std::function<void(int pid)>& started) {
  int outPipe[2];
  int errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);

  std::vector<std::string> argvStrings{program};
  argvStrings.insert(argvStrings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : argvStrings) argv.push_back(a.data());
  argv.push_back(nullptr);

  // "NAME=value" replaces an inherited NAME; "-NAME" removes it.
  auto overridden = [&env](std::string_view entry) {
    std::string_view name = entry.substr(0, entry.find('='));
    for (const auto& change : env) {
      std::string_view changed = change[0] == '-' ? std::string_view(change).substr(1)
                                                  : std::string_view(change).substr(0, change.find('='));
      if (changed == name) return true;
    }
    return false;
  };
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) {
    if (!overridden(*e)) envStrings.emplace_back(*e);
  }
  for (const auto& change : env) {
    if (change[0] != '-') envStrings.push_back(change);
  }
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  pid_t pid = 0;
  int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  close(errPipe[1]);
  if (rc != 0) throw std::runtime_error("could not start " + argvStrings[0]);
  if (started) started(pid);

  ToolRun run;
  std::thread errReader([&] { run.err = drain(errPipe[0]); });
  run.out = drain(outPipe[0]);
  errReader.join();
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}


}  // namespace palvin::testing
