// palvin-finder requests: the request directory as the host app reads it,
// optionally watched for new requests.
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <set>

#include "directory_watch.h"
#include "platform/platform.h"
#include "requests/conversion_result.h"
#include "requests/request.h"
#include "services/log.h"
#include "shared/json_writer.h"
#include "shared/paths.h"
#include "tool.h"

namespace palvin::tool {
namespace {

constexpr std::string_view kName = "requests";

struct RequestsOptions {
  std::string container;
  bool watch = false;
  std::optional<double> timeout;
};

struct RequestFile {
  std::string name;
  std::optional<FileTime> modified;  // none when the file can't be examined
};

RequestFile requestFile(const std::string& directory, const std::string& name) {
  auto modified = currentPlatform().modificationDate(paths::join(directory, name));
  return RequestFile{name, modified.ok() ? std::optional<FileTime>(modified->modified) : std::nullopt};
}

// Oldest first, the name breaking ties, as the host app takes them. A
// directory is passed over: it holds no document to show.
Result<std::vector<RequestFile>> listRequestFiles(const std::string& directory) {
  auto names = listRequestFileNames(directory);
  if (!names.ok()) return Error{names.error()};
  std::vector<RequestFile> files;
  for (const auto& name : *names) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(paths::join(directory, name), ignored)) {
      files.push_back(requestFile(directory, name));
    }
  }
  std::sort(files.begin(), files.end(), [](const RequestFile& a, const RequestFile& b) {
    FileTime ta = a.modified.value_or(FileTime{});
    FileTime tb = b.modified.value_or(FileTime{});
    return std::tie(ta.seconds, ta.nanoseconds, a.name) < std::tie(tb.seconds, tb.nanoseconds, b.name);
  });
  return files;
}

std::string timestamp(FileTime t) {
  using namespace std::chrono;
  auto since = duration_cast<system_clock::duration>(seconds(t.seconds) + nanoseconds(t.nanoseconds));
  return FinderLog::formatTimestamp(system_clock::time_point(since));
}

// The file's name and time, then its document as `Document` decodes it;
// nothing, after saying why, when it does not hold one.
template <class Document>
std::optional<Document> printHeading(const Style& style, const std::string& directory,
                                     const RequestFile& file) {
  std::cout << style.bold(json::toValidUtf8(file.name));
  if (file.modified) std::cout << "  " << style.dim(timestamp(*file.modified));
  std::cout << '\n';
  auto bytes = currentPlatform().readFile(paths::join(directory, file.name));
  auto decoded = bytes.ok() ? Document::decode(*bytes) : Error{bytes.error()};
  if (decoded.ok()) return std::move(*decoded);
  std::cout << "  " << style.red("invalid") << ": " << json::toValidUtf8(decoded.error()) << '\n';
  return std::nullopt;
}

// False when the file does not hold a valid request.
bool printRequest(const Style& style, const std::string& directory, const RequestFile& file) {
  auto request = printHeading<FinderConversionRequest>(style, directory, file);
  if (!request) return false;
  std::cout << "  to " << style.cyan(json::toValidUtf8(request->targetFormatId)) << ", "
            << request->files.size() << " file(s)\n";
  for (const auto& ref : request->files) {
    std::cout << "    " << json::toValidUtf8(ref.path) << "  "
              << style.dim("(" + json::toValidUtf8(ref.sourceFormatId) + ")") << '\n';
  }
  return true;
}

// False when the file does not hold a valid result document. `underWay`: its
// request is claimed (in requests/processing/), so the counts are progress.
bool printResult(const Style& style, const std::string& directory, const RequestFile& file, bool underWay) {
  auto result = printHeading<FinderConversionResult>(style, directory, file);
  if (!result) return false;
  using Status = FinderFileResult::Status;
  if (!result->rejected.empty()) {
    std::cout << "  " << style.red("rejected") << ": " << json::toValidUtf8(result->rejected) << '\n';
    return true;
  }
  const std::size_t pending = result->count(Status::pending), cancelled = result->count(Status::cancelled);
  std::cout << "  to " << style.cyan(json::toValidUtf8(result->targetFormatId)) << ": ";
  if (underWay && pending > 0) {
    std::cout << style.bold("under way, " + std::to_string(result->files.size() - pending) + " of " +
                            std::to_string(result->files.size()) + " file(s) done")
              << "; ";
  }
  std::cout << result->count(Status::converted) << " converted, " << result->count(Status::failed)
            << " failed";
  if (cancelled > 0) std::cout << ", " << cancelled << " cancelled";
  if (pending > 0) std::cout << ", " << pending << " pending";
  std::cout << '\n';
  for (const auto& entry : result->files) {
    std::cout << "    " << json::toValidUtf8(entry.path) << "  ";
    switch (entry.status) {
      case Status::converted:
        std::cout << style.green("\xE2\x86\x92 " + json::toValidUtf8(entry.outputPath));
        break;
      case Status::failed:
        std::cout << style.red("failed") << ": " << json::toValidUtf8(entry.error);
        break;
      case Status::pending:
        std::cout << style.dim("pending");
        break;
      case Status::cancelled:
        std::cout << style.dim("cancelled");
        break;
    }
    std::cout << '\n';
  }
  return true;
}

// The host app's result documents, when there are any. False when one is invalid.
bool printResults(const Style& style, const std::string& container) {
  const std::string directory = paths::join(container, kResultsDirectoryName);
  auto files = listRequestFiles(directory);
  if (!files.ok() || files->empty()) return true;
  std::cout << files->size() << " result document(s) in " << directory << ", oldest first:\n";
  const std::string claimed = paths::join(requestDirectory(container), kProcessingDirectoryName);
  bool valid = true;
  for (const auto& file : *files) {
    std::error_code ignored;
    bool underWay = std::filesystem::exists(paths::join(claimed, file.name), ignored);
    valid = printResult(style, directory, file, underWay) && valid;
  }
  return valid;
}

int runRequests(const RequestsOptions& options) {
  auto container = containerOrError(kName, options.container);
  if (!container) return kExitUsage;
  std::string directory = requestDirectory(*container);
  Style style = styleForStdout();
  struct stat info {};
  bool exists = stat(directory.c_str(), &info) == 0;
  if (exists && !S_ISDIR(info.st_mode)) return usageError(kName, directory + " is not a directory");
  if (!exists) {
    std::cout << "No requests yet: " << directory << " does not exist.\n";
    if (!options.watch) return kExitOk;
    if (auto created = currentPlatform().createDirectories(directory); !created.ok()) {
      return usageError(kName, created.error());
    }
  }
  // Watch before listing, so that nothing arriving in between is missed.
  std::unique_ptr<DirectoryWatch> watch;
  if (options.watch) {
    auto started = DirectoryWatch::start(directory, IN_MOVED_TO | IN_CLOSE_WRITE);
    if (!started.ok()) return usageError(kName, started.error());
    watch = std::move(*started);
  }

  std::set<std::string> shown;
  bool invalid = false;
  auto showUnseen = [&](const std::vector<RequestFile>& files) {
    for (const auto& file : files) {
      if (shown.insert(file.name).second && !printRequest(style, directory, file)) invalid = true;
    }
    std::cout.flush();
  };
  if (exists) {
    auto files = listRequestFiles(directory);
    if (!files.ok()) return usageError(kName, files.error());
    if (files->empty()) {
      std::cout << "No requests in " << directory << ".\n";
    } else {
      std::cout << files->size() << " request file(s) in " << directory << ", oldest first:\n";
    }
    showUnseen(*files);
  }
  if (!printResults(style, *container)) invalid = true;
  if (!watch) return invalid ? kExitFindings : kExitOk;

  std::cout << style.dim("Watching " + directory + " for new requests (Ctrl-C to stop).") << '\n'
            << std::flush;
  bool stillThere = watch->run(options.timeout, [&](const std::vector<std::string>& names) {
    for (const auto& name : names) {
      if (name.empty()) {  // events were lost: look at everything again
        if (auto files = listRequestFiles(directory); files.ok()) showUnseen(*files);
      } else if (isRequestFileName(name)) {
        showUnseen({requestFile(directory, name)});
      }
    }
  });
  if (!stillThere) printError(kName, directory + " was removed or moved away");
  return invalid ? kExitFindings : kExitOk;
}

}  // namespace

void addRequestsCommand(CommandLine commandLine) {
  auto options = std::make_shared<RequestsOptions>();
  CLI::App* command = commandLine.app.add_subcommand(
      std::string(kName),
      "List the request files of the shared container's \"requests\" directory as the host app\n"
      "reads them: *.json files (names starting with a dot are temporary files of atomic writes),\n"
      "oldest first, each with its modification time (UTC) and its decoded request: the target\n"
      "format and every file's path and source format, or why it can't be decoded. Then the host\n"
      "app's result documents (\"results/<request>\"), when there are any: every file's outcome,\n"
      "its output path or why it failed, and how far a request under way has got.");
  addContainerOption(*command, options->container);
  auto* watch = command->add_flag("--watch", options->watch,
                                  "then print each new request as it arrives, until interrupted (Ctrl-C)");
  addTimeoutOption(*command, options->timeout, watch);
  command->footer(
      "\n" + sharedContainerHelp() +
      "\nExit codes: 0 every request file is valid (or there are none); 1 at least one request\n"
      "file or result document shown can't be read or decoded; 2 bad arguments, no shared\n"
      "container, or a request directory that can't be read. SIGINT and SIGTERM end --watch normally.");
  int& exitCode = commandLine.exitCode;
  command->callback([options, &exitCode] { exitCode = runRequests(*options); });
}

}  // namespace palvin::tool
