#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "glib/Handles.h"

namespace tools {

/// Receives the announcements on the network as a member of the group 224.1.1.1, port 10000. It is
/// bound to the group's address, so that datagrams to this machine's own address still reach a
/// daemon running here. Runs on the default main context.
class AnnouncementListener {
 public:
  /// Receives the sender's dotted address and the datagram, which is valid only during the call.
  using DatagramHandler = std::function<void(const std::string&, std::string_view)>;

  explicit AnnouncementListener(DatagramHandler onDatagram);
  AnnouncementListener(const AnnouncementListener&) = delete;
  AnnouncementListener& operator=(const AnnouncementListener&) = delete;

  /// Joins the group on the interface, or on the one that the routes choose if `interface` is null.
  /// Returns false and sets `error` on failure.
  [[nodiscard]] bool Join(const char* interface, std::string& error);

 private:
  static gboolean OnReadable(GSocket*, GIOCondition, gpointer self);

  bool ReceiveOne();

  DatagramHandler onDatagram_;
  glib::ObjectPointer<GSocket> socket_;
  glib::EventSource readable_;
};

}  // namespace tools
