#include "finder/menu_model.h"

namespace palvin {

MenuItem MenuItem::separator() {
  MenuItem item;
  item.isSeparator = true;
  return item;
}

bool MenuItem::operator==(const MenuItem& other) const {
  bool sameSubmenu = (submenu == nullptr && other.submenu == nullptr) ||
                     (submenu != nullptr && other.submenu != nullptr && *submenu == *other.submenu);
  return sameSubmenu && isSeparator == other.isSeparator && title == other.title && action == other.action &&
         keyEquivalent == other.keyEquivalent && tag == other.tag && enabled == other.enabled &&
         image == other.image;
}

}  // namespace palvin
