// The principal object: owns the capability store and the request sender,
// builds the Convert menu, answers its actions and keeps the monitored
// directories current. Platform-neutral; the macOS shell forwards to it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "catalogue/capability_store.h"
#include "finder/menu_model.h"
#include "planner/menu_planner.h"
#include "platform/platform.h"
#include "requests/request_sender.h"

namespace palvin {

// The file manager's menu kinds, with the platform's values.
enum class FIMenuKind : std::uint64_t {
  contextualMenuForItems = 0,
  contextualMenuForContainer = 1,
  contextualMenuForSidebar = 2,
  toolbarItemMenu = 3,
};

class FinderSync {
 public:
  static constexpr std::string_view kDefaultMenuTitle = "Convert using Palvin";
  static constexpr std::string_view kFallbackTitle = "Convert with Palvin \u2014 open to set up";

  // Logs the launch, registers the monitored directories and starts
  // observing mounts and unmounts.
  FinderSync();
  // Stops this object's observation, so no volume event reaches it once
  // destroyed; other controllers in the process keep theirs.
  ~FinderSync();
  FinderSync(const FinderSync&) = delete;
  FinderSync& operator=(const FinderSync&) = delete;

  void volumesChanged();
  void refreshMonitoredDirectories();

  // Observation and badge callbacks: the extension sets no badges. They keep
  // the names of the FIFinderSync methods the macOS shell forwards; here, as
  // everywhere in the core, a "URL" is a plain file-system path.
  void beginObservingDirectoryAtURL(const std::string& directory);
  void endObservingDirectoryAtURL(const std::string& directory);
  void requestBadgeIdentifierForURL(const std::string& item);

  // Always a menu, empty when there is nothing to offer. Takes the raw
  // platform value so that unknown kinds are handled like the platform's.
  Menu menuForMenuKind(std::uint64_t menuKind);
  // The picked item's tag is all that is read of the sender.
  void convertAction(std::int64_t senderTag);
  void openHostApp();

  const std::map<std::int64_t, std::string>& targetFormatByTag() const { return targetFormatByTag_; }
  const std::vector<FinderFileRef>& pendingFiles() const { return pendingFiles_; }
  CapabilityStore& capabilities() { return capabilities_; }

 private:
  void populateConvertMenu(Menu& submenu, const std::vector<FinderMenuPlanner::TargetItem>& inlineTargets,
                           const std::vector<FinderMenuPlanner::CategoryGroup>& categories);
  void addTargetItem(Menu& menu, const FinderMenuPlanner::TargetItem& target);
  std::optional<SymbolImage> paletteSymbolImage(const std::string& symbolName,
                                                const std::string& accessibilityDescription);

  CapabilityStore capabilities_;
  FinderRequestSender requester_;  // delivers requests, launches the host app
  std::map<std::int64_t, std::string> targetFormatByTag_;
  std::vector<FinderFileRef> pendingFiles_;
  VolumeObservation volumeObservation_ = 0;
};

}  // namespace palvin
