#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "glib/Handles.h"

namespace tools {

/// Hears the announcements on the network: a member of the group 224.1.1.1, port 10000. It is bound
/// to the group's address, so datagrams that are sent to this machine itself still reach a daemon
/// that runs beside it. Lives on the default main context.
class AnnouncementListener {
 public:
  /// Gets the sender's dotted address and the datagram, which is valid during the call only.
  using DatagramHandler = std::function<void(const std::string&, std::string_view)>;

  explicit AnnouncementListener(DatagramHandler onDatagram);
  AnnouncementListener(const AnnouncementListener&) = delete;
  AnnouncementListener& operator=(const AnnouncementListener&) = delete;

  /// Joins the group on the interface; a null `interface` lets the routes decide. False, with
  /// `error` set, when that cannot be done.
  [[nodiscard]] bool Join(const char* interface, std::string& error);

 private:
  static gboolean OnReadable(GSocket*, GIOCondition, gpointer self);

  bool ReceiveOne();

  DatagramHandler onDatagram_;
  glib::ObjectPointer<GSocket> socket_;
  glib::EventSource readable_;
};

}  // namespace tools
