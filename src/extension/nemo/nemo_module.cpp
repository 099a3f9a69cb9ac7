// The Nemo (Cinnamon) module: Nemo's names for the shared GTK-family shell.
// Nemo's API is the older Nautilus one with separators added; its GTK 3
// menus show each item's icon.
#include <gmodule.h>
#include <libnemo-extension/nemo-file-info.h>
#include <libnemo-extension/nemo-menu-provider.h>

#include "extension/gtk/gtk_shell.h"

namespace {

using namespace palvin::gtk_shell;

const Api kApi = {
    {
        // Nemo takes no item without a tip; the model has none.
        [](const char* name, const char* label, const char* icon) {
          return G_OBJECT(nemo_menu_item_new(name, label, "", icon));
        },
        [](const char* name) { return G_OBJECT(nemo_menu_item_new_separator(name)); },
        [] { return G_OBJECT(nemo_menu_new()); },
        [](GObject* menu, GObject* item) { nemo_menu_append_item(NEMO_MENU(menu), NEMO_MENU_ITEM(item)); },
    },
    {
        nemo_file_info_get_type,
        [](GObject* info) { return nemo_file_info_get_location(NEMO_FILE_INFO(info)); },
        [](GObject* info) { return nemo_file_info_get_activation_uri(NEMO_FILE_INFO(info)); },
        [](GObject* info) { return nemo_file_info_is_directory(NEMO_FILE_INFO(info)); },
    },
    [](GObject* provider) { nemo_menu_provider_emit_items_updated_signal(NEMO_MENU_PROVIDER(provider)); },
};

void initInterface(gpointer iface, gpointer) {
  auto* menus = static_cast<NemoMenuProviderInterface*>(iface);
  menus->get_file_items = [](NemoMenuProvider* provider, GtkWidget*, GList* files) {
    return fileItems(provider, files);
  };
  menus->get_background_items = [](NemoMenuProvider* provider, GtkWidget*, NemoFileInfo*) {
    return backgroundItems(provider);
  };
}

GType gProviderType = 0;

}  // namespace

extern "C" {

// Called on every load of the module.
G_MODULE_EXPORT void nemo_module_initialize(GTypeModule* module) {
  gProviderType = loadModule(module, kTypeModuleRegistry, NEMO_TYPE_MENU_PROVIDER, initInterface, kApi);
}

// Called before the module is unloaded, when no provider is left.
G_MODULE_EXPORT void nemo_module_shutdown(void) {
  unloadModule();
}

G_MODULE_EXPORT void nemo_module_list_types(const GType** types, int* count) {
  *types = &gProviderType;
  *count = 1;
}

}  // extern "C"
