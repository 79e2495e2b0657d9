#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>

#include "tools/monitor/Frame.h"
#include "tools/monitor/Incident.h"
#include "tools/monitor/Received.h"
#include "tools/monitor/Segment.h"
#include "tools/monitor/TcpStream.h"

namespace tools {

/// Follows the connections to the display application segment by segment, and reports what each one
/// delivered and what went wrong. Ignores a connection whose beginning was not seen. Bounded:
/// follows at most `kMaxConnections`; to make room for another it drops the oldest. The caller
/// passes the times, which must not go backwards.
class Deliveries {
 public:
  using WallTime = std::chrono::system_clock::time_point;
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kMaxConnections = 64;
  /// How long the application may take; the daemon waits no longer than this for an answer.
  static constexpr std::chrono::seconds kPatience{2};

  struct Handlers {
    std::function<void(const Received&)> onReceived;  ///< faulty frames included
    std::function<void(const Incident&)> onIncident;
  };

  /// `application` is the endpoint on which the application listens.
  Deliveries(Endpoint application, Handlers handlers)
      : application_(application), handlers_(std::move(handlers)) {}

  /// Processes a segment that was seen at `wall`.
  void Hear(const Segment& segment, WallTime wall, Clock::time_point now);

  /// Reports what has taken too long by `now`. Requires: `Hear` got every segment up to then.
  void Tick(WallTime wall, Clock::time_point now);

 private:
  struct Connection {
    Endpoint peer;
    std::uint32_t syn;
    Clock::time_point waitsSince;  ///< for an answer, then for the application to close
    TcpStream stream;
    FrameReader reader{};
    bool answered = false;
    bool broughtFrame = false;
    bool givenUp = false;   ///< the rest cannot be read
    bool peerDone = false;  ///< its last byte was seen
    bool applicationDone = false;
    bool toldSlow = false;
    std::string message{};  ///< of the last one: "arrival" or "removal", and its path
    std::string path{};
  };
  using Connections = std::list<Connection>;

  void HearPeer(const Segment& segment, WallTime wall, Clock::time_point now);
  void HearApplication(Connections::iterator connection, const Segment& segment, WallTime wall);
  void Open(const Segment& segment, WallTime wall, Clock::time_point now);
  void Read(Connection& connection, std::string_view bytes, WallTime wall, Clock::time_point now);
  /// Shows bytes after the last frame as a faulty frame, and so a connection without any byte.
  void Conclude(Connection& connection, const char* reason, WallTime wall);
  void Show(Connection& connection, Frame frame, WallTime wall);
  void Tell(const Connection& connection, Mishap mishap, std::string reason, WallTime wall);
  [[nodiscard]] Connections::iterator Find(const Endpoint& peer);

  const Endpoint application_;
  const Handlers handlers_;
  Connections connections_;  ///< oldest first
};

}  // namespace tools
