// The Linux platform inside a GTK-family file manager (GNOME Files, Nemo,
// Caja, Thunar). Two things differ from the tool's: the host app is started
// the way GLib starts processes, so that nothing of ours waits for it inside
// the file manager; and a symbol image exists where a freedesktop icon stands
// for the symbol.
#pragma once

#include <string_view>

#include "platform/linux_platform.h"

namespace palvin {

class GtkPlatform : public LinuxPlatform {
 public:
  using LinuxPlatform::LinuxPlatform;

  // g_spawn_async's intermediate child leaves the host app to init, so there
  // is no child to reap and no thread that could outlive the module. The
  // completion runs before this returns.
  void openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                       LaunchCompletion completion) override;
  bool hasSymbolImage(std::string_view name) override;
};

}  // namespace palvin
