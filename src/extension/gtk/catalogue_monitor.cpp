#include "extension/gtk/catalogue_monitor.h"

#include <string>
#include <utility>

#include "catalogue/capability_store.h"
#include "platform/platform.h"
#include "services/container.h"
#include "services/log.h"

namespace palvin {
namespace {

bool isCatalogue(GFile* file) {
  if (file == nullptr) return false;
  char* name = g_file_get_basename(file);
  bool matches = name != nullptr && CapabilityStore::kFileName == name;
  g_free(name);
  return matches;
}

// The host app writes the catalogue atomically, so it arrives by a rename;
// a plain write ends with the changes-done hint. Contents changing under way
// and attribute changes make no new menu.
bool changesCatalogue(GFileMonitorEvent event) {
  switch (event) {
    case G_FILE_MONITOR_EVENT_CREATED:
    case G_FILE_MONITOR_EVENT_DELETED:
    case G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT:
    case G_FILE_MONITOR_EVENT_MOVED_IN:
    case G_FILE_MONITOR_EVENT_MOVED_OUT:
    case G_FILE_MONITOR_EVENT_RENAMED:
      return true;
    default:
      return false;
  }
}

}  // namespace

CatalogueMonitor::CatalogueMonitor(std::function<void()> changed) : changed_(std::move(changed)) {
  auto container = FinderSharedContainer::url();
  if (!container) return;
  (void)currentPlatform().createDirectories(*container);
  GFile* directory = g_file_new_for_path(container->c_str());
  GError* error = nullptr;
  monitor_ = g_file_monitor_directory(directory, G_FILE_MONITOR_WATCH_MOVES, nullptr, &error);
  g_object_unref(directory);
  if (monitor_ == nullptr) {
    FinderLog::log(FinderLog::Level::warn, "Cannot watch " + *container + " for capabilities: " +
                                               (error ? error->message : "unknown error"));
    g_clear_error(&error);
    return;
  }
  g_signal_connect(monitor_, "changed", G_CALLBACK(onEvent), this);
}

CatalogueMonitor::~CatalogueMonitor() {
  if (monitor_ == nullptr) return;
  g_signal_handlers_disconnect_by_data(monitor_, this);
  g_file_monitor_cancel(monitor_);
  g_object_unref(monitor_);
}

void CatalogueMonitor::onEvent(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event,
                               gpointer self) {
  try {
    if (!changesCatalogue(event) || !(isCatalogue(file) || isCatalogue(other))) return;
    static_cast<CatalogueMonitor*>(self)->changed_();
    FinderLog::log(FinderLog::Level::debug, "Capabilities changed: menu items updated");
  } catch (...) {
    // Nothing may reach the file manager's main loop.
  }
}

}  // namespace palvin
