#include "extension/common/menu_session.h"

#include <utility>

namespace palvin {
namespace {
constexpr auto kContextualMenuForItems = static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems);
}  // namespace

MenuSession::Built MenuSession::build(std::vector<SelectedItem> selection) {
  platform_.setSelection(selection);
  // Counted before the build, so that older items never take its tags for theirs.
  auto origin = std::make_shared<const MenuOrigin>(MenuOrigin{++build_, std::move(selection)});
  return Built{controller_.menuForMenuKind(kContextualMenuForItems), std::move(origin)};
}

TargetPick MenuSession::pickFor(const MenuItem& item, const std::shared_ptr<const MenuOrigin>& origin) const {
  const auto& formats = controller_.targetFormatByTag();
  auto entry = formats.find(item.tag);
  return TargetPick{item.tag, entry != formats.end() ? entry->second : std::string(), origin};
}

void MenuSession::convert(const TargetPick& pick) {
  if (pick.origin != nullptr && pick.origin->build != build_) {
    (void)build(pick.origin->selection);
    const auto& formats = controller_.targetFormatByTag();
    auto entry = formats.find(pick.tag);
    if (entry == formats.end() || entry->second != pick.formatId) (void)build({});
  }
  controller_.convertAction(pick.tag);
}

}  // namespace palvin
