// Desktop notifications through the session bus's
// org.freedesktop.Notifications service, with actions: GDBus on a thread of
// its own, so that a click on an action reaches the host app while its other
// threads convert.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "shared/result.h"

using GDBusConnection = struct _GDBusConnection;
using GMainContext = struct _GMainContext;
using GMainLoop = struct _GMainLoop;

namespace palvin::host {

class DesktopNotifier {
 public:
  struct Notice {
    std::string summary, body;
    std::string icon;                                            // a freedesktop icon name, or empty
    std::vector<std::pair<std::string, std::string>> actions{};  // key and label
    std::string category{};                                      // "transfer", "transfer.complete"...
    bool persistent = false;                                     // stays until replaced or dismissed
  };

  struct Handlers {
    // The user picked action `key` of notification `id`.
    std::function<void(std::uint32_t id, const std::string& key)> action;
    // Notification `id` went away (dismissed, expired, or after an action).
    std::function<void(std::uint32_t id)> closed;
    // Called every `period` while the notifier runs.
    std::function<void()> tick;
    std::chrono::milliseconds period{500};
  };

  // Connects to the session bus in DBUS_SESSION_BUS_ADDRESS. Nothing, with
  // `problem` left empty, when no bus is set; with `problem` when it can't be
  // reached. The handlers run on the notifier's thread.
  static std::unique_ptr<DesktopNotifier> connect(Handlers handlers, std::string* problem);
  ~DesktopNotifier();
  DesktopNotifier(const DesktopNotifier&) = delete;
  DesktopNotifier& operator=(const DesktopNotifier&) = delete;

  // Shows `notice` in place of notification `replaces` (0: a new one); its
  // id, or why it was not shown. Any thread; waits for the service's answer,
  // a few seconds at most.
  Result<std::uint32_t> show(const Notice& notice, std::uint32_t replaces = 0);
  // Takes notification `id` away.
  void close(std::uint32_t id);

 private:
  DesktopNotifier(GDBusConnection* connection, Handlers handlers);
  void run();

  GDBusConnection* connection_;
  Handlers handlers_;
  GMainContext* context_;
  GMainLoop* loop_;
  std::vector<unsigned> subscriptions_;
  bool markup_ = false;  // the service reads the body as markup
  std::thread thread_;
};

}  // namespace palvin::host
