// The controller as a Linux file manager's module drives it, whatever the
// toolkit: selections in, menus out, and picks sent only for the target that
// the user saw. A shell turns the menus into its toolkit's items and keeps a
// TargetPick with each target item.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "finder/finder_sync.h"
#include "finder/menu_model.h"
#include "platform/linux_platform.h"

namespace palvin {

// The build a menu came from: its number and its selection.
struct MenuOrigin {
  std::uint64_t build = 0;
  std::vector<SelectedItem> selection;
};

// What a target item keeps for its pick: its tag, the target it showed and
// the build it belongs to.
struct TargetPick {
  std::int64_t tag = 0;
  std::string formatId;
  std::shared_ptr<const MenuOrigin> origin;
};

class MenuSession {
 public:
  // The platform must be installed: the controller logs its launch and starts
  // watching mounts.
  explicit MenuSession(LinuxPlatform& platform) : platform_(platform) {}

  struct Built {
    Menu menu;
    std::shared_ptr<const MenuOrigin> origin;
  };
  // The contextual menu for items; each item's type is the file manager's, so
  // no selected item is looked at on its UI thread.
  Built build(std::vector<SelectedItem> selection);
  // For a target item of the menu just built.
  TargetPick pickFor(const MenuItem& item, const std::shared_ptr<const MenuOrigin>& origin) const;

  // A pick from an older menu first builds that menu again for its own
  // selection, and is sent only if its tag still names the target the user
  // saw; otherwise the controller is left with no tags and reports the pick
  // as stale.
  void convert(const TargetPick& pick);
  void openHostApp() { controller_.openHostApp(); }

  FinderSync& controller() { return controller_; }

 private:
  LinuxPlatform& platform_;
  FinderSync controller_;
  std::uint64_t build_ = 0;
};

}  // namespace palvin
