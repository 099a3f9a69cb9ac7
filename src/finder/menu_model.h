// A platform-neutral picture of the menus the extension hands to the file
// manager. The macOS shell only translates it into NSMenu/NSMenuItem; tests
// and the tool read every property from it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace palvin {

// The selectors a menu item can send to the principal object.
enum class MenuAction { none, convertAction, openHostApp };

enum class PaletteColor { white, black };

// A system symbol image drawn with a one-colour palette.
struct SymbolImage {
  std::string symbolName;
  std::string accessibilityDescription;
  PaletteColor paletteColor = PaletteColor::black;
  bool operator==(const SymbolImage&) const = default;
};

struct Menu;

struct MenuItem {
  bool isSeparator = false;
  std::string title;
  MenuAction action = MenuAction::none;
  std::string keyEquivalent;
  std::int64_t tag = 0;  // the platform's default when never set
  bool enabled = true;   // likewise
  std::optional<SymbolImage> image;
  std::shared_ptr<Menu> submenu;

  static MenuItem separator();
  bool operator==(const MenuItem& other) const;
};

struct Menu {
  std::string title;
  // Nothing when the build leaves the platform's autoenabling untouched.
  std::optional<bool> autoenablesItems;
  std::vector<MenuItem> items;
  bool operator==(const Menu&) const = default;
};

}  // namespace palvin
