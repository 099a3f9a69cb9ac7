// The Linux platform inside Dolphin's process. Three things differ from the
// tool's: the host app is started by a double fork, since Qt has no spawn that
// leaves the child to init as GLib's does; a symbol image exists where a
// freedesktop icon stands for the symbol; and the appearance is Dolphin's
// current colour scheme.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux_platform.h"

namespace palvin {

class DolphinPlatform : public LinuxPlatform {
 public:
  using LinuxPlatform::LinuxPlatform;

  // What "AppleInterfaceStyle" reads as for the next menu ("Dark" for a dark
  // colour scheme). Set and read on the file manager's UI thread.
  void setAppearance(std::optional<std::string> appearance) { appearance_ = std::move(appearance); }

  std::optional<std::string> userDefaultString(std::string_view key) override;
  // The completion runs before this returns, on the caller's thread.
  void openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                       LaunchCompletion completion) override;
  bool hasSymbolImage(std::string_view name) override;

 private:
  std::optional<std::string> appearance_;
};

}  // namespace palvin
