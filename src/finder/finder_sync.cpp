#include "finder/finder_sync.h"

#include <unordered_set>

#include "platform/platform.h"
#include "services/log.h"
#include "shared/json_writer.h"
#include "shared/text.h"

namespace palvin {

using FinderLog::Level;

FinderSync::FinderSync() {
  Platform& platform = currentPlatform();
  FinderLog::log(Level::info, "FinderSync launched: " + platform.bundlePath());
  refreshMonitoredDirectories();
  // Registered after the first refresh, as the platform shell does.
  volumeObservation_ = platform.observeVolumeChanges([this] { volumesChanged(); });
}

FinderSync::~FinderSync() {
  currentPlatform().stopObservingVolumeChanges(volumeObservation_);
}

void FinderSync::volumesChanged() {
  refreshMonitoredDirectories();
}

void FinderSync::refreshMonitoredDirectories() {
  Platform& platform = currentPlatform();
  std::vector<std::string> directories{"/"};
  std::unordered_set<std::string> seen{"/"};
  if (auto volumes = platform.mountedVolumePaths()) {
    for (auto& volume : *volumes) {
      if (seen.insert(volume).second) directories.push_back(std::move(volume));
    }
  }
  platform.setMonitoredDirectories(directories);
  FinderLog::log(Level::debug, "Monitoring " + std::to_string(directories.size()) + " directories");
}

void FinderSync::beginObservingDirectoryAtURL(const std::string&) {}
void FinderSync::endObservingDirectoryAtURL(const std::string&) {}
void FinderSync::requestBadgeIdentifierForURL(const std::string&) {}

Menu FinderSync::menuForMenuKind(std::uint64_t menuKind) {
  Menu top;
  if (menuKind != static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems)) return top;

  targetFormatByTag_.clear();
  pendingFiles_.clear();

  Platform& platform = currentPlatform();
  std::vector<std::string> files = platform.selectedItemPaths().value_or(std::vector<std::string>{});
  // A failed or unknown directory lookup counts the item as a file.
  std::erase_if(files, [&platform](const std::string& path) { return platform.isDirectory(path) == true; });
  if (files.empty()) return top;
  const std::size_t fileCount = files.size();

  std::shared_ptr<const FinderCapabilities> capabilities = capabilities_.load();
  if (!capabilities) {
    MenuItem fallback;
    fallback.title = platform.localizedString(kFallbackTitle);
    fallback.action = MenuAction::openHostApp;
    top.items.push_back(std::move(fallback));
    return top;
  }

  // A request names its files in JSON, which holds UTF-8 only, so a pick for a
  // name that is not UTF-8 (possible on Linux) is sure to fail: such a
  // selection gets no Convert menu, as one unrecognised file withholds it.
  for (const auto& path : files) {
    if (!json::isValidUtf8(path)) {
      FinderLog::log(Level::warn,
                     "No Convert menu: a selected name is not valid UTF-8: " + json::toValidUtf8(path));
      return top;
    }
  }

  // Asked once per menu: a change of the user's locale shows in the next one.
  const std::shared_ptr<const TextRules> text = platform.textRules();
  std::vector<FinderMenuPlanner::FileInput> inputs;
  inputs.reserve(fileCount);
  for (auto& path : files) inputs.push_back(FinderMenuPlanner::fileInputForPath(std::move(path), *text));

  std::optional<FinderMenuPlanner::Plan> plan =
      FinderMenuPlanner::plan(*capabilities, std::move(inputs), *text);
  if (!plan) {
    FinderLog::log(Level::debug,
                   "No Convert menu for selection of " + std::to_string(fileCount) + " file(s)");
    return top;
  }
  pendingFiles_ = std::move(plan->files);

  std::string title = capabilities->convertMenuTitle ? *capabilities->convertMenuTitle
                                                     : platform.localizedString(kDefaultMenuTitle);
  MenuItem convert;
  convert.title = title;
  convert.submenu = std::make_shared<Menu>();
  convert.submenu->title = std::move(title);
  populateConvertMenu(*convert.submenu, plan->inlineTargets, plan->groups);
  top.items.push_back(std::move(convert));

  FinderLog::log(Level::info, "Built Convert menu: " + std::to_string(fileCount) + " file(s), " +
                                  std::to_string(plan->inlineTargets.size()) + " inline target(s), " +
                                  std::to_string(plan->groups.size()) + " nested categor(ies)");
  return top;
}

void FinderSync::populateConvertMenu(Menu& submenu,
                                     const std::vector<FinderMenuPlanner::TargetItem>& inlineTargets,
                                     const std::vector<FinderMenuPlanner::CategoryGroup>& categories) {
  submenu.autoenablesItems = false;
  for (const auto& target : inlineTargets) addTargetItem(submenu, target);
  if (!inlineTargets.empty() && !categories.empty()) submenu.items.push_back(MenuItem::separator());
  for (const auto& category : categories) {
    MenuItem item;
    item.title = category.label;
    item.image = paletteSymbolImage(category.icon, category.label);
    item.submenu = std::make_shared<Menu>();
    item.submenu->title = category.label;
    item.submenu->autoenablesItems = false;
    for (const auto& target : category.targets) addTargetItem(*item.submenu, target);
    submenu.items.push_back(std::move(item));
  }
}

void FinderSync::addTargetItem(Menu& menu, const FinderMenuPlanner::TargetItem& target) {
  MenuItem item;
  item.title = target.displayName;
  item.action = MenuAction::convertAction;
  item.enabled = true;
  item.tag = static_cast<std::int64_t>(targetFormatByTag_.size()) + 1;
  targetFormatByTag_[item.tag] = target.formatId;
  menu.items.push_back(std::move(item));
}

std::optional<SymbolImage> FinderSync::paletteSymbolImage(const std::string& symbolName,
                                                          const std::string& accessibilityDescription) {
  Platform& platform = currentPlatform();
  // Read on every call: the user may switch appearance between two menus.
  std::optional<std::string> style = platform.userDefaultString("AppleInterfaceStyle");
  PaletteColor color =
      style && platform.textRules()->lowercase(*style) == "dark" ? PaletteColor::white : PaletteColor::black;
  if (!platform.hasSymbolImage(symbolName)) return std::nullopt;
  return SymbolImage{symbolName, accessibilityDescription, color};
}

void FinderSync::convertAction(std::int64_t senderTag) {
  auto entry = targetFormatByTag_.find(senderTag);
  if (targetFormatByTag_.empty() || entry == targetFormatByTag_.end() || pendingFiles_.empty()) {
    FinderLog::log(Level::warn, "convertAction: stale menu state for tag " + std::to_string(senderTag));
    return;
  }
  const std::string& formatId = entry->second;
  FinderLog::log(Level::info,
                 "User chose " + formatId + " for " + std::to_string(pendingFiles_.size()) + " file(s)");
  requester_.send(FinderConversionRequest{formatId, pendingFiles_});
}

void FinderSync::openHostApp() {
  FinderLog::log(Level::info, "Opening host app from fallback menu item");
  requester_.launchHostApp(true);
}

}  // namespace palvin
