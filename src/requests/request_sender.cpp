#include "requests/request_sender.h"

#include <palvin/identifiers.h>

#include <utility>

#include "platform/platform.h"
#include "services/container.h"
#include "services/log.h"
#include "shared/paths.h"

namespace palvin {

namespace {
constexpr std::string_view kWriteFailed = "Failed to write request: ";
// U+2192 RIGHTWARDS ARROW, spelled as bytes so the source charset can't change it.
constexpr std::string_view kArrow = "\xE2\x86\x92";

void logWriteFailure(const std::string& description) {
  FinderLog::log(FinderLog::Level::error, std::string(kWriteFailed) + description);
}
}  // namespace

void FinderRequestSender::send(const FinderConversionRequest& request) {
  auto container = FinderSharedContainer::url();
  if (!container) {
    FinderLog::log(FinderLog::Level::error, "Cannot send request: App Group container unavailable");
    return;
  }

  Platform& platform = currentPlatform();
  const std::string directory = requestDirectory(*container);
  if (auto created = platform.createDirectories(directory); !created.ok()) {
    logWriteFailure(created.error());
    return;
  }

  const std::string fileName = newRequestFileName();
  auto bytes = request.encode();
  if (!bytes.ok()) {
    logWriteFailure(bytes.error());
    return;
  }
  if (auto written = platform.writeFileAtomically(paths::join(directory, fileName), *bytes); !written.ok()) {
    logWriteFailure(written.error());
    return;
  }

  std::string message =
      "Wrote request " + fileName + ": " + std::to_string(request.files.size()) + " file(s) ";
  message += kArrow;
  message += ' ';
  message += request.targetFormatId;
  FinderLog::log(FinderLog::Level::info, message);

  // The notification names no file: the host app finds the request in the
  // directory, which is why the file must exist before anyone is told.
  platform.postNotification(ids::kRequestNotificationName);
  launchHostApp(false);
}

void FinderRequestSender::launchHostApp(bool activates) {
  Platform& platform = currentPlatform();
  auto app = hostAppURL();
  if (!app) {
    FinderLog::log(FinderLog::Level::error, "Could not resolve host app URL from " + platform.bundlePath());
    return;
  }
  // The completion may run on another thread after this sender is gone, so it
  // captures nothing and only logs.
  platform.openApplication(*app, OpenConfiguration{.activates = activates, .addsToRecentItems = false},
                           [](std::optional<std::string> error) {
                             if (error)
                               FinderLog::log(FinderLog::Level::error,
                                              "Failed to launch host app: " + *error);
                           });
}

std::optional<std::string> FinderRequestSender::hostAppURL() {
  std::string candidate = currentPlatform().bundlePath();
  for (int examined = 0; examined < kHostAppCandidates; ++examined) {
    if (paths::extension(candidate) == kHostAppExtension) return candidate;
    std::string parent = paths::parent(candidate);
    if (parent == candidate) return std::nullopt;
    candidate = std::move(parent);
  }
  return std::nullopt;
}

}  // namespace palvin
