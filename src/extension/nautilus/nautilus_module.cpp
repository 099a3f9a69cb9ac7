// The GNOME Files (Nautilus, extension API 4) shell: a translator between
// Nautilus's menu provider and the C++ controller, as the Objective-C++ one is
// on macOS. Nautilus calls it on its main thread. Every entry catches whatever
// the C++ side might throw: an exception reaching Nautilus's C code would end
// the file manager.
#include <glib-object.h>
#include <gmodule.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The module's three entry points are declared without C linkage.
extern "C" {
#include <nautilus-extension.h>
}

#include "extension/common/freedesktop_icons.h"
#include "extension/common/module_bundle.h"
#include "extension/nautilus/nautilus_platform.h"
#include "finder/finder_sync.h"
#include "finder/menu_model.h"
#include "platform/platform.h"
#include "services/log.h"
#include "shared/paths.h"

namespace palvin {
// A provider's controller, and the number of the menu build whose tags the
// controller holds.
struct Shell {
  FinderSync controller;
  std::uint64_t build = 0;
};
}  // namespace palvin

// The menu provider Nautilus makes: the principal object, holding a controller.
struct PalvinFinderMenuProvider {
  GObject parent_instance;
  palvin::Shell* shell;
};
struct PalvinFinderMenuProviderClass {
  GObjectClass parent_class;
};

namespace palvin {
namespace {

// What a menu item keeps for its activation. Only GLib's own functions free
// it, so items that Nautilus holds after the module is gone call no code of
// ours.
constexpr char kActionKey[] = "palvin-action";
constexpr char kTagKey[] = "palvin-tag";
constexpr char kFormatKey[] = "palvin-format";
constexpr char kBuildKey[] = "palvin-build";
constexpr char kSelectionKey[] = "palvin-selection";
constexpr char kSelectionTypesKey[] = "palvin-selection-types";
constexpr char kItemNamePrefix[] = "PalvinFinder::";

constexpr std::uint64_t kContextualMenuForItems =
    static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems);
constexpr std::uint64_t kContextualMenuForContainer =
    static_cast<std::uint64_t>(FIMenuKind::contextualMenuForContainer);

// The platform is set up once per load of the module and stays until it is
// unloaded; each menu provider Nautilus makes is a principal object with a
// controller of its own.
NautilusPlatform* gPlatform = nullptr;

void setUpPlatform() noexcept {
  if (gPlatform != nullptr) return;
  try {
    LinuxPlatform::Options options;
    options.bundlePath = moduleBundlePath();
    if (options.bundlePath) options.stringsDirectory = paths::join(*options.bundlePath, "Resources");
    gPlatform = new NautilusPlatform(std::move(options));
    installPlatform(gPlatform);
  } catch (...) {
    // Without a platform no provider gets a controller, and every callback
    // answers with nothing.
  }
}

// Uninstalling the platform writes the log's lines that still name it (each
// provider's end has already written its own and ended the log's worker).
void tearDownPlatform() noexcept {
  if (gPlatform == nullptr) return;
  installPlatform(nullptr);
  delete std::exchange(gPlatform, nullptr);
}

Shell* makeShell() noexcept {
  if (gPlatform == nullptr) return nullptr;
  try {
    return new Shell();
  } catch (...) {
    return nullptr;
  }
}

// The controller stops watching mounts, and the log writes what is queued and
// ends its worker: no thread of this module outlives the provider.
void endShell(Shell* shell) noexcept {
  try {
    delete shell;
  } catch (...) {
  }
  try {
    FinderLog::shutdown();
  } catch (...) {
  }
}

// The local path of each selected item: its location's, or for items shown
// under another scheme (recent:///, starred:///) their target's. Items with no
// local path can't be handed to the host app and are left out. Each item's
// type is Nautilus's own, so no selected item is examined on its UI thread.
std::vector<SelectedItem> selectedItems(GList* files) {
  std::vector<SelectedItem> items;
  for (GList* node = files; node != nullptr; node = node->next) {
    auto* info = static_cast<NautilusFileInfo*>(node->data);
    if (!NAUTILUS_IS_FILE_INFO(info)) continue;
    GFile* location = nautilus_file_info_get_location(info);
    char* path = location != nullptr ? g_file_get_path(location) : nullptr;
    g_clear_object(&location);
    if (path == nullptr) {
      char* uri = nautilus_file_info_get_activation_uri(info);
      if (uri != nullptr) {
        GFile* target = g_file_new_for_uri(uri);
        path = g_file_get_path(target);
        g_object_unref(target);
        g_free(uri);
      }
    }
    if (path != nullptr) {
      items.push_back(SelectedItem{path, nautilus_file_info_is_directory(info) != FALSE});
      g_free(path);
    }
  }
  return items;
}

// GTK's menus take "_" as a mnemonic mark; doubled, it shows as itself.
std::string menuLabel(const std::string& title) {
  std::string label;
  label.reserve(title.size());
  for (char c : title) {
    label += c;
    if (c == '_') label += '_';
  }
  return label;
}

// Frees a list of menu items that never reached Nautilus.
struct ItemList {
  GList* list = nullptr;
  ItemList() = default;
  ItemList(const ItemList&) = delete;
  ItemList& operator=(const ItemList&) = delete;
  ~ItemList() { g_list_free_full(list, g_object_unref); }
  GList* release() { return std::exchange(list, nullptr); }
};

void activate(NautilusMenuItem* item, PalvinFinderMenuProvider* provider);

// What every item of one menu shares: its provider, the build it belongs to
// and the selection it was built for.
struct MenuContext {
  PalvinFinderMenuProvider* provider;
  GPtrArray* selection;
  GBytes* types;  // per item: 'd' directory, 'f' file, '?' unknown
};

// Nautilus's extension menus have no separators, so a separator leaves no
// trace; the categories after it stand apart as submenus all the same.
// Names only need to be unique in one menu: the item's place in the tree.
GList* makeItems(const std::vector<MenuItem>& items, const MenuContext& context, const std::string& place) {
  Shell& shell = *context.provider->shell;
  ItemList made;
  std::size_t index = 0;
  for (const MenuItem& model : items) {
    if (model.isSeparator) continue;
    std::string itemPlace = place.empty() ? std::to_string(index) : place + "." + std::to_string(index);
    ++index;
    std::optional<std::string_view> icon;
    if (model.image) icon = freedesktopIconName(model.image->symbolName);
    std::string name = kItemNamePrefix + itemPlace;
    std::string label = menuLabel(model.title);
    std::string iconName(icon.value_or(""));
    NautilusMenuItem* item =
        nautilus_menu_item_new(name.c_str(), label.c_str(), nullptr, icon ? iconName.c_str() : nullptr);
    made.list = g_list_append(made.list, item);
    g_object_set(item, "sensitive", model.enabled ? TRUE : FALSE, nullptr);
    if (model.submenu) {
      ItemList children;
      children.list = makeItems(model.submenu->items, context, itemPlace);
      NautilusMenu* submenu = nautilus_menu_new();
      for (GList* child = children.release(); child != nullptr; child = g_list_delete_link(child, child)) {
        nautilus_menu_append_item(submenu, NAUTILUS_MENU_ITEM(child->data));
      }
      nautilus_menu_item_set_submenu(item, submenu);
    }
    if (model.action == MenuAction::none) continue;
    GObject* object = G_OBJECT(item);
    g_object_set_data(object, kActionKey, GINT_TO_POINTER(static_cast<int>(model.action)));
    if (model.action == MenuAction::convertAction) {
      auto entry = shell.controller.targetFormatByTag().find(model.tag);
      const char* formatId = entry != shell.controller.targetFormatByTag().end() ? entry->second.c_str() : "";
      g_object_set_data_full(object, kTagKey, g_memdup2(&model.tag, sizeof model.tag), g_free);
      g_object_set_data_full(object, kBuildKey, g_memdup2(&shell.build, sizeof shell.build), g_free);
      g_object_set_data_full(object, kFormatKey, g_strdup(formatId), g_free);
      g_object_set_data_full(
          object, kSelectionKey, g_ptr_array_ref(context.selection),
          reinterpret_cast<GDestroyNotify>(reinterpret_cast<void (*)()>(g_ptr_array_unref)));
      g_object_set_data_full(object, kSelectionTypesKey, g_bytes_ref(context.types),
                             reinterpret_cast<GDestroyNotify>(reinterpret_cast<void (*)()>(g_bytes_unref)));
    }
    // Disconnected by GLib when the provider goes, so a late pick finds nothing.
    g_signal_connect_object(item, "activate", G_CALLBACK(activate), context.provider, GConnectFlags(0));
  }
  return made.release();
}

// The selection is kept with GLib's own types, so that Nautilus releasing the
// items later calls no code of this module.
GList* menuItems(PalvinFinderMenuProvider* provider, const Menu& menu,
                 const std::vector<SelectedItem>& selection) {
  GPtrArray* shared = g_ptr_array_new_with_free_func(g_free);
  std::string types;
  for (const auto& item : selection) {
    g_ptr_array_add(shared, g_strdup(item.path.c_str()));
    types += !item.isDirectory ? '?' : *item.isDirectory ? 'd' : 'f';
  }
  GBytes* typeBytes = g_bytes_new(types.data(), types.size());
  struct Release {
    GPtrArray* array;
    GBytes* bytes;
    ~Release() {
      g_ptr_array_unref(array);
      g_bytes_unref(bytes);
    }
  } release{shared, typeBytes};
  return makeItems(menu.items, MenuContext{provider, shared, typeBytes}, "");
}

std::vector<SelectedItem> selectionOf(NautilusMenuItem* item) {
  std::vector<SelectedItem> items;
  auto* selection = static_cast<GPtrArray*>(g_object_get_data(G_OBJECT(item), kSelectionKey));
  auto* typeBytes = static_cast<GBytes*>(g_object_get_data(G_OBJECT(item), kSelectionTypesKey));
  if (selection == nullptr || typeBytes == nullptr) return items;
  gsize count = 0;
  const auto* types = static_cast<const char*>(g_bytes_get_data(typeBytes, &count));
  for (guint i = 0; i < selection->len; ++i) {
    SelectedItem selected{static_cast<const char*>(selection->pdata[i])};
    if (i < count && types[i] != '?') selected.isDirectory = types[i] == 'd';
    items.push_back(std::move(selected));
  }
  return items;
}

// Nautilus builds the menu whenever the selection changes, in every window,
// so the controller's tags may belong to a newer menu than the one the user
// picked from. That menu is then built again for its own selection, and the
// pick counts only if its tag still names the target the user saw; otherwise
// the controller is left with no tags and reports the pick as stale.
void convert(Shell& shell, NautilusMenuItem* item) {
  GObject* object = G_OBJECT(item);
  auto* tag = static_cast<const std::int64_t*>(g_object_get_data(object, kTagKey));
  auto* build = static_cast<const std::uint64_t*>(g_object_get_data(object, kBuildKey));
  auto* formatId = static_cast<const char*>(g_object_get_data(object, kFormatKey));
  if (tag == nullptr || build == nullptr || formatId == nullptr) return;
  FinderSync& controller = shell.controller;
  if (*build != shell.build) {
    gPlatform->setSelection(selectionOf(item));
    ++shell.build;
    (void)controller.menuForMenuKind(kContextualMenuForItems);
    auto entry = controller.targetFormatByTag().find(*tag);
    if (entry == controller.targetFormatByTag().end() || entry->second != formatId) {
      gPlatform->setSelection(std::vector<SelectedItem>{});
      ++shell.build;
      (void)controller.menuForMenuKind(kContextualMenuForItems);
    }
  }
  controller.convertAction(*tag);
}

void activate(NautilusMenuItem* item, PalvinFinderMenuProvider* provider) {
  try {
    if (provider->shell == nullptr) return;
    auto action = static_cast<MenuAction>(GPOINTER_TO_INT(g_object_get_data(G_OBJECT(item), kActionKey)));
    if (action == MenuAction::openHostApp) provider->shell->controller.openHostApp();
    if (action == MenuAction::convertAction) convert(*provider->shell, item);
  } catch (...) {
  }
}

GList* getFileItems(NautilusMenuProvider* menuProvider, GList* files) {
  try {
    auto* provider = reinterpret_cast<PalvinFinderMenuProvider*>(menuProvider);
    if (provider->shell == nullptr) return nullptr;
    std::vector<SelectedItem> selection = selectedItems(files);
    gPlatform->setSelection(selection);
    // Counted before the build, so that older items never take its tags for theirs.
    ++provider->shell->build;
    Menu menu = provider->shell->controller.menuForMenuKind(kContextualMenuForItems);
    return menuItems(provider, menu, selection);
  } catch (...) {
    return nullptr;
  }
}

// The folder's own menu is the controller's container menu, which offers
// nothing and leaves the tags alone.
GList* getBackgroundItems(NautilusMenuProvider* menuProvider, NautilusFileInfo*) {
  try {
    auto* provider = reinterpret_cast<PalvinFinderMenuProvider*>(menuProvider);
    if (provider->shell == nullptr) return nullptr;
    Menu menu = provider->shell->controller.menuForMenuKind(kContextualMenuForContainer);
    return menuItems(provider, menu, {});
  } catch (...) {
    return nullptr;
  }
}

}  // namespace
}  // namespace palvin

static void palvin_finder_menu_provider_iface_init(NautilusMenuProviderInterface* iface) {
  iface->get_file_items = palvin::getFileItems;
  iface->get_background_items = palvin::getBackgroundItems;
}

// Registered with Nautilus's type module, as a dynamic type must be.
G_DEFINE_DYNAMIC_TYPE_EXTENDED(PalvinFinderMenuProvider, palvin_finder_menu_provider, G_TYPE_OBJECT, 0,
                               G_IMPLEMENT_INTERFACE_DYNAMIC(NAUTILUS_TYPE_MENU_PROVIDER,
                                                             palvin_finder_menu_provider_iface_init))

// The principal object's construction: the controller logs its launch,
// registers the monitored directories and starts watching mounts.
static void palvin_finder_menu_provider_init(PalvinFinderMenuProvider* provider) {
  provider->shell = palvin::makeShell();
}

static void palvin_finder_menu_provider_finalize(GObject* object) {
  auto* provider = reinterpret_cast<PalvinFinderMenuProvider*>(object);
  palvin::endShell(std::exchange(provider->shell, nullptr));
  G_OBJECT_CLASS(palvin_finder_menu_provider_parent_class)->finalize(object);
}

static void palvin_finder_menu_provider_class_init(PalvinFinderMenuProviderClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = palvin_finder_menu_provider_finalize;
}

static void palvin_finder_menu_provider_class_finalize(PalvinFinderMenuProviderClass*) {}

extern "C" {

// Called on every load of the module: the type is registered anew with the
// type module, and the platform is set up.
G_MODULE_EXPORT void nautilus_module_initialize(GTypeModule* module) {
  palvin_finder_menu_provider_register_type(module);
  palvin::setUpPlatform();
}

// Called before the module is unloaded, when no provider is left.
G_MODULE_EXPORT void nautilus_module_shutdown(void) {
  palvin::tearDownPlatform();
}

G_MODULE_EXPORT void nautilus_module_list_types(const GType** types, int* count) {
  static GType provided[1];
  provided[0] = palvin_finder_menu_provider_get_type();
  *types = provided;
  *count = 1;
}

}  // extern "C"
