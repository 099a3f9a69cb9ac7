// The controller as a Linux file manager's extension holds it, whatever the
// toolkit. File managers build their extension menus whenever the selection
// changes, in every window, so the controller's tags may belong to a newer
// menu than the one the user picks from: each build is numbered, and a target
// item keeps what it showed (a Pick) so that a late pick is judged by its own
// menu.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "finder/finder_sync.h"
#include "finder/menu_model.h"
#include "platform/linux_platform.h"

namespace palvin {

class ExtensionShell {
 public:
  // What a target item keeps for its pick: its tag, the target it showed, the
  // number of the build it came from and that build's selection.
  struct Pick {
    std::int64_t tag = 0;
    std::string formatId;
    std::uint64_t build = 0;
    std::vector<SelectedItem> selection;
  };

  // Constructing the controller logs its launch and starts watching mounts;
  // destroying it stops that.
  explicit ExtensionShell(LinuxPlatform& platform);

  // The contextual menu for the selected items, as the next build.
  Menu menuForItems(std::vector<SelectedItem> selection);
  // The folder's own menu: offers nothing and leaves the tags alone.
  Menu menuForContainer();

  std::uint64_t build() const { return build_; }
  // The target under the tag in the latest build, or nothing.
  std::optional<std::string> formatIdForTag(std::int64_t tag) const;

  // A pick from an older build first rebuilds that build's menu, and counts
  // only if its tag still names the target the user saw; otherwise the
  // controller is left with no tags and reports the pick as stale.
  void convert(const Pick& pick);
  void openHostApp();

 private:
  Menu rebuild(std::vector<SelectedItem> selection);

  LinuxPlatform& platform_;
  FinderSync controller_;
  std::uint64_t build_ = 0;
};

}  // namespace palvin
