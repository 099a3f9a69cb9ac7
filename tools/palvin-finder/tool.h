// Shared pieces of the palvin-finder subcommands.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>

#include "catalogue/capabilities.h"
#include "planner/menu_planner.h"
#include "shared/result.h"

namespace palvin::tool {

// Exit codes shared by every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFindings = 1;  // the command ran and found the input unusable
inline constexpr int kExitUsage = 2;     // bad arguments, or an input that can't be read or decoded

// Each subcommand registers itself and sets `exitCode` when it runs.
struct Registry {
  CLI::App& app;
  int& exitCode;
};

void registerPlanCommand(Registry registry);
void registerCheckCommand(Registry registry);
void registerMenuCommand(Registry registry);
void registerExplainCommand(Registry registry);
void registerDemoCommand(Registry registry);

// The plan as a readable tree (plan and explain share it).
void printPlan(std::ostream& out, const std::optional<FinderMenuPlanner::Plan>& plan, std::size_t fileCount);

// Reads and decodes a capabilities document, refusing FIFOs, devices and
// oversized files like the extension does. The error is the description the
// extension would log after "Failed to decode capabilities: ".
Result<FinderCapabilities> loadCapabilities(const std::string& path);

// Terminal styling: only when standard output is a terminal and NO_COLOR is unset.
struct Style {
  bool enabled;
  std::string bold(std::string_view s) const;
  std::string dim(std::string_view s) const;
  std::string red(std::string_view s) const;
  std::string yellow(std::string_view s) const;
  std::string green(std::string_view s) const;
  std::string cyan(std::string_view s) const;
};
Style styleForStdout();

}  // namespace palvin::tool
