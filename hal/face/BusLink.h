#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "glib/Handles.h"

// The connection to the bus. GLib reads it on a thread of its own; everything here belongs to the
// main thread, and so do the handlers.

namespace hal {

class BusLink {
 public:
  using CallHandler = std::function<void(GDBusMessage* call)>;
  using LossHandler = std::function<void()>;
  using UserHandler = std::function<void(std::optional<unsigned> uid)>;

  /// An empty address means the system bus.
  BusLink(std::string address, CallHandler onCall, LossHandler onLoss);
  ~BusLink();
  BusLink(const BusLink&) = delete;
  BusLink& operator=(const BusLink&) = delete;

  /// Connects if necessary. Returns the reason for a failure. Blocks.
  std::optional<std::string> Connect();
  /// Takes the service's name, without queueing for it. Requires: connected. Blocks.
  std::optional<std::string> TakeName();
  void GiveUpName();
  /// Returns once everything that was sent has reached the bus; false if it has not, because the
  /// connection is broken. Blocks.
  [[nodiscard]] bool Flush();
  /// Closes the connection once everything that was sent has reached the bus. Blocks.
  void Close();

  bool IsConnected() const { return connection_ != nullptr; }
  bool OwnsName() const { return ownsName_; }
  /// Such as ":1.5"; empty while there is no connection.
  std::string UniqueName() const;

  /// Sends a signal, to everybody if the destination is empty. Returns false, without effect, if
  /// the message cannot be built.
  bool Emit(const std::string& destination, const std::string& path, const std::string& interface,
            const std::string& member, GVariant* body);
  void Send(GDBusMessage* message);
  /// Asks the bus which user a client runs as; nullopt if the bus does not know, or no longer. The
  /// handler runs later, on the main loop, unless this object has been destroyed by then.
  void AskUser(const std::string& client, UserHandler handler);

 private:
  struct Inbox;
  struct Delivery;
  struct UserQuestion;

  static GDBusMessage* Filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                              gpointer data);
  static gboolean Deliver(gpointer data);
  static void OnUser(GObject* connection, GAsyncResult* result, gpointer data);
  static void OnClosed(GDBusConnection* connection, gboolean remotely, GError* error,
                       gpointer data);
  std::optional<std::string> CallBus(const char* method, GVariant* arguments, guint* result);
  void Lose();
  void Forget();

  const std::string address_;
  const CallHandler onCall_;
  const LossHandler onLoss_;
  glib::ObjectPointer<GDBusConnection> connection_;
  std::shared_ptr<Inbox> inbox_;  // of this connection
  guint filter_ = 0;
  gulong closedHandler_ = 0;
  bool ownsName_ = false;
};

}  // namespace hal
