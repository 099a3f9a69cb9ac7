#include "support/run_tool.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

extern char** environ;

namespace palvin::testing {
namespace {

std::string drain(int fd) {
  std::string out;
  char buffer[65536];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) != 0;) {
    if (n > 0) out.append(buffer, static_cast<std::size_t>(n));
    if (n < 0 && errno != EINTR) break;
  }
  close(fd);
  return out;
}

}  // namespace

ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& env) {
  return runProgram(PALVIN_TOOL_PATH, args, env);
}

// env(1) changes the environment and then becomes the program, keeping the pid.
ToolRun runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::vector<std::string>& env, const std::function<void(int pid)>& started) {
  std::vector<std::string> words{"/usr/bin/env"};
  for (const auto& change : env) {  // options before assignments
    if (change[0] == '-') words.insert(words.begin() + 1, {"-u", change.substr(1)});
    if (change[0] != '-') words.push_back(change);
  }
  words.push_back(program);
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  // Standard output is a pipe, read to its end: the run is over when every
  // process it started (the host app a pick launches) is done with it.
  int outPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  TempDir scratch;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, scratch.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(outPipe[1]);
  if (rc != 0) throw std::runtime_error("could not start " + program);
  if (started) started(pid);
  std::string out = drain(outPipe[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
  return ToolRun{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out,
                 readText(scratch.file("err"))};
}

}  // namespace palvin::testing
