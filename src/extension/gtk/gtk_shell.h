// What the GTK-family file managers' modules share (GNOME Files, Nemo, Caja,
// Thunar): their extension APIs differ in names, not in shape. A module
// describes its API in an Api table and registers the one provider type here;
// the rest (the platform of a loaded module, the selection, the menu turned
// into the file manager's items, picks, the catalogue monitor) lives here once.
// File managers call it on their main thread. Every entry catches whatever the
// C++ side might throw: an exception reaching the file manager's C code would
// end it.
#pragma once

#include <gio/gio.h>
#include <glib-object.h>

namespace palvin::gtk_shell {

// How one file manager's API makes menus. Items and menus are GObjects; items
// have the properties "sensitive" and "menu" and the signal "activate".
struct MenuApi {
  GObject* (*newItem)(const char* name, const char* label, const char* iconName);  // icon may be null
  GObject* (*newSeparator)(const char* name);  // null where the API has none
  GObject* (*newMenu)();
  void (*appendItem)(GObject* menu, GObject* item);  // the menu takes its own reference
};

// How it describes one selected item.
struct FileInfoApi {
  GType (*type)();
  GFile* (*location)(GObject* info);
  char* (*activationUri)(GObject* info);  // null where the API has none
  gboolean (*isDirectory)(GObject* info);
};

struct Api {
  MenuApi menus;
  FileInfoApi files;
  // Makes the file manager ask for the provider's items again; null where the
  // API has no items-updated signal (its menus are then asked for afresh at
  // every right-click, or stay until the selection changes).
  void (*itemsUpdated)(GObject* provider);
};

// How a file manager registers a module's types: a GTypeModule or its own.
struct TypeRegistry {
  GType (*registerType)(gpointer module, GType parent, const char* name, const GTypeInfo* info,
                        GTypeFlags flags);
  void (*addInterface)(gpointer module, GType type, GType interface, const GInterfaceInfo* info);
};
extern const TypeRegistry kTypeModuleRegistry;

// Registers the provider type, implementing the file manager's menu provider
// interface with `initInterface`, and sets up the platform once per load.
GType loadModule(gpointer module, const TypeRegistry& registry, GType menuProviderInterface,
                 GInterfaceInitFunc initInterface, const Api& api) noexcept;
// Before the module is unloaded, when no provider is left.
void unloadModule() noexcept;

// The menu provider interface's two calls, for any provider of the type.
GList* fileItems(gpointer provider, GList* files) noexcept;
GList* backgroundItems(gpointer provider) noexcept;

}  // namespace palvin::gtk_shell
