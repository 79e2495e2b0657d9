#include "hal/face/BusLink.h"

#include <cstring>
#include <utility>

#include "hal/face/HalNames.h"

namespace hal {
namespace {

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kPeerInterface = "org.freedesktop.DBus.Peer";
constexpr guint kDoNotQueue = 4;
constexpr guint kPrimaryOwner = 1;
constexpr guint kAlreadyOwner = 4;

}  // namespace

/// What the reading thread and the main thread share. The reading thread only copies the pointer to
/// it; `link` is looked at on the main thread alone, and is null once the connection is given up.
struct BusLink::Inbox {
  BusLink* link;
};

struct BusLink::Delivery {
  std::shared_ptr<Inbox> inbox;
  glib::ObjectPointer<GDBusMessage> call;
};

/// Outlives the link if need be.
struct BusLink::UserQuestion {
  std::shared_ptr<Inbox> inbox;
  UserHandler handler;
};

BusLink::BusLink(std::string address, CallHandler onCall, LossHandler onLoss)
    : address_(std::move(address)), onCall_(std::move(onCall)), onLoss_(std::move(onLoss)) {}

BusLink::~BusLink() {
  Close();
}

std::optional<std::string> BusLink::Connect() {
  // The bus may have gone before the main loop has heard of it.
  if (connection_ && g_dbus_connection_is_closed(connection_.get())) Lose();
  if (connection_) return std::nullopt;
  glib::ErrorHolder error;
  glib::CharPointer systemBus;
  const char* address = address_.c_str();
  if (address_.empty()) {
    systemBus.reset(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error.Out()));
    if (!systemBus) return error.Text();
    address = systemBus.get();
  }
  const auto flags =
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
  connection_.reset(
      g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, error.Out()));
  if (!connection_) return error.Text();
  g_dbus_connection_set_exit_on_close(connection_.get(), FALSE);
  inbox_ = std::make_shared<Inbox>(Inbox{this});
  filter_ = g_dbus_connection_add_filter(
      connection_.get(), &BusLink::Filter, new std::shared_ptr<Inbox>(inbox_),
      [](gpointer data) { delete static_cast<std::shared_ptr<Inbox>*>(data); });
  closedHandler_ =
      g_signal_connect(connection_.get(), "closed", G_CALLBACK(&BusLink::OnClosed), this);
  return std::nullopt;
}

std::optional<std::string> BusLink::CallBus(const char* method, GVariant* arguments,
                                            guint* result) {
  glib::ErrorHolder error;
  const glib::VariantPointer reply(g_dbus_connection_call_sync(
      connection_.get(), kBus, kBusPath, kBus, method, arguments, G_VARIANT_TYPE("(u)"),
      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, error.Out()));
  if (!reply) return error.Text();
  g_variant_get(reply.get(), "(u)", result);
  return std::nullopt;
}

std::optional<std::string> BusLink::TakeName() {
  guint result = 0;
  if (auto error = CallBus("RequestName", g_variant_new("(su)", kService, kDoNotQueue), &result)) {
    return error;
  }
  if (result != kPrimaryOwner && result != kAlreadyOwner) {
    return std::string(kService) + " is owned by somebody else";
  }
  ownsName_ = true;
  return std::nullopt;
}

void BusLink::GiveUpName() {
  if (!std::exchange(ownsName_, false)) return;
  guint result = 0;
  // A bus that is gone has taken the name back already.
  (void)CallBus("ReleaseName", g_variant_new("(s)", kService), &result);
}

bool BusLink::Flush() {
  return connection_ && g_dbus_connection_flush_sync(connection_.get(), nullptr, nullptr) &&
         !g_dbus_connection_is_closed(connection_.get());
}

void BusLink::Close() {
  if (!connection_) return;
  (void)Flush();
  g_signal_handler_disconnect(connection_.get(), closedHandler_);
  g_dbus_connection_close_sync(connection_.get(), nullptr, nullptr);
  Forget();
}

void BusLink::Forget() {
  g_dbus_connection_remove_filter(connection_.get(), filter_);
  inbox_->link = nullptr;
  inbox_.reset();
  connection_.reset();
  ownsName_ = false;
}

std::string BusLink::UniqueName() const {
  return connection_ ? g_dbus_connection_get_unique_name(connection_.get()) : std::string();
}

bool BusLink::Emit(const std::string& destination, const std::string& path,
                   const std::string& interface, const std::string& member, GVariant* body) {
  return connection_ && g_dbus_connection_emit_signal(
                            connection_.get(), destination.empty() ? nullptr : destination.c_str(),
                            path.c_str(), interface.c_str(), member.c_str(), body, nullptr);
}

void BusLink::Send(GDBusMessage* message) {
  if (!connection_) return;
  g_dbus_connection_send_message(connection_.get(), message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                 nullptr, nullptr);
}

void BusLink::AskUser(const std::string& client, UserHandler handler) {
  if (!connection_) return;
  g_dbus_connection_call(connection_.get(), kBus, kBusPath, kBus, "GetConnectionUnixUser",
                         g_variant_new("(s)", client.c_str()), G_VARIANT_TYPE("(u)"),
                         G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &BusLink::OnUser,
                         new UserQuestion{inbox_, std::move(handler)});
}

void BusLink::OnUser(GObject* connection, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<UserQuestion> question(static_cast<UserQuestion*>(data));
  const glib::VariantPointer reply(
      g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, nullptr));
  if (question->inbox->link == nullptr) return;
  guint uid = 0;
  if (reply) g_variant_get(reply.get(), "(u)", &uid);
  question->handler(reply ? std::optional<unsigned>(uid) : std::nullopt);
}

/// On the reading thread. Takes every method call but those that GLib answers well itself.
GDBusMessage* BusLink::Filter(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                              gpointer data) {
  if (!incoming || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
    return message;
  }
  const char* interface = g_dbus_message_get_interface(message);
  if (interface != nullptr && std::strcmp(interface, kPeerInterface) == 0) return message;
  auto* delivery = new Delivery{*static_cast<std::shared_ptr<Inbox>*>(data),
                                glib::ObjectPointer<GDBusMessage>(message)};
  // An idle source, never a direct call, whichever thread this is.
  g_idle_add_full(G_PRIORITY_DEFAULT, &BusLink::Deliver, delivery,
                  [](gpointer owned) { delete static_cast<Delivery*>(owned); });
  return nullptr;
}

gboolean BusLink::Deliver(gpointer data) {
  const auto* delivery = static_cast<Delivery*>(data);
  if (delivery->inbox->link != nullptr) delivery->inbox->link->onCall_(delivery->call.get());
  return G_SOURCE_REMOVE;
}

void BusLink::OnClosed(GDBusConnection*, gboolean, GError*, gpointer data) {
  static_cast<BusLink*>(data)->Lose();
}

void BusLink::Lose() {
  g_signal_handler_disconnect(connection_.get(), closedHandler_);
  Forget();
  onLoss_();
}

}  // namespace hal
