// The platform on Linux: real files, the journal, the mount table and
// posix_spawn; Finder's own services (selection, appearance) are set by the
// entry point, since Linux has no Finder to ask.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux_journal.h"
#include "platform/linux_mount_table.h"
#include "platform/linux_strings_file.h"
#include "platform/platform.h"

namespace palvin {

// One selected item as a file manager hands it over: its path and, where the
// file manager already knows it, whether it is a directory. A known type is
// answered without touching the disk, which on a network mount could block
// the file manager's UI thread.
struct SelectedItem {
  std::string path;
  std::optional<bool> isDirectory{};
  bool operator==(const SelectedItem&) const = default;
};

class LinuxPlatform : public Platform {
 public:
  struct Options {
    // The shared container; default $PALVIN_SHARED_CONTAINER, else
    // $XDG_DATA_HOME/<app group identifier>, else
    // $HOME/.local/share/<app group identifier> (see containerPath).
    std::optional<std::string> container{};
    // The extension's bundle; default the directory of the running executable.
    std::optional<std::string> bundlePath{};
    // What "AppleInterfaceStyle" reads as ("Dark" for a dark appearance).
    std::optional<std::string> appearance{};
    // Directory holding <lang>.lproj/Localizable.strings; none: English keys.
    std::optional<std::string> stringsDirectory{};
  };

  LinuxPlatform();
  explicit LinuxPlatform(Options options);
  ~LinuxPlatform() override;
  LinuxPlatform(const LinuxPlatform&) = delete;
  LinuxPlatform& operator=(const LinuxPlatform&) = delete;

  // The selection of the next menu. Paths alone have no known type: their
  // directory check looks at the item itself.
  void setSelection(std::vector<SelectedItem> items);
  void setSelection(const std::vector<std::string>& paths);
  std::vector<std::string> monitoredDirectories() const;

  std::chrono::system_clock::time_point now() override;
  std::optional<std::string> containerPath(std::string_view appGroupIdentifier) override;
  bool unifiedLogEnabled(UnifiedLogType type) override;
  void unifiedLog(UnifiedLogType type, std::string_view message) override;
  std::shared_ptr<const TextRules> textRules() override;
  Result<ModificationDate> modificationDate(const std::string& path) override;
  Result<std::string> readFile(const std::string& path) override;
  Status writeFileAtomically(const std::string& path, std::string_view bytes) override;
  Status createDirectories(const std::string& path) override;
  Result<std::unique_ptr<WritableFile>> openForWriting(const std::string& path) override;
  void postNotification(std::string_view name) override;
  std::string bundlePath() override;
  void openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                       LaunchCompletion completion) override;
  std::optional<std::vector<std::string>> selectedItemPaths() override;
  std::optional<bool> isDirectory(const std::string& path) override;
  std::optional<std::vector<std::string>> mountedVolumePaths() override;
  void setMonitoredDirectories(const std::vector<std::string>& paths) override;
  VolumeObservation observeVolumeChanges(std::function<void()> handler) override;
  void stopObservingVolumeChanges(VolumeObservation observation) override;
  std::optional<std::string> userDefaultString(std::string_view key) override;
  bool hasSymbolImage(std::string_view name) override;
  std::string localizedString(std::string_view key) override;

 protected:
  // What a launch of the host app runs: its AppRun, the arguments and the
  // environment, for a subclass that starts processes its own way.
  struct LaunchCommand {
    std::string program;
    std::vector<std::string> arguments;  // arguments[0] is the program
    std::vector<std::string> environment;
    // Null-terminated pointers into `strings`, as exec-style calls take them;
    // valid while the command lives.
    static std::vector<char*> pointers(std::vector<std::string>& strings);
  };
  LaunchCommand launchCommand(const std::string& bundlePath, const OpenConfiguration& configuration);

 private:
  linux_journal::Socket& journal();
  void loadStrings();
  void deliverVolumeChange();

  Options options_;
  mutable std::mutex mutex_;
  std::vector<std::string> selection_;
  std::unordered_map<std::string, bool> knownDirectories_;  // the file manager's types
  std::vector<std::string> monitored_;

  std::once_flag journalOnce_;
  std::unique_ptr<linux_journal::Socket> journal_;

  std::once_flag stringsOnce_;
  linux_strings_file::Table strings_;

  // Volume observers share one watcher thread, which runs while any is
  // registered. `observersMutex_` guards the map and the watcher;
  // `deliveringMutex_` is held while the watcher calls handlers, so that a
  // stop from another thread can wait for a call in progress.
  std::mutex observersMutex_;
  std::map<VolumeObservation, std::function<void()>> observers_;
  VolumeObservation nextObservation_ = 1;
  std::unique_ptr<linux_mount_table::Watcher> watcher_;
  std::mutex deliveringMutex_;
};

}  // namespace palvin
