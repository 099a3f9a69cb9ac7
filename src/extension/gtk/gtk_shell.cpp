#include "extension/gtk/gtk_shell.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "extension/gtk/catalogue_monitor.h"
#include "extension/gtk/gtk_platform.h"
#include "extension/shell/extension_shell.h"
#include "extension/shell/menu_rendering.h"
#include "extension/shell/module_bundle.h"
#include "services/log.h"

namespace palvin::gtk_shell {
namespace {

// A provider's state: the principal object's controller, and the watch that
// tells the file manager when the catalogue changed.
struct Provider {
  ExtensionShell shell;
  std::unique_ptr<CatalogueMonitor> monitor;
  explicit Provider(LinuxPlatform& platform) : shell(platform) {}
};

// The menu provider the file manager makes: the principal object.
struct ProviderObject {
  GObject parent;
  Provider* provider;
};

// The platform is set up once per load of the module and stays until it is
// unloaded; each provider the file manager makes has a controller of its own.
GtkPlatform* gPlatform = nullptr;
const Api* gApi = nullptr;
GObjectClass* gParentClass = nullptr;

// What a menu item keeps for its activation. Only GLib's own functions free
// it, so items that the file manager holds after the module is gone call no
// code of ours.
constexpr char kActionKey[] = "palvin-action";
constexpr char kTagKey[] = "palvin-tag";
constexpr char kFormatKey[] = "palvin-format";
constexpr char kBuildKey[] = "palvin-build";
constexpr char kSelectionKey[] = "palvin-selection";
constexpr char kSelectionTypesKey[] = "palvin-selection-types";
constexpr char kItemNamePrefix[] = "PalvinFinder::";

constexpr char kProviderTypeName[] = "PalvinFinderMenuProvider";

Provider* providerOf(gpointer object) {
  return object != nullptr ? static_cast<ProviderObject*>(object)->provider : nullptr;
}

// The controller logs its launch, registers the monitored directories and
// starts watching mounts; the monitor watches the container.
void initInstance(GTypeInstance* instance, gpointer) {
  auto* object = reinterpret_cast<ProviderObject*>(instance);
  object->provider = nullptr;
  if (gPlatform == nullptr) return;
  try {
    auto provider = std::make_unique<Provider>(*gPlatform);
    if (gApi->itemsUpdated != nullptr) {
      auto itemsUpdated = gApi->itemsUpdated;
      provider->monitor =
          std::make_unique<CatalogueMonitor>([object, itemsUpdated] { itemsUpdated(G_OBJECT(object)); });
    }
    object->provider = provider.release();
  } catch (...) {
    // Without a controller every callback answers with nothing.
  }
}

// The monitor stops, the controller stops watching mounts, and the log writes
// what is queued and ends its worker: no thread of this module outlives the
// provider.
void finalize(GObject* object) {
  Provider* provider = std::exchange(reinterpret_cast<ProviderObject*>(object)->provider, nullptr);
  try {
    delete provider;
  } catch (...) {
  }
  try {
    FinderLog::shutdown();
  } catch (...) {
  }
  gParentClass->finalize(object);
}

void initClass(gpointer klass, gpointer) {
  gParentClass = G_OBJECT_CLASS(g_type_class_peek_parent(klass));
  G_OBJECT_CLASS(klass)->finalize = finalize;
}

// The local path of each selected item: its location's, or for items shown
// under another scheme (recent:///, starred:///) their target's. Items with no
// local path can't be handed to the host app and are left out. Each item's
// type is the file manager's own, so no selected item is examined on its UI
// thread.
std::vector<SelectedItem> selectedItems(GList* files) {
  const FileInfoApi& api = gApi->files;
  std::vector<SelectedItem> items;
  for (GList* node = files; node != nullptr; node = node->next) {
    auto* info = static_cast<GObject*>(node->data);
    if (!G_TYPE_CHECK_INSTANCE_TYPE(info, api.type())) continue;
    GFile* location = api.location(info);
    char* path = location != nullptr ? g_file_get_path(location) : nullptr;
    g_clear_object(&location);
    if (path == nullptr && api.activationUri != nullptr) {
      char* uri = api.activationUri(info);
      if (uri != nullptr) {
        GFile* target = g_file_new_for_uri(uri);
        path = g_file_get_path(target);
        g_object_unref(target);
        g_free(uri);
      }
    }
    if (path != nullptr) {
      items.push_back(SelectedItem{path, api.isDirectory(info) != FALSE});
      g_free(path);
    }
  }
  return items;
}

// Frees a list of menu items that never reached the file manager.
struct ItemList {
  GList* list = nullptr;
  ItemList() = default;
  ItemList(const ItemList&) = delete;
  ItemList& operator=(const ItemList&) = delete;
  ~ItemList() { g_list_free_full(list, g_object_unref); }
  GList* release() { return std::exchange(list, nullptr); }
};

void activate(GObject* item, gpointer provider);

// What every item of one menu shares: its provider and the selection it was
// built for.
struct MenuContext {
  GObject* provider;
  GPtrArray* selection;
  GBytes* types;  // per item: 'd' directory, 'f' file, '?' unknown
};

void keepPick(GObject* item, const MenuItem& model, const MenuContext& context) {
  const ExtensionShell& shell = providerOf(context.provider)->shell;
  std::uint64_t build = shell.build();
  std::string formatId = shell.formatIdForTag(model.tag).value_or("");
  g_object_set_data_full(item, kTagKey, g_memdup2(&model.tag, sizeof model.tag), g_free);
  g_object_set_data_full(item, kBuildKey, g_memdup2(&build, sizeof build), g_free);
  g_object_set_data_full(item, kFormatKey, g_strdup(formatId.c_str()), g_free);
  g_object_set_data_full(item, kSelectionKey, g_ptr_array_ref(context.selection),
                         reinterpret_cast<GDestroyNotify>(reinterpret_cast<void (*)()>(g_ptr_array_unref)));
  g_object_set_data_full(item, kSelectionTypesKey, g_bytes_ref(context.types),
                         reinterpret_cast<GDestroyNotify>(reinterpret_cast<void (*)()>(g_bytes_unref)));
}

// Names only need to be unique in one menu: the item's place in the tree,
// and its kind, since Nemo's and Caja's UI managers keep a name's first kind
// (the fallback item, then the Convert submenu in its place, would not show).
// Where the API has no separators, the categories after one stand apart as
// submenus all the same.
GList* makeItems(const std::vector<MenuItem>& items, const MenuContext& context, const std::string& place) {
  const MenuApi& api = gApi->menus;
  ItemList made;
  std::size_t index = 0;
  for (const MenuItem& model : items) {
    if (model.isSeparator && api.newSeparator == nullptr) continue;
    std::string itemPlace = (place.empty() ? "" : place + ".") + std::to_string(index++);
    const char* kind = model.isSeparator ? "separator." : model.submenu ? "menu." : "item.";
    std::string name = kItemNamePrefix + (kind + itemPlace);
    if (model.isSeparator) {
      made.list = g_list_append(made.list, api.newSeparator(name.c_str()));
      continue;
    }
    std::optional<std::string_view> icon;
    if (model.image) icon = menu_rendering::freedesktopIconName(model.image->symbolName);
    std::string label = menu_rendering::escapeMnemonics(model.title, '_');
    std::string iconName(icon.value_or(""));
    GObject* item = api.newItem(name.c_str(), label.c_str(), icon ? iconName.c_str() : nullptr);
    made.list = g_list_append(made.list, item);
    g_object_set(item, "sensitive", model.enabled ? TRUE : FALSE, nullptr);
    if (model.submenu) {
      ItemList children;
      children.list = makeItems(model.submenu->items, context, itemPlace);
      GObject* submenu = api.newMenu();
      for (GList* child = children.list; child != nullptr; child = child->next) {
        api.appendItem(submenu, G_OBJECT(child->data));
      }
      // The item and the menu hold their own references.
      g_object_set(item, "menu", submenu, nullptr);
      g_object_unref(submenu);
    }
    if (model.action == MenuAction::none) continue;
    g_object_set_data(item, kActionKey, GINT_TO_POINTER(static_cast<int>(model.action)));
    if (model.action == MenuAction::convertAction) keepPick(item, model, context);
    // Disconnected by GLib when the provider goes, so a late pick finds nothing.
    g_signal_connect_object(item, "activate", G_CALLBACK(activate), context.provider, GConnectFlags(0));
  }
  return made.release();
}

// The selection is kept with GLib's own types, so that the file manager
// releasing the items later calls no code of this module.
GList* menuItems(GObject* provider, const Menu& menu, const std::vector<SelectedItem>& selection) {
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

std::optional<ExtensionShell::Pick> pickOf(GObject* item) {
  auto* tag = static_cast<const std::int64_t*>(g_object_get_data(item, kTagKey));
  auto* build = static_cast<const std::uint64_t*>(g_object_get_data(item, kBuildKey));
  auto* formatId = static_cast<const char*>(g_object_get_data(item, kFormatKey));
  auto* selection = static_cast<GPtrArray*>(g_object_get_data(item, kSelectionKey));
  auto* typeBytes = static_cast<GBytes*>(g_object_get_data(item, kSelectionTypesKey));
  if (tag == nullptr || build == nullptr || formatId == nullptr || selection == nullptr ||
      typeBytes == nullptr) {
    return std::nullopt;
  }
  ExtensionShell::Pick pick{*tag, formatId, *build, {}};
  gsize count = 0;
  const auto* types = static_cast<const char*>(g_bytes_get_data(typeBytes, &count));
  for (guint i = 0; i < selection->len; ++i) {
    SelectedItem selected{static_cast<const char*>(selection->pdata[i])};
    if (i < count && types[i] != '?') selected.isDirectory = types[i] == 'd';
    pick.selection.push_back(std::move(selected));
  }
  return pick;
}

void activate(GObject* item, gpointer object) {
  try {
    Provider* provider = providerOf(object);
    if (provider == nullptr) return;
    auto action = static_cast<MenuAction>(GPOINTER_TO_INT(g_object_get_data(item, kActionKey)));
    if (action == MenuAction::openHostApp) provider->shell.openHostApp();
    if (action != MenuAction::convertAction) return;
    if (auto pick = pickOf(item)) provider->shell.convert(*pick);
  } catch (...) {
  }
}

GType registerWithTypeModule(gpointer module, GType parent, const char* name, const GTypeInfo* info,
                             GTypeFlags flags) {
  return g_type_module_register_type(G_TYPE_MODULE(module), parent, name, info, flags);
}

void addInterfaceWithTypeModule(gpointer module, GType type, GType interface, const GInterfaceInfo* info) {
  g_type_module_add_interface(G_TYPE_MODULE(module), type, interface, info);
}

}  // namespace

const TypeRegistry kTypeModuleRegistry = {registerWithTypeModule, addInterfaceWithTypeModule};

GType loadModule(gpointer module, const TypeRegistry& registry, GType menuProviderInterface,
                 GInterfaceInitFunc initInterface, const Api& api) noexcept {
  gApi = &api;
  GTypeInfo info{};
  info.class_size = sizeof(GObjectClass);
  info.class_init = initClass;
  info.instance_size = sizeof(ProviderObject);
  info.instance_init = initInstance;
  // Registered anew on every load, as a dynamic type must be.
  GType type = registry.registerType(module, G_TYPE_OBJECT, kProviderTypeName, &info, GTypeFlags(0));
  GInterfaceInfo interface { initInterface, nullptr, nullptr };
  registry.addInterface(module, type, menuProviderInterface, &interface);
  if (gPlatform == nullptr) {
    try {
      gPlatform = new GtkPlatform(module_bundle::platformOptions());
      installPlatform(gPlatform);
    } catch (...) {
      // Without a platform no provider gets a controller.
    }
  }
  return type;
}

// Uninstalling the platform writes the log's lines that still name it (each
// provider's end has already written its own and ended the log's worker).
void unloadModule() noexcept {
  if (gPlatform == nullptr) return;
  installPlatform(nullptr);
  delete std::exchange(gPlatform, nullptr);
}

GList* fileItems(gpointer object, GList* files) noexcept {
  try {
    Provider* provider = providerOf(object);
    if (provider == nullptr) return nullptr;
    std::vector<SelectedItem> selection = selectedItems(files);
    Menu menu = provider->shell.menuForItems(selection);
    return menuItems(G_OBJECT(object), menu, selection);
  } catch (...) {
    return nullptr;
  }
}

// The folder's own menu is the controller's container menu, which offers
// nothing and leaves the tags alone.
GList* backgroundItems(gpointer object) noexcept {
  try {
    Provider* provider = providerOf(object);
    if (provider == nullptr) return nullptr;
    return menuItems(G_OBJECT(object), provider->shell.menuForContainer(), {});
  } catch (...) {
    return nullptr;
  }
}

}  // namespace palvin::gtk_shell
