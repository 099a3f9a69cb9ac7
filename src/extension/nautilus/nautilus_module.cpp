// The GNOME Files (Nautilus 43 and later, extension API 4) module: Nautilus's
// names for the shared GTK-family shell. Nautilus's menus are GTK 4 menu
// models, which have no separators for extensions.
#include <gmodule.h>

// The module's entry points are declared without C linkage.
extern "C" {
#include <nautilus-extension.h>
}

#include "extension/gtk/gtk_shell.h"

namespace {

using namespace palvin::gtk_shell;

const Api kApi = {
    {
        [](const char* name, const char* label, const char* icon) {
          return G_OBJECT(nautilus_menu_item_new(name, label, nullptr, icon));
        },
        nullptr,
        [] { return G_OBJECT(nautilus_menu_new()); },
        [](GObject* menu, GObject* item) {
          nautilus_menu_append_item(NAUTILUS_MENU(menu), NAUTILUS_MENU_ITEM(item));
        },
    },
    {
        nautilus_file_info_get_type,
        [](GObject* info) { return nautilus_file_info_get_location(NAUTILUS_FILE_INFO(info)); },
        [](GObject* info) { return nautilus_file_info_get_activation_uri(NAUTILUS_FILE_INFO(info)); },
        [](GObject* info) { return nautilus_file_info_is_directory(NAUTILUS_FILE_INFO(info)); },
    },
    [](GObject* provider) {
      nautilus_menu_provider_emit_items_updated_signal(NAUTILUS_MENU_PROVIDER(provider));
    },
};

void initInterface(gpointer iface, gpointer) {
  auto* menus = static_cast<NautilusMenuProviderInterface*>(iface);
  menus->get_file_items = [](NautilusMenuProvider* provider, GList* files) {
    return fileItems(provider, files);
  };
  menus->get_background_items = [](NautilusMenuProvider* provider, NautilusFileInfo*) {
    return backgroundItems(provider);
  };
}

GType gProviderType = 0;

}  // namespace

extern "C" {

// Called on every load of the module.
G_MODULE_EXPORT void nautilus_module_initialize(GTypeModule* module) {
  gProviderType = loadModule(module, kTypeModuleRegistry, NAUTILUS_TYPE_MENU_PROVIDER, initInterface, kApi);
}

// Called before the module is unloaded, when no provider is left.
G_MODULE_EXPORT void nautilus_module_shutdown(void) {
  unloadModule();
}

G_MODULE_EXPORT void nautilus_module_list_types(const GType** types, int* count) {
  *types = &gProviderType;
  *count = 1;
}

}  // extern "C"
