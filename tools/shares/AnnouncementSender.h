#pragma once

#include <string>

#include "glib/Handles.h"

namespace tools {

/// Sends announcement datagrams, as a unit does, to one destination at port 10000.
class AnnouncementSender {
 public:
  /// `destination` is a dotted address. A null `interface` lets the routes decide where datagrams
  /// to a group go out. False, with `error` set, when the destination or the interface is none.
  [[nodiscard]] bool Open(const std::string& destination, const char* interface,
                          std::string& error);

  /// Sends one datagram. False, with `error` set, when the network does not take it.
  /// Requires: `Open` succeeded.
  [[nodiscard]] bool Send(const std::string& datagram, std::string& error);

 private:
  glib::ObjectPointer<GSocketAddress> destination_;
  glib::ObjectPointer<GSocket> socket_;
};

}  // namespace tools
