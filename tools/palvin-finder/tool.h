// Shared pieces of the palvin-finder subcommands.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <csignal>
#include <iosfwd>
#include <memory>
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
void registerRequestsCommand(Registry registry);
void registerLogCommand(Registry registry);
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

// Where the menu titles' translations are: the Resources directory beside the
// running tool (its bundle, built and installed so), else the source tree's.
std::string stringsDirectory();

// The --help paragraph on the shared container and where it lies on Linux.
std::string sharedContainerHelp();

inline constexpr std::string_view kNoContainer =
    "no shared container: pass --container, or set PALVIN_SHARED_CONTAINER, XDG_DATA_HOME or HOME";

// The shared container: `option` (--container) made absolute when given,
// otherwise the platform's default; nothing when there is neither.
std::optional<std::string> resolveContainer(const std::string& option);

// Follows one directory's entries with inotify until a time limit passes or
// SIGINT/SIGTERM arrives; both end run() normally instead of the process.
class DirectoryWatch {
 public:
  // Blocks SIGINT and SIGTERM from here on, so that run() receives them.
  static Result<std::unique_ptr<DirectoryWatch>> start(const std::string& directory,
                                                       std::uint32_t inotifyEvents);
  ~DirectoryWatch();
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

  // Calls `onChange` with the names of the entries that changed, once per
  // batch of events; an empty name means events were lost. False when it
  // stopped because the directory was removed or moved away.
  bool run(std::optional<double> timeoutSeconds,
           const std::function<void(const std::vector<std::string>&)>& onChange);

 private:
  DirectoryWatch(int inotifyFd, int signalFd, sigset_t previousMask);
  int inotifyFd_;
  int signalFd_;
  sigset_t previousMask_;
};

}  // namespace palvin::tool
