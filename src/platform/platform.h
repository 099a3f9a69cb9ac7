// The one seam between the portable core and the operating system. Every
// operation the extension needs from its host platform goes through here, so
// the same core runs inside Finder (apple), on Linux (linux) and in tests
// (the recording fake under tests/).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/result.h"
#include "shared/text.h"

namespace palvin {

// The unified log's own types; the extension's four levels map onto these.
enum class UnifiedLogType { debug, info, error };

// A file's last-modification time at the file system's full precision.
struct FileTime {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  bool operator==(const FileTime&) const = default;
};

// When a path was last changed, as a cache key. For a symbolic link both the
// link's own time and its target's count, so that pointing the link elsewhere
// and changing the file it points to are both seen; a dangling link has no
// target time.
struct ModificationDate {
  FileTime modified;
  std::optional<FileTime> linkTarget;
  bool operator==(const ModificationDate&) const = default;
};

// One registration for mount and unmount events; 0 is none.
using VolumeObservation = std::uint64_t;

// A file opened for writing without creating or truncating it.
class WritableFile {
 public:
  virtual ~WritableFile() = default;
  // Moves to the end and yields the resulting offset.
  virtual Result<std::uint64_t> seekToEnd() = 0;
  // Writes all of `bytes` at the current position.
  virtual Status write(std::string_view bytes) = 0;
  // The last `length` bytes of the file as it is now (all of it when it is
  // shorter), leaving the position at the end.
  virtual Result<std::string> readTail(std::uint64_t length) = 0;
  virtual Status close() = 0;
};

struct OpenConfiguration {
  bool activates = false;
  bool addsToRecentItems = false;
};

// Called once the launch has been tried: nothing on success, else the error's
// human-readable description. May run on any thread.
using LaunchCompletion = std::function<void(std::optional<std::string> error)>;

// Threads. "Any thread" operations run on several threads at once: the
// controller's, the log's worker, the mount watcher's, whichever thread logs.
// "Controller" ones run only where the platform calls the controller (the
// file manager's UI thread in GNOME Files), one call at a time. Each line
// names its callers.
class Platform {
 public:
  // The most `readFile` reads of one file, on every platform: a document
  // larger than this is not one we wrote.
  static constexpr std::uint64_t kMaxReadSize = 64ull << 20;

  virtual ~Platform() = default;

  // --- Time -------------------------------------------------------------
  // Any thread: each log line is stamped on the thread that logs it.
  virtual std::chrono::system_clock::time_point now() = 0;

  // --- Shared container -------------------------------------------------
  // The app group container's root directory, or nothing. Asked afresh on
  // every call; creates nothing.
  // Any thread: the log, the store, the sender.
  virtual std::optional<std::string> containerPath(std::string_view appGroupIdentifier) = 0;

  // --- Unified log ------------------------------------------------------
  // The handle behind these is made once, on first use.
  // Any thread, at once: every log line.
  virtual bool unifiedLogEnabled(UnifiedLogType type) = 0;
  // Any thread, at once: every log line.
  virtual void unifiedLog(UnifiedLogType type, std::string_view message) = 0;

  // --- Text in the user's locale -------------------------------------------
  // The current locale's display-name order and the Unicode lower-casing.
  // Asked once per menu, so a change of locale is seen by the next one.
  // Controller: once per menu.
  virtual std::shared_ptr<const TextRules> textRules() = 0;

  // --- Files --------------------------------------------------------------
  // The modification date of the item at `path` itself (a link is not
  // followed for its own date); an error when it is missing or can't be
  // examined.
  // Controller: the store, once per menu.
  virtual Result<ModificationDate> modificationDate(const std::string& path) = 0;
  // The whole content of a file. Refuses, with a description, anything that
  // could block or exhaust memory (FIFOs, devices, directories, huge files).
  // Controller: the store, when the catalogue changed.
  virtual Result<std::string> readFile(const std::string& path) = 0;
  // Replaces the file's whole content through a temporary file in the same
  // directory, so a reader sees the old file or the new one, never a part.
  // Any thread: the sender's requests beside the log's worker's trims.
  virtual Status writeFileAtomically(const std::string& path, std::string_view bytes) = 0;
  // Creates a directory and its missing parents; succeeds when it exists.
  // Any thread: the sender beside the log's worker.
  virtual Status createDirectories(const std::string& path) = 0;
  // An existing file opened for writing (and reading its tail), or the reason
  // it can't be.
  // Any thread: the log's worker; the file it yields stays on that thread.
  virtual Result<std::unique_ptr<WritableFile>> openForWriting(const std::string& path) = 0;

  // --- Notifications, bundles, launching ---------------------------------
  // A system-wide notification with a name and no payload.
  // Controller: the sender.
  virtual void postNotification(std::string_view name) = 0;
  // The path of the extension's own bundle.
  // Controller: construction and the sender.
  virtual std::string bundlePath() = 0;
  // Starts (or finds) the application whose bundle is at `bundlePath`.
  // Returns at once; `completion` runs when the outcome is known.
  // Controller: the sender; `completion` may run on any thread.
  virtual void openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                               LaunchCompletion completion) = 0;

  // --- Finder -------------------------------------------------------------
  // The paths of the current selection, in the file manager's order, or
  // nothing when the platform gives none.
  // Controller: each menu.
  virtual std::optional<std::vector<std::string>> selectedItemPaths() = 0;
  // Whether the item itself is a directory (a link to one is not, as a
  // selected URL's directory value describes the link); nothing when unknown
  // or the lookup failed. Asked for each selected item on the file manager's
  // UI thread: where the file manager handed over the item's type, that is
  // the answer, and the disk is not touched.
  // Controller: each selected item.
  virtual std::optional<bool> isDirectory(const std::string& path) = 0;
  // Mounted volumes' root paths, hidden ones included, or nothing.
  // Any thread: the controller at construction, the mount watcher's thread after.
  virtual std::optional<std::vector<std::string>> mountedVolumePaths() = 0;
  // Replaces the set of directories the file manager involves us in.
  // Any thread: as mountedVolumePaths.
  virtual void setMonitoredDirectories(const std::vector<std::string>& paths) = 0;
  // Starts delivering mount and unmount events to `handler` (on a thread of
  // the platform's choosing). Every call is a registration of its own, as
  // each object that observes registers itself with the system.
  // Controller: construction.
  virtual VolumeObservation observeVolumeChanges(std::function<void()> handler) = 0;
  // Ends one registration and no other; after it returns that handler is not
  // called again. Allowed from inside the handler.
  // Any thread, a handler included: the controller's destruction.
  virtual void stopObservingVolumeChanges(VolumeObservation observation) = 0;
  // A string from the user's defaults, or nothing.
  // Controller: each category item.
  virtual std::optional<std::string> userDefaultString(std::string_view key) = 0;
  // Whether the system has a symbol image of that name.
  // Controller: each category item.
  virtual bool hasSymbolImage(std::string_view name) = 0;
  // The localised text for an English key in the extension's own strings
  // table, the key itself when there is no translation.
  // Controller: each menu.
  virtual std::string localizedString(std::string_view key) = 0;
};

// The platform installed by the entry point (the macOS shell, the tool, a
// test). Installing replaces the previous one; the caller keeps ownership,
// and may destroy the one replaced as soon as this returns.
void installPlatform(Platform* platform);
// Stops the process when none is installed: a mistake of the entry point.
Platform& currentPlatform();
// The installed platform, or null, for what must work before or after one.
Platform* installedPlatform();

// Called with a platform that stops being the installed one (replaced,
// uninstalled, or at the end of its ScopedPlatform), before that call
// returns: work queued against it finishes or is dropped then. One handler,
// set once by the log.
using PlatformRetiredHandler = void (*)(Platform& retired);
void setPlatformRetiredHandler(PlatformRetiredHandler handler);

// Installs a platform for the lifetime of a scope and puts back the previous
// one, also when the scope is left by an exception.
class ScopedPlatform {
 public:
  explicit ScopedPlatform(Platform& platform);
  ~ScopedPlatform();
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;

 private:
  Platform* previous_;
};

}  // namespace palvin
