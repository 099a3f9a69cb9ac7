#include "desktop_notification.h"

#include <gio/gio.h>

#include <algorithm>
#include <cstdlib>

namespace palvin::host {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
// A service that does not answer holds up only the notice, never the work
// for long.
constexpr int kCallTimeoutMs = 3000;

std::string takeError(GError* error) {
  std::string text = error != nullptr ? error->message : "unknown error";
  if (error != nullptr) g_error_free(error);
  return text;
}

// D-Bus strings must be UTF-8; a tool's message need not be.
std::string validText(const std::string& text, bool markup) {
  gchar* valid = g_utf8_make_valid(text.c_str(), static_cast<gssize>(text.size()));
  gchar* escaped = markup ? g_markup_escape_text(valid, -1) : nullptr;
  std::string out = escaped != nullptr ? escaped : valid;
  g_free(escaped);
  g_free(valid);
  return out;
}

}  // namespace

std::unique_ptr<DesktopNotifier> DesktopNotifier::connect(Handlers handlers, std::string* problem) {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address == nullptr || address[0] == '\0') return nullptr;
  GError* error = nullptr;
  // A connection of our own, not GLib's shared one: it goes with this object.
  GDBusConnection* connection = g_dbus_connection_new_for_address_sync(
      address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (connection == nullptr) {
    *problem = "no session bus: " + takeError(error);
    return nullptr;
  }
  return std::unique_ptr<DesktopNotifier>(new DesktopNotifier(connection, std::move(handlers)));
}

DesktopNotifier::DesktopNotifier(GDBusConnection* connection, Handlers handlers)
    : connection_(connection),
      handlers_(std::move(handlers)),
      context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)) {
  // Signals are delivered in the thread-default context at subscription: ours.
  g_main_context_push_thread_default(context_);
  auto subscribe = [this](const char* member, GDBusSignalCallback callback) {
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(connection_, kService, kService, member,
                                                                kPath, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                                callback, this, nullptr));
  };
  subscribe("ActionInvoked", [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                GVariant* parameters, gpointer self) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(us)"))) return;
    guint32 id = 0;
    const gchar* key = nullptr;
    g_variant_get(parameters, "(u&s)", &id, &key);
    auto& handlers = static_cast<DesktopNotifier*>(self)->handlers_;
    if (handlers.action) handlers.action(id, key);
  });
  subscribe("NotificationClosed", [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                     GVariant* parameters, gpointer self) {
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(uu)"))) return;
    guint32 id = 0, reason = 0;
    g_variant_get(parameters, "(uu)", &id, &reason);
    auto& handlers = static_cast<DesktopNotifier*>(self)->handlers_;
    if (handlers.closed) handlers.closed(id);
  });
  g_main_context_pop_thread_default(context_);

  // Whether the body is read as markup, where a file named "a & b" must be
  // escaped. No answer: plain text.
  if (GVariant* reply = g_dbus_connection_call_sync(connection_, kService, kPath, kService, "GetCapabilities",
                                                    nullptr, G_VARIANT_TYPE("(as)"), G_DBUS_CALL_FLAGS_NONE,
                                                    kCallTimeoutMs, nullptr, nullptr)) {
    GVariantIter* capabilities = nullptr;
    g_variant_get(reply, "(as)", &capabilities);
    const gchar* capability = nullptr;
    while (g_variant_iter_loop(capabilities, "&s", &capability)) {
      markup_ = markup_ || std::string_view(capability) == "body-markup";
    }
    g_variant_iter_free(capabilities);
    g_variant_unref(reply);
  }
  thread_ = std::thread([this] { run(); });
}

void DesktopNotifier::run() {
  g_main_context_push_thread_default(context_);
  GSource* ticker = nullptr;
  if (handlers_.tick) {
    ticker = g_timeout_source_new(static_cast<guint>(handlers_.period.count()));
    g_source_set_callback(
        ticker,
        [](gpointer self) -> gboolean {
          static_cast<DesktopNotifier*>(self)->handlers_.tick();
          return G_SOURCE_CONTINUE;
        },
        this, nullptr);
    g_source_attach(ticker, context_);
  }
  g_main_loop_run(loop_);
  if (ticker != nullptr) {
    g_source_destroy(ticker);
    g_source_unref(ticker);
  }
  g_main_context_pop_thread_default(context_);
}

DesktopNotifier::~DesktopNotifier() {
  // Quit from inside the loop: a quit before the thread has entered it would
  // be lost.
  GSource* stop = g_idle_source_new();
  g_source_set_callback(
      stop,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_, nullptr);
  g_source_attach(stop, context_);
  g_source_unref(stop);
  thread_.join();
  for (unsigned subscription : subscriptions_)
    g_dbus_connection_signal_unsubscribe(connection_, subscription);
  // Whatever was still queued for the bus goes out before the host app exits.
  g_dbus_connection_close_sync(connection_, nullptr, nullptr);
  g_object_unref(connection_);
  // Signals that came in after the loop stopped are dropped with the context.
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

Result<std::uint32_t> DesktopNotifier::show(const Notice& notice, std::uint32_t replaces) {
  GVariantBuilder actions, hints;
  g_variant_builder_init(&actions, G_VARIANT_TYPE("as"));
  for (const auto& [key, label] : notice.actions) {
    g_variant_builder_add(&actions, "s", key.c_str());
    g_variant_builder_add(&actions, "s", validText(label, false).c_str());
  }
  g_variant_builder_init(&hints, G_VARIANT_TYPE("a{sv}"));
  if (!notice.category.empty()) {
    g_variant_builder_add(&hints, "{sv}", "category", g_variant_new_string(notice.category.c_str()));
  }
  const std::string summary = validText(notice.summary, false), body = validText(notice.body, markup_);
  GError* error = nullptr;
  GVariant* reply = g_dbus_connection_call_sync(
      connection_, kService, kPath, kService, "Notify",
      g_variant_new("(susssasa{sv}i)", "PalvinHost", replaces, notice.icon.c_str(), summary.c_str(),
                    body.c_str(), &actions, &hints, notice.persistent ? 0 : -1),
      G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  if (reply == nullptr) return Error{takeError(error)};
  guint32 id = 0;
  g_variant_get(reply, "(u)", &id);
  g_variant_unref(reply);
  return id;
}

void DesktopNotifier::close(std::uint32_t id) {
  GVariant* reply = g_dbus_connection_call_sync(connection_, kService, kPath, kService, "CloseNotification",
                                                g_variant_new("(u)", id), nullptr, G_DBUS_CALL_FLAGS_NONE,
                                                kCallTimeoutMs, nullptr, nullptr);
  if (reply != nullptr) g_variant_unref(reply);
}

}  // namespace palvin::host
