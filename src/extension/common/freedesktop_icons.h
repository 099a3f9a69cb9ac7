// The freedesktop.org icons that stand for the catalogue's symbol names in the
// Linux file managers' menus.
#pragma once

#include <optional>
#include <string_view>

namespace palvin {

// The freedesktop icon (symbolic variant) that stands for a symbol name of the
// catalogue, or nothing when none fits. A ".fill" variant maps like its base.
std::optional<std::string_view> freedesktopIconName(std::string_view symbolName);

}  // namespace palvin
