// The Thunar (Xfce) module: Thunar's names for the shared GTK-family shell.
// Thunar asks its menu providers afresh at every right-click, so its API has
// no items-updated signal and needs none; it has no separators either.
#include <gmodule.h>
// thunarx-provider-plugin.h alone lacks G_BEGIN_DECLS.
extern "C" {
#include <thunarx/thunarx.h>
}

#include "extension/gtk/gtk_shell.h"

namespace {

using namespace palvin::gtk_shell;

const Api kApi = {
    {
        [](const char* name, const char* label, const char* icon) {
          return G_OBJECT(thunarx_menu_item_new(name, label, nullptr, icon));
        },
        nullptr,
        [] { return G_OBJECT(thunarx_menu_new()); },
        [](GObject* menu, GObject* item) {
          thunarx_menu_append_item(THUNARX_MENU(menu), THUNARX_MENU_ITEM(item));
        },
    },
    {
        thunarx_file_info_get_type,
        [](GObject* info) { return thunarx_file_info_get_location(THUNARX_FILE_INFO(info)); },
        nullptr,
        [](GObject* info) { return thunarx_file_info_is_directory(THUNARX_FILE_INFO(info)); },
    },
    nullptr,
};

const TypeRegistry kPluginRegistry = {
    [](gpointer plugin, GType parent, const char* name, const GTypeInfo* info, GTypeFlags flags) {
      return thunarx_provider_plugin_register_type(THUNARX_PROVIDER_PLUGIN(plugin), parent, name, info,
                                                   flags);
    },
    [](gpointer plugin, GType type, GType interface, const GInterfaceInfo* info) {
      thunarx_provider_plugin_add_interface(THUNARX_PROVIDER_PLUGIN(plugin), type, interface, info);
    },
};

void initInterface(gpointer iface, gpointer) {
  auto* menus = static_cast<ThunarxMenuProviderIface*>(iface);
  menus->get_file_menu_items = [](ThunarxMenuProvider* provider, GtkWidget*, GList* files) {
    return fileItems(provider, files);
  };
  menus->get_folder_menu_items = [](ThunarxMenuProvider* provider, GtkWidget*, ThunarxFileInfo*) {
    return backgroundItems(provider);
  };
}

GType gProviderType = 0;

}  // namespace

extern "C" {

G_MODULE_EXPORT void thunar_extension_initialize(ThunarxProviderPlugin* plugin) {
  if (thunarx_check_version(THUNARX_MAJOR_VERSION, THUNARX_MINOR_VERSION, THUNARX_MICRO_VERSION) != nullptr) {
    return;
  }
  // Thunar drops providers it hasn't used for a while and would then unload
  // the module; the platform and the log's queue stay for the process instead.
  thunarx_provider_plugin_set_resident(plugin, TRUE);
  gProviderType = loadModule(plugin, kPluginRegistry, THUNARX_TYPE_MENU_PROVIDER, initInterface, kApi);
}

G_MODULE_EXPORT void thunar_extension_shutdown(void) {
  unloadModule();
}

G_MODULE_EXPORT void thunar_extension_list_types(const GType** types, gint* count) {
  *types = &gProviderType;
  *count = gProviderType != 0 ? 1 : 0;
}

}  // extern "C"
