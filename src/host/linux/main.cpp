// PalvinHost, the host app for Linux: the other end of the request
// hand-off, a converter to keep, and a reference for writing a host app.
//
// The extension writes each conversion request as a JSON file into
// "<container>/requests" and starts the host app, the executable "AppRun" at
// the top of the bundle PalvinHost.app. FinderRequestQueue (src/requests,
// shared with every host app) claims, decodes and finishes each request and
// records "results/<request>"; this program supplies what is Linux's own:
//
//   converters.*        the table of conversions, and the catalogue built from it
//   file_converter.*    the checks on one untrusted file, its output beside it
//   image_engine.cpp    libvips; media_engine.cpp ffmpeg; pdf_engine.cpp poppler
//   request_watch.*     --watch: inotify and the notification FIFO
//   host_log.*          host-app.log
//   private_container.* the container refused unless it is the user's alone
//   conversion_notices.*    what the desktop is told: set-up, progress with Cancel, outcomes
//   desktop_notification.*  org.freedesktop.Notifications over GDBus
//
// Without --watch it handles what is waiting and exits once nothing is left;
// with it, it keeps running and wakes when a request lands, until
// --idle-exit's seconds pass with nothing to do (the systemd path unit starts
// it again when a request lands). SIGTERM or SIGINT finish the files under
// way and put unfinished requests back.
#include <fcntl.h>
#include <palvin/identifiers.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <thread>
#include <vips/vips8>

#include "catalogue/capabilities.h"
#include "catalogue/capability_store.h"
#include "conversion_notices.h"
#include "converters.h"
#include "file_converter.h"
#include "finder/finder_sync.h"
#include "host_log.h"
#include "platform/linux_platform.h"
#include "private_container.h"
#include "request_watch.h"
#include "requests/request_queue.h"
#include "shared/paths.h"

namespace palvin::host {
namespace {

using Level = FinderLog::Level;

constexpr const char* kUsage =
    "Usage: AppRun [--watch [--idle-exit SECONDS]] [--activate]\n"
    "PalvinHost converts the files picked in the Convert menu: it takes the requests in\n"
    "<shared container>/requests, writes each output beside its source (never replacing a\n"
    "file), records every file's outcome in <shared container>/results/<request>, and logs to\n"
    "<shared container>/host-app.log. It installs its catalogue, capabilities.json, first.\n"
    "\n"
    "  --watch     keep running: wake on new requests (inotify and the notification FIFO)\n"
    "              until SIGTERM or SIGINT, which finish or return the work under way\n"
    "  --idle-exit SECONDS\n"
    "              with --watch: exit once SECONDS (1 to 86400) pass with nothing to do\n"
    "  --activate  the menu's \"open to set up\": say on the desktop whether PalvinHost is\n"
    "              ready or what to do, and print what the shared container holds\n"
    "\n"
    "The shared container is $PALVIN_SHARED_CONTAINER (absolute), else $XDG_DATA_HOME/<app group>,\n"
    "else ~/.local/share/<app group>. Audio and video need the ffmpeg program in $PATH.\n"
    "\n"
    "Images share one memory budget, a quarter of the machine's memory (256 MiB to 4 GiB), or\n"
    "$PALVIN_HOST_MEMORY_MIB mebibytes: an image waits until its estimate fits beside those\n"
    "converting, and one whose estimate exceeds the whole budget is refused with the reason.\n";

// Written by the signal handler, read by the watch: one byte wakes it.
int stopPipe[2] = {-1, -1};
// The handler runs on whichever thread the signal lands, so it touches only
// lock-free atomics; main waits for a handler under way before the queue goes.
std::atomic<FinderRequestQueue*> runningQueue{nullptr};
std::atomic<int> handlersRunning{0};
static_assert(std::atomic<FinderRequestQueue*>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void onStopSignal(int) {
  int saved = errno;
  ++handlersRunning;
  if (FinderRequestQueue* queue = runningQueue.load()) queue->requestStop();
  --handlersRunning;
  [[maybe_unused]] ssize_t ignored = ::write(stopPipe[1], "x", 1);
  errno = saved;
}

void handleStopSignals() {
  if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGTERM, SIGINT}) ::sigaction(signal, &action, nullptr);
}

// --idle-exit's seconds, 1 to a day; 0 for anything else.
int parseIdleSeconds(std::string_view text) {
  int seconds = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  bool valid = error == std::errc{} && end == text.data() + text.size() && seconds >= 1 && seconds <= 86400;
  return valid ? seconds : 0;
}

// When this program was built: the catalogue's "generatedAt".
std::string buildTime() {
  struct stat info {};
  if (::stat("/proc/self/exe", &info) != 0) return "";
  using namespace std::chrono;
  auto since = seconds(info.st_mtim.tv_sec) + nanoseconds(info.st_mtim.tv_nsec);
  return FinderLog::formatTimestamp(system_clock::time_point(duration_cast<system_clock::duration>(since)));
}

// The container's catalogue is replaced whenever it differs from the one
// this host app would write now: the host app owns the document, and only its
// own table says what it can do (which changes with the build and with
// ffmpeg being installed or removed). An equal document is left alone, so the
// extension's cache, keyed by modification date, stays valid. Yields the
// number of formats it offers, or why it could not be installed.
Result<std::size_t> installCatalogue(Platform& platform, const HostLog& log, const ConverterTable& table,
                                     const std::string& container) {
  const FinderCapabilities catalogue = table.catalogue(buildTime());
  std::string ours = catalogue.encode(/*pretty=*/true) + "\n";
  std::string installed = paths::join(container, CapabilityStore::kFileName);
  auto theirs = platform.readFile(installed);
  if (theirs.ok() && *theirs == ours) return catalogue.formats.size();
  if (auto written = platform.writeFileAtomically(installed, ours); !written.ok()) {
    log.log(Level::error, "Cannot install capabilities: " + written.error());
    return Error{"Cannot install the catalogue: " + written.error()};
  }
  log.log(Level::info, "Installed " + installed);
  return catalogue.formats.size();
}

void describeContainer(Platform& platform, const std::string& container, const FinderRequestQueue& queue) {
  std::cout << "PalvinHost\nShared container: " << container << '\n';
  auto catalogue = platform.readFile(paths::join(container, CapabilityStore::kFileName));
  auto decoded = catalogue.ok() ? FinderCapabilities::decode(*catalogue) : Error{catalogue.error()};
  std::cout << "  capabilities.json  ";
  if (decoded.ok()) {
    std::cout << "present, " << decoded->formats.size() << " format(s)\n";
  } else {
    std::cout << (catalogue.ok() ? "unusable: " : "missing: ") << decoded.error() << '\n';
  }
  auto count = [](const std::string& directory) {
    auto names = listRequestFileNames(directory);
    return names.ok() ? names->size() : 0;
  };
  std::cout << "  requests/          " << count(queue.requestsDirectory()) << " pending, "
            << count(queue.processingDirectory()) << " in processing\n"
            << "  results/           " << count(queue.resultsDirectory()) << " result document(s)\n";
  struct stat info {};
  bool hasLog = ::stat(paths::join(container, kHostLogName).c_str(), &info) == 0;
  std::cout << "  host-app.log       " << (hasLog ? std::to_string(info.st_size) + " bytes" : "none") << '\n';
}

// Handles requests until none is left, or with `watch` until a stop or
// `idleExit` seconds without work (0: never).
void run(FinderRequestQueue& queue, const HostLog& log, bool watch, int idleExit,
         const std::string& container) {
  std::unique_ptr<RequestWatch> watcher;
  if (watch) {
    // Watching starts before the first look, so that nothing landing in
    // between is missed.
    std::string fifoProblem;
    auto started =
        RequestWatch::start(queue.requestsDirectory(),
                            paths::join(paths::join(container, "notify"), ids::kRequestNotificationName),
                            stopPipe[0], &fifoProblem);
    if (!started.ok()) {
      log.log(Level::error, "Cannot watch for requests: " + started.error());
      return;
    }
    if (!fifoProblem.empty())
      log.log(Level::warn, "No notification FIFO, watching the directory alone: " + fifoProblem);
    watcher = std::move(*started);
  }
  for (;;) {
    queue.processPending();
    if (!watcher || queue.stopRequested()) return;
    auto wake = watcher->wait(idleExit);
    if (wake == RequestWatch::Wake::stop) return;
    // One last look narrows the window for a request landing as we leave;
    // one that lands after it is still in requests/, where the path unit
    // sees it and starts the service again once this instance has ended.
    if (wake == RequestWatch::Wake::idle && queue.processPending() == 0) {
      log.log(Level::info, "Idle for " + std::to_string(idleExit) + " s, exiting");
      return;
    }
    if (wake == RequestWatch::Wake::directoryGone) {
      if (auto prepared = queue.prepare(); !prepared.ok() || !watcher->rewatch().ok()) {
        log.log(Level::error, "The request directory is gone and can't be made again");
        return;
      }
    }
  }
}

}  // namespace
}  // namespace palvin::host

int main(int argc, char** argv) {
  using namespace palvin;
  using namespace palvin::host;
  bool watch = false, activate = false;
  int idleExit = 0;
  for (int i = 1; i < argc; ++i) {
    std::string_view argument = argv[i];
    if (argument == "--watch") {
      watch = true;
    } else if (argument == "--idle-exit") {
      idleExit = i + 1 < argc ? parseIdleSeconds(argv[++i]) : 0;
      if (idleExit == 0) {
        std::cerr << "AppRun: --idle-exit needs a number of seconds from 1 to 86400\n";
        return 2;
      }
    } else if (argument == "--activate") {
      activate = true;
    } else if (argument == "--help" || argument == "-h") {
      std::cout << kUsage;
      return 0;
    } else {
      std::cerr << "AppRun: unknown argument '" << argument << "'\n" << kUsage;
      return 2;
    }
  }
  if (idleExit != 0 && !watch) {
    std::cerr << "AppRun: --idle-exit works with --watch only: without it the host app exits once nothing is "
                 "left\n";
    return 2;
  }
  if (VIPS_INIT(argv[0]) != 0) {
    std::cerr << "PalvinHost: libvips did not start: " << vips_error_buffer() << '\n';
    return 1;
  }
  limitImageDecoders();

  // The platform finds the container by the extension's own rule, including
  // PALVIN_SHARED_CONTAINER, in which the extension passes the one it uses.
  LinuxPlatform platform;
  ScopedPlatform installed(platform);
  // Lines go to standard error until the container, and with it the log, is known.
  std::optional<HostLog> log;
  auto logger = [&log](FinderLog::Level level, const std::string& message) {
    if (log) {
      log->log(level, message);
    } else {
      std::cerr << "PalvinHost: " << message << '\n';
    }
  };
  const std::string ffmpeg = findProgram("ffmpeg");
  const ConverterTable table(!ffmpeg.empty());
  ConversionNotices notices(table, logger);
  // Set-up that can't go on is told where the user looks, whether they
  // picked "open to set up" or a conversion: on the desktop.
  auto fail = [&](const std::string& what, const std::string& todo) {
    std::cerr << "PalvinHost: " << what << '\n';
    notices.problem(what, todo, log ? log->path() : "");
    return 1;
  };
  auto container = platform.containerPath(ids::kAppGroupIdentifier);
  if (!container) {
    return fail(
        "No shared container: HOME is not set, and neither PALVIN_SHARED_CONTAINER nor XDG_DATA_HOME "
        "is an absolute path.",
        "Start PalvinHost from your desktop session, or set PALVIN_SHARED_CONTAINER to an absolute path.");
  }
  const std::string fixIt = "Make sure that PalvinHost can write in " + *container +
                            ", then choose \xE2\x80\x9C" + std::string(FinderSync::kFallbackTitle) +
                            "\xE2\x80\x9D again.";
  if (auto created = platform.createDirectories(*container); !created.ok()) {
    return fail("Cannot set up the shared container: " + created.error(), fixIt);
  }
  // Nothing is read from or written to a container someone else can change,
  // not even the log.
  if (auto problem = makeContainerPrivate(*container)) {
    return fail(problem->what, problem->todo.empty() ? fixIt : problem->todo);
  }
  log.emplace(platform, paths::join(*container, kHostLogName));
  if (ffmpeg.empty()) log->log(Level::warn, "ffmpeg not found in PATH: audio and video are not offered");
  MemoryBudget memory(MemoryBudget::sizeFromEnvironment(), logger);
  FileConverter converter(
      table, ffmpeg, logger,
      [&notices](const FinderFileTask& task, double fraction) { notices.fileProgress(task, fraction); },
      FileConverter::Seams::fromEnvironment(), memory);

  FinderRequestQueue::Options queueOptions;
  queueOptions.convert = [&converter](const FinderFileTask& task, const std::atomic<bool>& stopping) {
    return converter(task, stopping);
  };
  queueOptions.log = logger;
  queueOptions.parallelism = std::max(1u, std::thread::hardware_concurrency());
  queueOptions.progress = [&notices](const std::string& name, const FinderConversionResult& result) {
    notices.progress(name, result);
  };
  queueOptions.finished = [&notices](const std::string& name, const FinderConversionResult& result) {
    notices.finished(name, result);
  };
  FinderRequestQueue queue(*container, queueOptions);
  if (auto prepared = queue.prepare(); !prepared.ok()) {
    return fail("Cannot set up the shared container: " + prepared.error(), fixIt);
  }
  auto catalogue = installCatalogue(platform, *log, table, *container);
  if (activate) {
    describeContainer(platform, *container, queue);
    if (catalogue.ok()) {
      notices.ready(*catalogue, !ffmpeg.empty(), log->path());
    } else {
      notices.problem(catalogue.error(), fixIt, log->path());
    }
  }

  notices.setQueue(&queue);
  runningQueue = &queue;
  handleStopSignals();
  run(queue, *log, watch, idleExit, *container);
  runningQueue = nullptr;
  notices.setQueue(nullptr);
  while (handlersRunning.load() != 0) std::this_thread::yield();
  if (queue.stopRequested()) log->log(Level::info, "Stopped");
  vips_shutdown();
  return 0;
}
