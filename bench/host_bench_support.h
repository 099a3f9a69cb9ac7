// What the host-app benchmarks share: a temporary container and starting the
// Linux host app from the build tree.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace palvin::bench {

struct TempDirectory {
  TempDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "palvin-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path = pattern;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string path;
};

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Starts AppRun with the container in its environment and no session bus.
inline pid_t startHostApp(const std::string& container, std::vector<std::string> arguments) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    if (!text.starts_with("PALVIN_SHARED_CONTAINER=") && !text.starts_with("DBUS_SESSION_BUS_ADDRESS=")) {
      environment.emplace_back(text);
    }
  }
  environment.push_back("PALVIN_SHARED_CONTAINER=" + container);
  arguments.insert(arguments.begin(), PALVIN_HOST_APP_PATH);
  auto pointers = [](std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (auto& s : strings) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
  };
  auto argv = pointers(arguments);
  auto envp = pointers(environment);
  pid_t pid = 0;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), envp.data()) != 0) std::abort();
  return pid;
}

inline int waitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
  }
  return status;
}

}  // namespace palvin::bench
