#include "menu_view.h"

#include "shared/json_writer.h"

namespace palvin::tool {
namespace {

std::string describeImage(const SymbolImage& image, const Style& style) {
  std::string tint = image.paletteColor == PaletteColor::white ? "white" : "black";
  return style.dim("{" + json::toValidUtf8(image.symbolName) + ", " + tint + "}");
}

void renderItems(std::string& out, const Menu& menu, const std::string& indent, const Style& style) {
  for (std::size_t i = 0; i < menu.items.size(); ++i) {
    const MenuItem& item = menu.items[i];
    bool last = i + 1 == menu.items.size();
    out += indent;
    out += last ? "└─ " : "├─ ";
    if (item.isSeparator) {
      out += style.dim("────────");
      out += '\n';
      continue;
    }
    if (item.action == MenuAction::convertAction) out += style.cyan("[" + std::to_string(item.tag) + "] ");
    out += item.submenu ? style.bold(json::toValidUtf8(item.title)) : json::toValidUtf8(item.title);
    if (item.image) out += "  " + describeImage(*item.image, style);
    if (item.action == MenuAction::openHostApp) out += "  " + style.dim("→ opens the host app");
    if (!item.enabled) out += "  " + style.dim("(disabled)");
    out += '\n';
    if (item.submenu) renderItems(out, *item.submenu, indent + (last ? "   " : "│  "), style);
  }
}

void collect(std::vector<PickableItem>& out, const Menu& menu, const std::string& prefix) {
  for (const auto& item : menu.items) {
    if (item.isSeparator) continue;
    std::string path = prefix.empty() ? item.title : prefix + " › " + item.title;
    if (item.action != MenuAction::none) out.push_back({json::toValidUtf8(path), &item});
    if (item.submenu) collect(out, *item.submenu, path);
  }
}

}  // namespace

std::string renderMenu(const Menu& menu, const Style& style) {
  if (menu.items.empty()) return style.dim("(empty menu: nothing to offer for this selection)") + "\n";
  std::string out;
  renderItems(out, menu, "", style);
  return out;
}

std::vector<PickableItem> pickableItems(const Menu& menu) {
  std::vector<PickableItem> out;
  collect(out, menu, "");
  return out;
}

}  // namespace palvin::tool
