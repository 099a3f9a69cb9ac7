// A platform for tests: an in-memory file system with a controllable clock,
// failure switches, and a record of every outward effect (notifications,
// launches, monitored directories, unified-log entries) in call order.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace palvin::testing {

class FakePlatform : public Platform {
 public:
  struct File {
    std::string content;
    FileTime modified;
    std::optional<FileTime> linkTarget;  // set for a symbolic link: its target's date
  };
  struct Launch {
    std::string bundlePath;
    OpenConfiguration configuration;
  };
  struct UnifiedEntry {
    UnifiedLogType type;
    std::string message;
    bool operator==(const UnifiedEntry&) const = default;
  };

  // --- Set-up ------------------------------------------------------------
  // Change these before the first log line or after FinderLog::flush(): the
  // log's worker reads some of them (folders, write failures) under the lock.
  std::optional<std::string> container = "/container";
  std::string bundle = "/Applications/Palvin.app/Contents/PlugIns/PalvinFinder.appex";
  std::optional<std::vector<std::string>> selection;
  std::set<std::string> directories = {"/container"};  // paths that are directories
  std::set<std::string> unknownDirectoryness;          // paths whose directory lookup fails
  std::optional<std::vector<std::string>> volumes = std::vector<std::string>{};
  std::map<std::string, std::string> defaults;
  std::set<std::string> symbols = {"photo", "doc.text", "film", "waveform"};
  std::map<std::string, std::string> translations;
  std::set<UnifiedLogType> enabledTypes = {UnifiedLogType::info, UnifiedLogType::error};
  std::chrono::system_clock::time_point clock{std::chrono::milliseconds(1795424400123)};

  // Failure switches: when set, the operation fails with this description.
  std::optional<std::string> failWrites;
  std::optional<std::string> failCreateDirectories;
  std::optional<std::string> failReads;
  std::optional<std::string> failLaunch;

  // --- In-memory files ---------------------------------------------------
  void putFile(const std::string& path, std::string content, FileTime modified,
               std::optional<FileTime> linkTarget = {});
  std::optional<File> file(const std::string& path) const;
  void removeFile(const std::string& path);
  std::vector<std::string> filesUnder(const std::string& directory) const;

  // --- What happened -----------------------------------------------------
  std::vector<Launch> launches() const { return locked(launches_); }
  std::vector<UnifiedEntry> unifiedEntries() const { return locked(unified_); }
  // Outward effects in order: "write <path>", "notify <name>", "open <path>",
  // "log <message>" (entries the unified log records), "monitor <path> <path>...",
  // "observe volumes".
  std::vector<std::string> events() const { return locked(events_); }
  int fileReads() const { return locked(reads_); }
  // Delivers a mount or unmount to every registered observer.
  void simulateVolumeChange();

  // --- Platform ----------------------------------------------------------
  std::chrono::system_clock::time_point now() override { return locked(clock); }
  std::optional<std::string> containerPath(std::string_view) override { return locked(container); }
  bool unifiedLogEnabled(UnifiedLogType type) override { return locked(enabledTypes).contains(type); }
  void unifiedLog(UnifiedLogType type, std::string_view message) override;
  std::shared_ptr<const TextRules> textRules() override;
  Result<ModificationDate> modificationDate(const std::string& path) override;
  Result<std::string> readFile(const std::string& path) override;
  Status writeFileAtomically(const std::string& path, std::string_view bytes) override;
  Status createDirectories(const std::string& path) override;
  Result<std::unique_ptr<WritableFile>> openForWriting(const std::string& path) override;
  void postNotification(std::string_view name) override;
  std::string bundlePath() override { return locked(bundle); }
  void openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                       LaunchCompletion completion) override;
  std::optional<std::vector<std::string>> selectedItemPaths() override { return locked(selection); }
  std::optional<bool> isDirectory(const std::string& path) override;
  std::optional<std::vector<std::string>> mountedVolumePaths() override { return locked(volumes); }
  void setMonitoredDirectories(const std::vector<std::string>& paths) override;
  VolumeObservation observeVolumeChanges(std::function<void()> handler) override;
  void stopObservingVolumeChanges(VolumeObservation observation) override;
  std::optional<std::string> userDefaultString(std::string_view key) override;
  bool hasSymbolImage(std::string_view name) override { return locked(symbols).contains(std::string(name)); }
  std::string localizedString(std::string_view key) override;

 private:
  friend class FakeWritableFile;
  FileTime tick();
  // A copy taken under the lock: the log's worker thread writes here too.
  template <class T>
  T locked(const T& value) const {
    std::lock_guard lock(mutex_);
    return value;
  }

  mutable std::mutex mutex_;
  std::map<std::string, File> files_;
  std::vector<Launch> launches_;
  std::vector<UnifiedEntry> unified_;
  std::vector<std::string> events_;
  std::map<VolumeObservation, std::function<void()>> volumeHandlers_;
  VolumeObservation nextObservation_ = 1;
  int reads_ = 0;
  std::int64_t ticks_ = 0;
};

}  // namespace palvin::testing
