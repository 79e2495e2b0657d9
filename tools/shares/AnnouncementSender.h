#pragma once

#include <string>

#include "glib/Handles.h"

namespace tools {

/// Sends announcement datagrams, as a unit does, to one destination at port 10000.
class AnnouncementSender {
 public:
  /// `destination` is a dotted address. If `interface` is null, the routes choose the one for
  /// datagrams to a group. Returns false and sets `error` if the destination or the interface is
  /// invalid.
  [[nodiscard]] bool Open(const std::string& destination, const char* interface,
                          std::string& error);

  /// Sends one datagram. Returns false and sets `error` on failure.
  /// Requires: `Open` succeeded.
  [[nodiscard]] bool Send(const std::string& datagram, std::string& error);

 private:
  glib::ObjectPointer<GSocketAddress> destination_;
  glib::ObjectPointer<GSocket> socket_;
};

}  // namespace tools
