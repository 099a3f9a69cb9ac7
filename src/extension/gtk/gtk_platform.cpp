#include "extension/gtk/gtk_platform.h"

#include <glib.h>
#include <signal.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "extension/shell/menu_rendering.h"

namespace palvin {
namespace {

// Runs in the host app's process before exec, so only async-signal-safe
// calls: the host app gets a session of its own and default signal handling,
// whatever the file manager's threads had blocked or ignored.
void prepareChild(gpointer) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP) ::signal(signal, SIG_DFL);
  }
  ::setsid();
}

}  // namespace

void GtkPlatform::openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
                                  LaunchCompletion completion) {
  LaunchCommand command = launchCommand(bundlePath, configuration);
  std::vector<char*> argv = LaunchCommand::pointers(command.arguments);
  std::vector<char*> envp = LaunchCommand::pointers(command.environment);
  GError* error = nullptr;
  // Without G_SPAWN_DO_NOT_REAP_CHILD GLib reaps its intermediate child
  // itself; the host app's parent becomes init (or the session's subreaper).
  if (!g_spawn_async(nullptr, argv.data(), envp.data(), G_SPAWN_DEFAULT, prepareChild, nullptr, nullptr,
                     &error)) {
    std::string description = error != nullptr ? error->message : command.program + ": cannot be started";
    g_clear_error(&error);
    completion(std::move(description));
    return;
  }
  completion(std::nullopt);
}

bool GtkPlatform::hasSymbolImage(std::string_view name) {
  return menu_rendering::freedesktopIconName(name).has_value();
}

}  // namespace palvin
