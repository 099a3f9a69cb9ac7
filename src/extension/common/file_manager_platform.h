// The Linux platform as a file manager hosts it in its own process, whatever
// its toolkit: the host app is started so that nothing of ours waits for it,
// a symbol image exists where a freedesktop icon stands for the symbol, and
// the appearance is the file manager's current one.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/linux_platform.h"

namespace palvin {

// Starts `program` with exec-style arguments and environment in a new session
// with default signal handling and no blocked signals, as the grandchild of a
// child that ends at once: the program is left to init (or the session's
// subreaper), so there is nothing to reap later and no thread waits for it.
// Only async-signal-safe calls run between fork and exec, as the caller's
// process has many threads. Returns 0 once the program runs, else the error
// number of the fork or exec that failed.
int spawnDetached(const char* program, char* const arguments[], char* const environment[]);

class FileManagerPlatform : public LinuxPlatform {
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
