// The platform inside the Finder Sync extension process: Foundation and
// AppKit for files, bundles, defaults and launching, FinderSync for the
// selection and the monitored directories, os_log for the unified log and
// the Darwin notify center for the request notification. Plain C++ so that
// only the .mm files know the Objective-C types behind it.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/platform.h"

namespace palvin {

class ApplePlatform final : public Platform {
 public:
  ApplePlatform();
  // Removes every volume observer still registered.
  ~ApplePlatform() override;
  ApplePlatform(const ApplePlatform&) = delete;
  ApplePlatform& operator=(const ApplePlatform&) = delete;

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

 private:
  // Each registration's workspace observers and the handler they call;
  // Objective-C inside.
  struct VolumeObservers;
  std::unique_ptr<VolumeObservers> volumes_;
};

}  // namespace palvin
