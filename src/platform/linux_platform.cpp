#include "platform/linux_platform.h"

#include <fcntl.h>
#include <limits.h>
#include <palvin/identifiers.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/linux_files.h"
#include "platform/linux_journal.h"
#include "platform/linux_localization.h"
#include "platform/linux_text.h"
#include "shared/paths.h"
#include "shared/threads.h"

extern char** environ;

namespace palvin {
namespace {

constexpr std::string_view kContainerVariable = "PALVIN_SHARED_CONTAINER";
constexpr std::string_view kNotifyDirectory = "notify";

// The journal's priorities are syslog's numbers.
std::string_view journalPriority(UnifiedLogType type) {
  switch (type) {
    case UnifiedLogType::debug:
      return "7";
    case UnifiedLogType::info:
      return "6";
    case UnifiedLogType::error:
      return "3";
  }
  return "3";
}

// Writes to a pipe whose reader may vanish at any moment: the SIGPIPE that
// would then end the process is blocked and, if this write raised it,
// taken back before the mask is restored.
void writeWithoutSigpipe(int fd, std::string_view bytes) {
  sigset_t pipeOnly;
  sigset_t previous;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  if (pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous) != 0) return;
  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;
  ssize_t written;
  do {
    written = ::write(fd, bytes.data(), bytes.size());
  } while (written < 0 && errno == EINTR);
  if (written < 0 && errno == EPIPE && !alreadyPending) {
    timespec zero{};
    while (sigtimedwait(&pipeOnly, nullptr, &zero) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// The environment of the running process with the shared container's
// variable set to `container`, or removed when there is none.
std::vector<std::string> launchEnvironment(const std::optional<std::string>& container) {
  std::vector<std::string> entries;
  std::string prefix = std::string(kContainerVariable) + "=";
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::string_view(*entry).substr(0, prefix.size()) != prefix) entries.emplace_back(*entry);
  }
  if (container) entries.push_back(prefix + *container);
  return entries;
}

// Set on the watcher thread while it calls volume handlers, so that a handler
// that stops observing does not wait for itself.
thread_local bool tDeliveringVolumeChange = false;

}  // namespace

std::vector<char*> LinuxPlatform::LaunchCommand::pointers(std::vector<std::string>& strings) {
  std::vector<char*> out;
  out.reserve(strings.size() + 1);
  for (auto& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

LinuxPlatform::LinuxPlatform() : LinuxPlatform(Options{}) {}

LinuxPlatform::LinuxPlatform(Options options) : options_(std::move(options)) {}

LinuxPlatform::~LinuxPlatform() {
  std::unique_ptr<linux_mount_table::Watcher> watcher;
  {
    std::lock_guard lock(observersMutex_);
    observers_.clear();
    watcher = std::move(watcher_);
  }
  if (watcher) watcher->stop();
}

void LinuxPlatform::setSelection(std::vector<SelectedItem> items) {
  std::vector<std::string> paths;
  std::unordered_map<std::string, bool> known;
  paths.reserve(items.size());
  for (auto& item : items) {
    if (item.isDirectory) known.insert_or_assign(item.path, *item.isDirectory);
    paths.push_back(std::move(item.path));
  }
  std::lock_guard lock(mutex_);
  selection_ = std::move(paths);
  knownDirectories_ = std::move(known);
}

void LinuxPlatform::setSelection(const std::vector<std::string>& paths) {
  std::vector<SelectedItem> items;
  items.reserve(paths.size());
  for (const auto& path : paths) items.push_back(SelectedItem{path});
  setSelection(std::move(items));
}

std::vector<std::string> LinuxPlatform::monitoredDirectories() const {
  std::lock_guard lock(mutex_);
  return monitored_;
}

std::chrono::system_clock::time_point LinuxPlatform::now() {
  return std::chrono::system_clock::now();
}

// One rule for the extension, the tool and the host app: the extension hands
// its container to the host app it starts in PALVIN_SHARED_CONTAINER, and
// anything started with that variable uses the same directory. Like the XDG
// base directory rules, relative values are ignored.
std::optional<std::string> LinuxPlatform::containerPath(std::string_view appGroupIdentifier) {
  if (options_.container) return *options_.container;
  const char* given = std::getenv(std::string(kContainerVariable).c_str());
  if (given != nullptr && given[0] == '/') return std::string(given);
  const char* data = std::getenv("XDG_DATA_HOME");
  if (data != nullptr && data[0] == '/') return paths::join(data, appGroupIdentifier);
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] != '\0')
    return paths::join(paths::join(home, ".local/share"), appGroupIdentifier);
  return std::nullopt;
}

// The journal stands in for the unified log, with the subsystem and the
// category as fields of each entry, which journalctl filters on as log show
// does on macOS.
linux_journal::Socket& LinuxPlatform::journal() {
  std::call_once(journalOnce_, [this] { journal_ = std::make_unique<linux_journal::Socket>(); });
  return *journal_;
}

bool LinuxPlatform::unifiedLogEnabled(UnifiedLogType) {
  return journal().listening();
}

void LinuxPlatform::unifiedLog(UnifiedLogType type, std::string_view message) {
  linux_journal::Socket& socket = journal();
  if (!socket.listening()) return;
  socket.send(linux_journal::encode({{"PRIORITY", journalPriority(type)},
                                     {"SYSLOG_IDENTIFIER", ids::kLogSubsystem},
                                     {"PALVIN_SUBSYSTEM", ids::kLogSubsystem},
                                     {"PALVIN_CATEGORY", ids::kLogCategory},
                                     {"MESSAGE", message}}));
}

std::shared_ptr<const TextRules> LinuxPlatform::textRules() {
  return linux_text::currentRules();
}

// Any file type has a date; readFile is what refuses the ones it can't read,
// so a directory in a file's place is reported rather than passed over.
Result<ModificationDate> LinuxPlatform::modificationDate(const std::string& path) {
  return linux_files::modificationDate(path);
}

Result<std::string> LinuxPlatform::readFile(const std::string& path) {
  return linux_files::readFile(path, kMaxReadSize);
}

Status LinuxPlatform::writeFileAtomically(const std::string& path, std::string_view bytes) {
  return linux_files::writeFileAtomically(path, bytes);
}

Status LinuxPlatform::createDirectories(const std::string& path) {
  return linux_files::createDirectories(path);
}

Result<std::unique_ptr<WritableFile>> LinuxPlatform::openForWriting(const std::string& path) {
  return linux_files::openForWriting(path);
}

// Linux has no notify center. A host app that wants the notification makes
// the FIFO "<container>/notify/<name>" and keeps it open for reading; each
// notification then writes the name and a line feed into it. With no reader
// the open fails at once (ENXIO) and nothing happens; while a slow reader's
// FIFO is full, further notifications are dropped, as wake-ups already wait.
void LinuxPlatform::postNotification(std::string_view name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos) return;
  std::string line = std::string(name) + "\n";
  if (line.size() > PIPE_BUF) return;  // longer writes to a pipe are not atomic
  auto container = containerPath(ids::kAppGroupIdentifier);
  if (!container) return;
  std::string path = paths::join(paths::join(*container, kNotifyDirectory), name);
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISFIFO(info.st_mode)) return;
  int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
  if (fd < 0) return;
  if (::fstat(fd, &info) == 0 && S_ISFIFO(info.st_mode)) writeWithoutSigpipe(fd, line);
  ::close(fd);
}

std::string LinuxPlatform::bundlePath() {
  if (options_.bundlePath) return *options_.bundlePath;
  std::string target(256, '\0');
  for (;;) {
    ssize_t length = ::readlink("/proc/self/exe", target.data(), target.size());
    if (length < 0) return {};
    if (static_cast<std::size_t>(length) < target.size()) {
      target.resize(static_cast<std::size_t>(length));
      return paths::parent(target);
    }
    target.resize(target.size() * 2);
  }
}

// A Linux host bundle is a directory "<Name>.app" with an executable
// "AppRun" at its top. It is started afresh each time; a host app that must
// run once forwards to its running instance itself. The completion runs on
// the caller's thread as soon as posix_spawn has answered, and a detached
// thread reaps the child so that no zombie stays behind. Recent items have
// no counterpart here; that setting is ignored.
LinuxPlatform::LaunchCommand LinuxPlatform::launchCommand(const std::string& bundlePath,
                                                          const OpenConfiguration& configuration) {
  LaunchCommand command;
  command.program = paths::join(bundlePath, "AppRun");
  command.arguments = {command.program};
  if (configuration.activates) command.arguments.emplace_back("--activate");
  // A tool run with its own container passes it on, so the host app finds
  // the same requests.
  command.environment = launchEnvironment(containerPath(ids::kAppGroupIdentifier));
  return command;
}

void LinuxPlatform::openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                                    LaunchCompletion completion) {
  LaunchCommand command = launchCommand(bundlePath, configuration);
  const std::string& program = command.program;
  std::vector<char*> argv = LaunchCommand::pointers(command.arguments);
  std::vector<char*> envp = LaunchCommand::pointers(command.environment);

  // The host app gets a session of its own, so that it outlives the caller's
  // terminal job, and default signal handling whatever the caller's thread
  // had blocked or ignored.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = 0;
  int failure = posix_spawn(&child, program.c_str(), nullptr, &attributes, argv.data(), envp.data());
  posix_spawnattr_destroy(&attributes);
  if (failure != 0) {
    completion(linux_files::describe(program, failure));
    return;
  }
  try {
    startQuietThread([child] {
      int status = 0;
      while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
      }
    }).detach();
  } catch (...) {
    // Without a thread the child stays a zombie until this process ends.
  }
  completion(std::nullopt);
}

std::optional<std::vector<std::string>> LinuxPlatform::selectedItemPaths() {
  std::lock_guard lock(mutex_);
  return selection_;
}

std::optional<bool> LinuxPlatform::isDirectory(const std::string& path) {
  {
    std::lock_guard lock(mutex_);
    if (auto known = knownDirectories_.find(path); known != knownDirectories_.end()) return known->second;
  }
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return std::nullopt;
  return S_ISDIR(info.st_mode);
}

std::optional<std::vector<std::string>> LinuxPlatform::mountedVolumePaths() {
  auto table = linux_files::readFile("/proc/self/mountinfo", kMaxReadSize);
  if (!table.ok()) return std::nullopt;
  return linux_mount_table::mountPoints(*table);
}

void LinuxPlatform::setMonitoredDirectories(const std::vector<std::string>& paths) {
  std::lock_guard lock(mutex_);
  monitored_ = paths;
}

// When the mount table can't be watched, no events come; nothing else fails.
VolumeObservation LinuxPlatform::observeVolumeChanges(std::function<void()> handler) {
  std::lock_guard lock(observersMutex_);
  const VolumeObservation observation = nextObservation_++;
  observers_.emplace(observation, std::move(handler));
  if (!watcher_) watcher_ = linux_mount_table::Watcher::start([this] { deliverVolumeChange(); });
  return observation;
}

void LinuxPlatform::stopObservingVolumeChanges(VolumeObservation observation) {
  std::unique_ptr<linux_mount_table::Watcher> idle;
  {
    std::lock_guard lock(observersMutex_);
    if (observers_.erase(observation) == 0) return;
    if (observers_.empty()) idle = std::move(watcher_);
  }
  // A call in progress on the watcher thread ends before this returns.
  if (!tDeliveringVolumeChange) {
    std::lock_guard wait(deliveringMutex_);
  }
  if (idle) idle->stop();
}

// On the watcher thread. Each handler is looked up just before its call, so
// one that was stopped meanwhile, even by an earlier handler, is skipped.
void LinuxPlatform::deliverVolumeChange() {
  std::lock_guard delivering(deliveringMutex_);
  tDeliveringVolumeChange = true;
  std::vector<VolumeObservation> registered;
  {
    std::lock_guard lock(observersMutex_);
    for (const auto& entry : observers_) registered.push_back(entry.first);
  }
  for (VolumeObservation observation : registered) {
    std::function<void()> handler;
    {
      std::lock_guard lock(observersMutex_);
      auto found = observers_.find(observation);
      if (found == observers_.end()) continue;
      handler = found->second;
    }
    try {
      handler();
    } catch (...) {
      // One handler's failure loses its own event only.
    }
  }
  tDeliveringVolumeChange = false;
}

std::optional<std::string> LinuxPlatform::userDefaultString(std::string_view key) {
  if (key == "AppleInterfaceStyle") return options_.appearance;
  return std::nullopt;
}

// Linux has no symbol images. Names shaped like system symbol names
// ("doc.text", "1.circle") are accepted, so that the menu keeps its images'
// places and a front end can map the names to icons of its own.
bool LinuxPlatform::hasSymbolImage(std::string_view name) {
  if (name.empty()) return false;
  for (char c : name) {
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.')) return false;
  }
  return true;
}

void LinuxPlatform::loadStrings() {
  if (!options_.stringsDirectory) return;
  for (const auto& name : linux_localization::lprojNames(linux_localization::messagesLocale())) {
    std::string path =
        paths::join(paths::join(*options_.stringsDirectory, name + ".lproj"), "Localizable.strings");
    auto bytes = linux_files::readFile(path, kMaxReadSize);
    if (!bytes.ok()) continue;
    // A table that does not parse is passed over like a missing one.
    auto table = linux_strings_file::parse(*bytes);
    if (!table.ok()) continue;
    strings_ = std::move(*table);
    return;
  }
}

std::string LinuxPlatform::localizedString(std::string_view key) {
  try {
    std::call_once(stringsOnce_, [this] { loadStrings(); });
    auto it = strings_.find(key);
    return it == strings_.end() ? std::string(key) : it->second;
  } catch (...) {
    return std::string(key);
  }
}

}  // namespace palvin
