// A desktop's notification service for tests: a private session bus (GLib's
// test bus: its own dbus-daemon and configuration, nothing started on demand,
// the daemon stopped with the test, even when the test crashes) on which this
// process answers as org.freedesktop.Notifications, records every notice it is
// asked to show, and clicks actions as a user would.
#pragma once

#include <gio/gio.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace palvin::testing {

class NotificationService {
 public:
  struct Notice {
    std::uint32_t replacesId = 0, id = 0;
    std::string summary, body;
    std::vector<std::string> actions;  // key, label, key, label...
  };

  NotificationService() : bus_(g_test_dbus_new(G_TEST_DBUS_NONE)) {
    g_test_dbus_up(bus_);
    connection_ = g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(bus_),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    // Calls are answered on GDBus's own thread, as they come.
    g_dbus_connection_add_filter(connection_, answer, this, nullptr);
    g_variant_unref(g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus", "RequestName",
                                                g_variant_new("(su)", kName, 4u /* do not queue */), nullptr,
                                                G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
  }
  ~NotificationService() {
    g_dbus_connection_close_sync(connection_, nullptr, nullptr);
    g_object_unref(connection_);
    g_test_dbus_down(bus_);
    g_object_unref(bus_);
  }

  // The environment entry that puts a program on this bus.
  std::string env() const {
    return "DBUS_SESSION_BUS_ADDRESS=" + std::string(g_test_dbus_get_bus_address(bus_));
  }
  std::vector<Notice> notices() const {
    std::lock_guard lock(mutex_);
    return notices_;
  }
  // A click on action `key` of notice `id`: ActionInvoked, and the notice
  // closes (NotificationClosed, reason 2: dismissed).
  void click(std::uint32_t id, const std::string& key) {
    g_dbus_connection_emit_signal(connection_, nullptr, kPath, kName, "ActionInvoked",
                                  g_variant_new("(us)", id, key.c_str()), nullptr);
    g_dbus_connection_emit_signal(connection_, nullptr, kPath, kName, "NotificationClosed",
                                  g_variant_new("(uu)", id, 2u), nullptr);
  }

 private:
  static constexpr const char* kName = "org.freedesktop.Notifications";
  static constexpr const char* kPath = "/org/freedesktop/Notifications";

  static GDBusMessage* answer(GDBusConnection* connection, GDBusMessage* call, gboolean incoming,
                              gpointer self) {
    if (!incoming || g_dbus_message_get_message_type(call) != G_DBUS_MESSAGE_TYPE_METHOD_CALL ||
        g_strcmp0(g_dbus_message_get_interface(call), kName) != 0)
      return call;
    const std::string member = g_dbus_message_get_member(call);
    // A service that reads bodies as markup, as GNOME Shell's does.
    GVariant* out = member == "GetCapabilities" ? g_variant_new_parsed("(['actions', 'body-markup'],)")
                    : member == "Notify"        ? static_cast<NotificationService*>(self)->record(call)
                                                : g_variant_new_parsed("()");
    GDBusMessage* reply = g_dbus_message_new_method_reply(call);
    g_dbus_message_set_body(reply, out);
    g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(call);
    return nullptr;
  }

  GVariant* record(GDBusMessage* call) {
    Notice notice;
    const char *summary, *body;
    GVariantIter* actions;
    g_variant_get(g_dbus_message_get_body(call), "(su&s&s&sasa{sv}i)", nullptr, &notice.replacesId, nullptr,
                  &summary, &body, &actions, nullptr, nullptr);
    notice.summary = summary, notice.body = body;
    for (const char* action; g_variant_iter_loop(actions, "&s", &action);)
      notice.actions.emplace_back(action);
    g_variant_iter_free(actions);
    std::lock_guard lock(mutex_);
    notice.id = notice.replacesId != 0 ? notice.replacesId : std::uint32_t(notices_.size() + 1);
    notices_.push_back(notice);
    return g_variant_new("(u)", notice.id);
  }

  GTestDBus* bus_;
  GDBusConnection* connection_ = nullptr;
  mutable std::mutex mutex_;
  std::vector<Notice> notices_;
};

}  // namespace palvin::testing
