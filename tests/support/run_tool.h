// Runs the built palvin-finder with arguments and captures what it prints.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace palvin::testing {

struct ToolRun {
  int exitCode = -1;
  std::string out, err;
};

// Runs `program` with `args` and empty standard input. `env` changes the
// inherited environment: "NAME=value" sets NAME, "-NAME" removes it.
// `started` receives the process id as soon as the program runs.
ToolRun runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::vector<std::string>& env = {},
                   const std::function<void(int pid)>& started = {});

// runProgram with PALVIN_TOOL_PATH.
ToolRun runTool(const std::vector<std::string>& args, const std::vector<std::string>& env = {});
}  // namespace palvin::testing
