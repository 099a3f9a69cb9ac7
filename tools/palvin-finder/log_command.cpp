// palvin-finder log: the extension's log file, entry by entry, filtered by
// level and optionally followed through appends, rewrites and trims.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "platform/platform.h"
#include "shared/json_writer.h"
#include "services/log.h"
#include "shared/paths.h"
#include "tool.h"

namespace palvin::tool {
namespace {

using FinderLog::Level;

struct LogOptions {
  std::string container;
  bool follow = false;
  std::string level = "debug";
  std::optional<double> timeout;
};

constexpr std::string_view kEntryStart = "dddd-dd-ddTdd:dd:dd.dddZ [";  // d: any digit
constexpr std::size_t kTimestampLength = 24;
// Enough of what was printed last to find the place again in a replaced file.
constexpr std::size_t kTailLength = 1024;

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

// The bytes of a regular file from `from` to its end.
Result<std::string> readFrom(const std::string& path, std::uint64_t from) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return Error{path + ": " + std::strerror(errno)};
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    close(fd);
    return Error{path + ": not a regular file"};
  }
  std::string bytes;
  char buffer[65536];
  auto at = static_cast<off_t>(from);
  for (;;) {
    ssize_t n = pread(fd, buffer, sizeof buffer, at);
    if (n > 0) {
      bytes.append(buffer, static_cast<std::size_t>(n));
      at += n;
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(fd);
  return bytes;
}

// Prints what the log file gained since the last call. The file is appended
// in place but also replaced by rename (its first line, and every trim), so
// the place reached is remembered by content: the last bytes printed.
class LogReader {
 public:
  LogReader(std::string path, EntryPrinter& printer, Style style)
      : path_(std::move(path)), printer_(printer), style_(style) {}

  // `whole`: also print a last line that has no line feed yet.
  void update(bool whole) {
    std::uint64_t contentStart = offset_ - tail_.size();
    auto content = readFrom(path_, contentStart);
    if (!content.ok()) return;
    std::uint64_t from = offset_;
    if (content->compare(0, tail_.size(), tail_) != 0) {
      content = readFrom(path_, 0);
      if (!content.ok()) return;
      contentStart = 0;
      std::size_t found = content->find(tail_);
      if (found != std::string::npos) {
        from = found + tail_.size();
      } else {
        std::cout << style_.dim("(log was trimmed)") << '\n';
        printer_.startOfFile();
        from = 0;
      }
    }
    std::string_view added = std::string_view(*content).substr(from - contentStart);
    std::size_t end = whole ? added.size() : added.rfind('\n') + 1;  // npos + 1 == 0
    for (std::size_t at = 0; at < end;) {
      std::size_t lineEnd = std::min(added.find('\n', at), end);
      printer_.line(added.substr(at, lineEnd - at));
      at = lineEnd + 1;
    }
    std::cout.flush();
    std::size_t endInContent = from - contentStart + end;
    std::size_t tailStart = endInContent > kTailLength ? endInContent - kTailLength : 0;
    tail_ = content->substr(tailStart, endInContent - tailStart);
    offset_ = contentStart + endInContent;
  }

 private:
  std::string path_;
  EntryPrinter& printer_;
  Style style_;
  std::uint64_t offset_ = 0;  // end of what was printed, in the current file
  std::string tail_;          // the bytes just before offset_
};

Level parseLevel(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (text == "info") return Level::info;
  if (text == "warn") return Level::warn;
  if (text == "error") return Level::error;
  return Level::debug;
}

int runLog(const LogOptions& options) {
  auto container = resolveContainer(options.container);
  if (!container) {
    std::cerr << "palvin-finder log: " << kNoContainer << '\n';
    return kExitUsage;
  }
  std::string file = paths::join(*container, FinderLog::kFileName);
  Style style = styleForStdout();
  EntryPrinter printer(parseLevel(options.level), style);
  LogReader reader(file, printer, style);

  std::unique_ptr<DirectoryWatch> watch;
  if (options.follow) {
    // The extension creates the container with its first line; we need it now to watch it.
    if (auto created = currentPlatform().createDirectories(*container); !created.ok()) {
      std::cerr << "palvin-finder log: " << created.error() << '\n';
      return kExitUsage;
    }
    auto started = DirectoryWatch::start(*container, IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE);
    if (!started.ok()) {
      std::cerr << "palvin-finder log: " << started.error() << '\n';
      return kExitUsage;
    }
    watch = std::move(*started);
  }

  struct stat info {};
  if (stat(file.c_str(), &info) != 0 && errno == ENOENT) {
    std::cout << "No log yet: " << file << " does not exist.\n";
    if (!watch) return kExitOk;
  } else if (auto readable = readFrom(file, static_cast<std::uint64_t>(info.st_size)); !readable.ok()) {
    std::cerr << "palvin-finder log: " << readable.error() << '\n';
    return kExitUsage;
  }
  reader.update(!watch);
  if (!watch) return kExitOk;

  std::cout << style.dim("Following " + file + " (Ctrl-C to stop).") << '\n' << std::flush;
  bool stillThere = watch->run(options.timeout, [&](const std::vector<std::string>& names) {
    for (const auto& name : names) {
      if (name.empty() || name == FinderLog::kFileName) {
        reader.update(false);
        return;
      }
    }
  });
  if (!stillThere) std::cerr << "palvin-finder log: " << *container << " was removed or moved away\n";
  return kExitOk;
}

}  // namespace

void registerLogCommand(Registry registry) {
  auto options = std::make_shared<LogOptions>();
  CLI::App* command = registry.app.add_subcommand(
      "log",
      "Show the extension's log, \"finder-extension.log\" in the shared container, entry by entry:\n"
      "a line \"<UTC time> [LEVEL] message\" and the lines of the same message that follow it. A\n"
      "trim cuts the file at an arbitrary byte, so its first lines may be the end of an entry,\n"
      "shown as a fragment (never under a --level above debug).");
  command
      ->add_option("--container", options->container,
                   "shared container directory (default: $XDG_DATA_HOME/<app group>)")
      ->type_name("DIR");
  auto* follow = command->add_flag("--follow,-f", options->follow,
                                   "then print entries as they are appended, through rewrites and trims,\n"
                                   "until interrupted (Ctrl-C); waits for a log that does not exist yet");
  command->add_option("--level", options->level, "show entries of LEVEL and above (any case)")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"debug", "info", "warn", "error"}, CLI::ignore_case));
  command->add_option("--timeout", options->timeout, "with --follow: stop after SECONDS")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber)
      ->needs(follow);
  command->footer("\n" + sharedContainerHelp() +
                  "\nExit codes: 0 the log was shown, or there is none yet; 2 bad arguments, no shared\n"
                  "container, or a log file that can't be read. SIGINT and SIGTERM end --follow normally.");
  int& exitCode = registry.exitCode;
  command->callback([options, &exitCode] { exitCode = runLog(*options); });
}

}  // namespace palvin::tool
