// palvin-finder log: the extension's log file, entry by entry, filtered by
// level and optionally followed through appends, rewrites and trims.
#include <sys/inotify.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <iostream>

#include "directory_watch.h"
#include "loading.h"
#include "platform/platform.h"
#include "services/log.h"
#include "shared/json_writer.h"
#include "shared/paths.h"
#include "tool.h"

namespace palvin::tool {
namespace {

using FinderLog::Level;

constexpr std::string_view kName = "log";

struct LogOptions {
  std::string container;
  bool follow = false;
  std::string level = "debug";
  std::optional<double> timeout;
};

constexpr std::string_view kEntryStart = "dddd-dd-ddTdd:dd:dd.dddZ [";  // d: any digit
constexpr std::size_t kTimestampLength = 24;

// The level of a line that starts an entry; nothing for any other line.
std::optional<Level> entryLevel(std::string_view line) {
  if (line.size() < kEntryStart.size()) return std::nullopt;
  for (std::size_t i = 0; i < kEntryStart.size(); ++i) {
    bool fits = kEntryStart[i] == 'd' ? line[i] >= '0' && line[i] <= '9' : line[i] == kEntryStart[i];
    if (!fits) return std::nullopt;
  }
  std::string_view rest = line.substr(kEntryStart.size());
  for (Level level : {Level::debug, Level::info, Level::warn, Level::error}) {
    std::string_view tag = FinderLog::tag(level);
    if (rest.starts_with(tag) && rest.substr(tag.size()).starts_with("] ")) return level;
  }
  return std::nullopt;
}

// Prints complete lines, keeping the entries of `minimum` and above.
class EntryPrinter {
 public:
  EntryPrinter(Level minimum, Style style) : minimum_(minimum), style_(style) {}

  // The next line is the top of a file, where a trim may have left the end
  // of an entry without its timestamp and tag.
  void startOfFile() {
    current_.reset();
    fragmentNoted_ = false;
  }

  void line(std::string_view text) {
    if (auto level = entryLevel(text)) {
      current_ = level;
      if (*level < minimum_) return;
      std::string tag = "[" + std::string(FinderLog::tag(*level)) + "]";
      if (*level == Level::error) tag = style_.red(tag);
      if (*level == Level::warn) tag = style_.yellow(tag);
      if (*level == Level::debug) tag = style_.dim(tag);
      std::size_t messageStart = kTimestampLength + 1 + FinderLog::tag(*level).size() + 2;
      std::cout << text.substr(0, kTimestampLength + 1) << tag << json::toValidUtf8(text.substr(messageStart))
                << '\n';
      return;
    }
    if (current_) {
      if (*current_ >= minimum_) std::cout << json::toValidUtf8(text) << '\n';
      return;
    }
    if (minimum_ != Level::debug) return;  // a fragment has no level
    if (!fragmentNoted_) {
      std::cout << style_.dim("(fragment: the start of this entry was cut off when the log was trimmed)")
                << '\n';
      fragmentNoted_ = true;
    }
    std::cout << json::toValidUtf8(text) << '\n';
  }

 private:
  Level minimum_;
  Style style_;
  std::optional<Level> current_;  // the entry that continuation lines belong to
  bool fragmentNoted_ = false;
};

Level parseLevel(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (text == "info") return Level::info;
  if (text == "warn") return Level::warn;
  if (text == "error") return Level::error;
  return Level::debug;
}

// What the log gained since the last look, entry by entry.
Status printAdded(LogTail& log, EntryPrinter& printer, const Style& style, bool whole) {
  auto added = log.take(whole);
  if (!added.ok()) return Error{added.error()};
  if (added->restarted) {
    std::cout << style.dim("(log was trimmed)") << '\n';
    printer.startOfFile();
  }
  LogTail::forEachLine(added->text, [&](std::string_view line) { printer.line(line); });
  std::cout.flush();
  return success();
}

int runLog(const LogOptions& options) {
  auto container = containerOrError(kName, options.container);
  if (!container) return kExitUsage;
  std::string file = paths::join(*container, FinderLog::kFileName);
  Style style = styleForStdout();
  EntryPrinter printer(parseLevel(options.level), style);
  LogTail log(file);

  std::unique_ptr<DirectoryWatch> watch;
  if (options.follow) {
    // The extension creates the container with its first line; we need it now to watch it.
    if (auto created = currentPlatform().createDirectories(*container); !created.ok()) {
      return usageError(kName, created.error());
    }
    auto started = DirectoryWatch::start(*container, IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE);
    if (!started.ok()) return usageError(kName, started.error());
    watch = std::move(*started);
  }

  struct stat info {};
  bool exists = stat(file.c_str(), &info) == 0;
  if (!exists && errno == ENOENT) {
    std::cout << "No log yet: " << file << " does not exist.\n";
    if (!watch) return kExitOk;
  } else if (exists && !S_ISREG(info.st_mode)) {
    return usageError(kName, file + ": not a regular file");
  } else if (auto shown = printAdded(log, printer, style, !watch); !shown.ok()) {
    return usageError(kName, shown.error());
  }
  if (!watch) return kExitOk;

  std::cout << style.dim("Following " + file + " (Ctrl-C to stop).") << '\n' << std::flush;
  bool stillThere = watch->run(options.timeout, [&](const std::vector<std::string>& names) {
    for (const auto& name : names) {
      if (name.empty() || name == FinderLog::kFileName) {
        (void)printAdded(log, printer, style, false);  // it may be between a trim's unlink and rename
        return;
      }
    }
  });
  if (!stillThere) printError(kName, *container + " was removed or moved away");
  return kExitOk;
}

}  // namespace

void addLogCommand(CommandLine commandLine) {
  auto options = std::make_shared<LogOptions>();
  CLI::App* command = commandLine.app.add_subcommand(
      std::string(kName),
      "Show the extension's log, \"finder-extension.log\" in the shared container, entry by entry:\n"
      "a line \"<UTC time> [LEVEL] message\" and the lines of the same message that follow it. A\n"
      "trim cuts the file at an arbitrary byte, so its first lines may be the end of an entry,\n"
      "shown as a fragment (never under a --level above debug).");
  addContainerOption(*command, options->container);
  auto* follow = command->add_flag("--follow,-f", options->follow,
                                   "then print entries as they are appended, through rewrites and trims,\n"
                                   "until interrupted (Ctrl-C); waits for a log that does not exist yet");
  command->add_option("--level", options->level, "show entries of LEVEL and above (any case)")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"debug", "info", "warn", "error"}, CLI::ignore_case));
  addTimeoutOption(*command, options->timeout, follow);
  command->footer("\n" + sharedContainerHelp() +
                  "\nExit codes: 0 the log was shown, or there is none yet; 2 bad arguments, no shared\n"
                  "container, or a log file that can't be read. SIGINT and SIGTERM end --follow normally.");
  int& exitCode = commandLine.exitCode;
  command->callback([options, &exitCode] { exitCode = runLog(*options); });
}

}  // namespace palvin::tool
