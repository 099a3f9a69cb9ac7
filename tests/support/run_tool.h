// Runs the built palvin-finder with arguments and captures what it prints.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace palvin::testing {

struct ToolRun {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs `program` with `args` and empty standard input. `env` changes the
// inherited environment: "NAME=value" sets NAME, "-NAME" removes it.
// `started` receives the process id as soon as the program runs.
ToolRun runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::vector<std::string>& env = {}, const std::function<void(int pid)>& started = {});

// runProgram with PALVIN_TOOL_PATH.
ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                const std::function<void(int pid)>& started = {});

// A fresh directory under the system's temporary directory, removed with its
// content when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `content` to `name` inside the directory and returns its path.
  std::string write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

std::string readWholeFile(const std::string& path);

}  // namespace palvin::testing
