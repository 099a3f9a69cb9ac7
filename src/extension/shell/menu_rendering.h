// What every Linux file manager's menu needs from the menu model beyond its
// titles: mnemonics escaped, and freedesktop icon names for symbols.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace palvin::menu_rendering {

// The title as a label for a toolkit that takes `mark` as a mnemonic mark
// ('_' in GTK, '&' in Qt): each mark doubled, so it shows as itself.
std::string escapeMnemonics(std::string_view title, char mark);

// The freedesktop icon (symbolic variant) that stands for a symbol name of the
// catalogue, or nothing when none fits. A ".fill" variant maps like its base.
std::optional<std::string_view> freedesktopIconName(std::string_view symbolName);

}  // namespace palvin::menu_rendering
