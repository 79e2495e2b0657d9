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

/// Follows the connections to the display application from their segments and tells what each of
/// them brought and what went wrong. A connection whose beginning was not seen is passed over.
/// Bounded: follows at most `kMaxConnections`; for one more the oldest is given up. The caller
/// gives the times, which must not go backwards.
class Deliveries {
 public:
  using WallTime = std::chrono::system_clock::time_point;
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kMaxConnections = 64;
  /// How long the application may take. The daemon itself waits no longer to be answered.
  static constexpr std::chrono::seconds kPatience{2};

  struct Handlers {
    std::function<void(const Received&)> onReceived;  ///< faulty frames included
    std::function<void(const Incident&)> onIncident;
  };

  /// `application` is where the application listens.
  Deliveries(Endpoint application, Handlers handlers)
      : application_(application), handlers_(std::move(handlers)) {}

  /// Takes a segment, which was seen at `wall`.
  void Hear(const Segment& segment, WallTime wall, Clock::time_point now);

  /// Tells what has taken too long by `now`. Requires: every segment until then was heard.
  void Tick(WallTime wall, Clock::time_point now);

 private:
  struct Connection {
    Endpoint peer;
    std::uint32_t syn;
    Clock::time_point waitsSince;  ///< for an answer, then for the application's end
    TcpStream stream;
    FrameReader reader{};
    bool answered = false;
    bool broughtFrame = false;
    bool givenUp = false;   ///< what follows cannot be read
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
  /// What stands after the last frame is a faulty one, as is a connection without a byte.
  void Conclude(Connection& connection, const char* reason, WallTime wall);
  void Show(Connection& connection, Frame frame, WallTime wall);
  void Tell(const Connection& connection, Mishap mishap, std::string reason, WallTime wall);
  [[nodiscard]] Connections::iterator Find(const Endpoint& peer);

  const Endpoint application_;
  const Handlers handlers_;
  Connections connections_;  ///< the oldest first
};

}  // namespace tools
