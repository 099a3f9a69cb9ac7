// "Converted 2 files to WebP" on the desktop when a request is done.
#pragma once

#include <optional>
#include <string>

#include "requests/conversion_result.h"

namespace palvin::host {

// The notification's title for a handled request, `targetName` being the
// target format's display name.
std::string notificationSummary(const FinderConversionResult& result, std::string_view targetName);

// Shows it with libnotify when a session bus exists (DBUS_SESSION_BUS_ADDRESS
// set); otherwise does nothing. The error when it could not be shown.
std::optional<std::string> notifyDesktop(const std::string& summary, const std::string& body);

}  // namespace palvin::host
