#include "extension/nautilus/nautilus_platform.h"

#include <glib.h>
#include <signal.h>
#include <unistd.h>

#include <utility>
#include <vector>

namespace palvin {
namespace {

// Symbol names a catalogue is likely to use, by the kind of file they stand
// for; the icons are freedesktop.org's standard icon names, which Adwaita and
// other themes draw. Symbolic icons take the theme's text colour, which is
// what the one-colour palette does on macOS.
constexpr std::pair<std::string_view, std::string_view> kIcons[] = {
    {"archivebox", "package-x-generic-symbolic"},
    {"camera", "image-x-generic-symbolic"},
    {"character", "font-x-generic-symbolic"},
    {"chart.bar", "x-office-spreadsheet-symbolic"},
    {"doc", "x-office-document-symbolic"},
    {"doc.plaintext", "text-x-generic-symbolic"},
    {"doc.richtext", "x-office-document-symbolic"},
    {"doc.text", "x-office-document-symbolic"},
    {"doc.zipper", "package-x-generic-symbolic"},
    {"film", "video-x-generic-symbolic"},
    {"folder", "folder-symbolic"},
    {"headphones", "audio-x-generic-symbolic"},
    {"music.note", "audio-x-generic-symbolic"},
    {"music.note.list", "audio-x-generic-symbolic"},
    {"paintbrush", "x-office-drawing-symbolic"},
    {"photo", "image-x-generic-symbolic"},
    {"photo.on.rectangle", "image-x-generic-symbolic"},
    {"photo.stack", "image-x-generic-symbolic"},
    {"play.rectangle", "video-x-generic-symbolic"},
    {"rectangle.on.rectangle", "x-office-presentation-symbolic"},
    {"shippingbox", "package-x-generic-symbolic"},
    {"speaker.wave.2", "audio-x-generic-symbolic"},
    {"tablecells", "x-office-spreadsheet-symbolic"},
    {"text.alignleft", "text-x-generic-symbolic"},
    {"textformat", "font-x-generic-symbolic"},
    {"video", "video-x-generic-symbolic"},
    {"waveform", "audio-x-generic-symbolic"},
};

// Runs in the host app's process before exec, so only async-signal-safe
// calls: the host app gets a session of its own and default signal handling,
// whatever Nautilus's threads had blocked or ignored.
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

std::optional<std::string_view> freedesktopIconName(std::string_view symbolName) {
  constexpr std::string_view kFill = ".fill";
  if (symbolName.ends_with(kFill)) symbolName.remove_suffix(kFill.size());
  for (const auto& [symbol, icon] : kIcons) {
    if (symbol == symbolName) return icon;
  }
  return std::nullopt;
}

void NautilusPlatform::openApplication(const std::string& bundlePath, const OpenConfiguration& configuration,
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

bool NautilusPlatform::hasSymbolImage(std::string_view name) {
  return freedesktopIconName(name).has_value();
}

}  // namespace palvin
