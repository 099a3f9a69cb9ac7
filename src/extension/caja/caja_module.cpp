// The Caja (MATE) module: Caja's names for the shared GTK-family shell.
// Caja's API is the older Nautilus one: no separators; its GTK 3 menus show
// each item's icon.
#include <gmodule.h>
#include <libcaja-extension/caja-file-info.h>
#include <libcaja-extension/caja-menu-provider.h>

#include "extension/gtk/gtk_shell.h"

namespace {

using namespace palvin::gtk_shell;

const Api kApi = {
    {
        // Caja takes no item without a tip; the model has none.
        [](const char* name, const char* label, const char* icon) {
          return G_OBJECT(caja_menu_item_new(name, label, "", icon));
        },
        nullptr,
        [] { return G_OBJECT(caja_menu_new()); },
        [](GObject* menu, GObject* item) { caja_menu_append_item(CAJA_MENU(menu), CAJA_MENU_ITEM(item)); },
    },
    {
        caja_file_info_get_type,
        [](GObject* info) { return caja_file_info_get_location(CAJA_FILE_INFO(info)); },
        [](GObject* info) { return caja_file_info_get_activation_uri(CAJA_FILE_INFO(info)); },
        [](GObject* info) { return caja_file_info_is_directory(CAJA_FILE_INFO(info)); },
    },
    [](GObject* provider) { caja_menu_provider_emit_items_updated_signal(CAJA_MENU_PROVIDER(provider)); },
};

void initInterface(gpointer iface, gpointer) {
  auto* menus = static_cast<CajaMenuProviderIface*>(iface);
  menus->get_file_items = [](CajaMenuProvider* provider, GtkWidget*, GList* files) {
    return fileItems(provider, files);
  };
  menus->get_background_items = [](CajaMenuProvider* provider, GtkWidget*, CajaFileInfo*) {
    return backgroundItems(provider);
  };
}

GType gProviderType = 0;

}  // namespace

extern "C" {

// Called on every load of the module.
G_MODULE_EXPORT void caja_module_initialize(GTypeModule* module) {
  gProviderType = loadModule(module, kTypeModuleRegistry, CAJA_TYPE_MENU_PROVIDER, initInterface, kApi);
}

// Called before the module is unloaded, when no provider is left.
G_MODULE_EXPORT void caja_module_shutdown(void) {
  unloadModule();
}

G_MODULE_EXPORT void caja_module_list_types(const GType** types, int* count) {
  *types = &gProviderType;
  *count = 1;
}

}  // extern "C"
