#include "extension/shell/extension_shell.h"

#include <utility>

namespace palvin {
namespace {

constexpr std::uint64_t kContextualMenuForItems =
    static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems);
constexpr std::uint64_t kContextualMenuForContainer =
    static_cast<std::uint64_t>(FIMenuKind::contextualMenuForContainer);

}  // namespace

ExtensionShell::ExtensionShell(LinuxPlatform& platform) : platform_(platform) {}

Menu ExtensionShell::rebuild(std::vector<SelectedItem> selection) {
  platform_.setSelection(std::move(selection));
  // Counted before the build, so that older items never take its tags for theirs.
  ++build_;
  return controller_.menuForMenuKind(kContextualMenuForItems);
}

Menu ExtensionShell::menuForItems(std::vector<SelectedItem> selection) {
  return rebuild(std::move(selection));
}

Menu ExtensionShell::menuForContainer() {
  return controller_.menuForMenuKind(kContextualMenuForContainer);
}

std::optional<std::string> ExtensionShell::formatIdForTag(std::int64_t tag) const {
  auto entry = controller_.targetFormatByTag().find(tag);
  if (entry == controller_.targetFormatByTag().end()) return std::nullopt;
  return entry->second;
}

void ExtensionShell::convert(const Pick& pick) {
  if (pick.build != build_) {
    (void)rebuild(pick.selection);
    if (formatIdForTag(pick.tag) != pick.formatId) (void)rebuild({});
  }
  controller_.convertAction(pick.tag);
}

void ExtensionShell::openHostApp() {
  controller_.openHostApp();
}

}  // namespace palvin
