// Watches the shared container for the catalogue appearing, changing or
// going away, so that a file manager can be told to ask for its menu items
// again: without it, the menu stays as built for the selection until the
// selection changes. Inotify through GIO, delivered on the main context of
// the thread that makes the monitor; nothing polls.
#pragma once

#include <gio/gio.h>

#include <functional>

namespace palvin {

class CatalogueMonitor {
 public:
  // Creates the container when it is missing (the log would, at its first
  // line), since a directory that doesn't exist yet can't be watched.
  explicit CatalogueMonitor(std::function<void()> changed);
  ~CatalogueMonitor();
  CatalogueMonitor(const CatalogueMonitor&) = delete;
  CatalogueMonitor& operator=(const CatalogueMonitor&) = delete;

 private:
  static void onEvent(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent event, gpointer self);

  std::function<void()> changed_;
  GFileMonitor* monitor_ = nullptr;
};

}  // namespace palvin
