#include "desktop_notification.h"

#include <libnotify/notify.h>

#include <cstdlib>

namespace palvin::host {
namespace {

std::string files(std::size_t n) {
  return std::to_string(n) + (n == 1 ? " file" : " files");
}

}  // namespace

std::string notificationSummary(const FinderConversionResult& result, std::string_view targetName) {
  std::size_t converted = result.count(FinderFileResult::Status::converted);
  std::size_t failed = result.count(FinderFileResult::Status::failed);
  std::string target(targetName);
  if (converted == 0) return "Could not convert " + files(failed) + " to " + target;
  std::string summary = "Converted " + files(converted) + " to " + target;
  if (failed > 0) summary += ", " + std::to_string(failed) + " failed";
  return summary;
}

std::optional<std::string> notifyDesktop(const std::string& summary, const std::string& body) {
  const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (bus == nullptr || bus[0] == '\0') return std::nullopt;
  if (!notify_is_initted() && !notify_init("PalvinHost")) return "libnotify could not start";
  NotifyNotification* notification =
      notify_notification_new(summary.c_str(), body.empty() ? nullptr : body.c_str(), "emblem-default");
  GError* error = nullptr;
  std::optional<std::string> problem;
  if (!notify_notification_show(notification, &error)) {
    problem = error != nullptr ? error->message : "not shown";
    if (error != nullptr) g_error_free(error);
  }
  g_object_unref(notification);
  return problem;
}

}  // namespace palvin::host
