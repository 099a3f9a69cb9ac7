// Rendering the extension's menu model on a terminal.
#pragma once

#include <string>
#include <vector>

#include "finder/menu_model.h"
#include "tool.h"

namespace palvin::tool {

// The menu as a tree: titles, tags, separators, symbol names and tints,
// actions. An empty menu says so.
std::string renderMenu(const Menu& menu, const Style& style);

// Every item that has an action, depth first, in menu order: what the
// interactive view lets the user pick from.
struct PickableItem {
  std::string path;  // "Convert using Palvin › Documents › PDF"
  const MenuItem* item;
};
std::vector<PickableItem> pickableItems(const Menu& menu);

}  // namespace palvin::tool
