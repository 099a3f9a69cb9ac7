// What every palvin-finder command is made of: exit codes, how a command is
// added, and the options, errors and inputs several commands share.
#pragma once

#include <CLI/CLI.hpp>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "catalogue/capabilities.h"
#include "planner/menu_planner.h"
#include "terminal_style.h"

namespace palvin::tool {

// Exit codes shared by every command.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFindings = 1;  // the command ran and found the input unusable
inline constexpr int kExitUsage = 2;     // bad arguments, or an input that can't be read or decoded

// The tool's command line, to which each command adds itself, and the exit
// code the command that runs sets.
struct CommandLine {
  CLI::App& app;
  int& exitCode;
};

void addPlanCommand(CommandLine commandLine);
void addCheckCommand(CommandLine commandLine);
void addMenuCommand(CommandLine commandLine);
void addExplainCommand(CommandLine commandLine);
void addRequestsCommand(CommandLine commandLine);
void addLogCommand(CommandLine commandLine);
void addDemoCommand(CommandLine commandLine);

// "palvin-finder <command>: <message>" on standard error; an empty command
// leaves its name out.
void printError(std::string_view command, std::string_view message);
// printError, then the exit code for it.
int usageError(std::string_view command, std::string_view message);

// --container DIR into `container`.
void addContainerOption(CLI::App& command, std::string& container, bool namedDir = true);
// --timeout SECONDS, a positive number, only together with `waitFlag`.
void addTimeoutOption(CLI::App& command, std::optional<double>& timeout, CLI::Option* waitFlag);

// The --help paragraph on the shared container and where it lies on Linux.
std::string sharedContainerHelp();

inline constexpr std::string_view kNoContainerAdvice =
    "pass --container, or set PALVIN_SHARED_CONTAINER, XDG_DATA_HOME or HOME";

// --capabilities FILE (required) and the selected PATHs, for commands that
// plan against a catalogue.
void addCatalogueOptions(CLI::App& command, std::string& capabilities, std::string_view purpose,
                         std::vector<std::string>& paths, std::string_view pathsHelp);

// The shared container: `option` (--container) made absolute when given,
// otherwise the platform's default; nothing when there is neither.
std::optional<std::string> resolveContainer(const std::string& option);
// resolveContainer, or nothing after saying so as `command`'s error.
std::optional<std::string> containerOrError(std::string_view command, const std::string& option);

// The plan as a readable tree (plan and explain share it).
void printPlan(std::ostream& out, const std::optional<FinderMenuPlanner::Plan>& plan, std::size_t fileCount);

}  // namespace palvin::tool
