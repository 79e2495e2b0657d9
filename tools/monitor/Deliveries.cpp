#include "tools/monitor/Deliveries.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace tools {

namespace {

constexpr const char* kPeerClosed = "the peer closed the connection";
constexpr const char* kPeerReset = "the peer reset the connection";
constexpr const char* kApplicationClosed = "the application closed the connection";
constexpr const char* kNotCaptured = "some of its bytes were not captured";
constexpr const char* kTooMany = "too many connections are open";

}  // namespace

void Deliveries::Hear(const Segment& segment, WallTime wall, Clock::time_point now) {
  if (segment.from == segment.to) return;  // both directions would look the same
  if (segment.to == application_) {
    HearPeer(segment, wall, now);
  } else if (segment.from == application_) {
    const auto connection = Find(segment.to);
    if (connection != connections_.end()) HearApplication(connection, segment, wall);
  }
}

void Deliveries::HearPeer(const Segment& segment, WallTime wall, Clock::time_point now) {
  if (segment.syn && !segment.ack) return Open(segment, wall, now);
  const auto connection = Find(segment.from);
  if (connection == connections_.end()) return;
  if (segment.rst) {
    Conclude(*connection, kPeerReset, wall);
    connections_.erase(connection);
    return;
  }
  Read(*connection, connection->stream.Add(segment.sequence, segment.payload), wall, now);
  if (segment.fin) {
    const auto length = static_cast<std::uint32_t>(segment.payload.size());
    connection->stream.Close(segment.sequence + length);
  }
  if (connection->stream.IsBroken()) Conclude(*connection, kNotCaptured, wall);
  if (connection->stream.IsComplete() && !connection->peerDone) {
    connection->peerDone = true;
    Conclude(*connection, kPeerClosed, wall);
    if (connection->applicationDone) connections_.erase(connection);
  }
}

void Deliveries::HearApplication(Connections::iterator connection, const Segment& segment,
                                 WallTime wall) {
  if (segment.syn) connection->answered = true;
  if (segment.rst) {
    if (!connection->answered) {
      Tell(*connection, Mishap::Refused,
           "nobody listens on 127.0.0.1:" + std::to_string(application_.port), wall);
    } else {
      const bool isPart = connection->stream.HasGap() || connection->reader.HasBytes();
      if (isPart) Conclude(*connection, kApplicationClosed, wall);
      Tell(*connection, Mishap::Lost,
           "the application closed the connection before it had read everything", wall);
    }
    connections_.erase(connection);
    return;
  }
  connection->applicationDone = connection->applicationDone || segment.fin;
  if (connection->applicationDone && connection->peerDone) connections_.erase(connection);
}

void Deliveries::Open(const Segment& segment, WallTime wall, Clock::time_point now) {
  if (const auto known = Find(segment.from); known != connections_.end()) {
    if (known->syn == segment.sequence) return;  // sent again
    Conclude(*known, kNotCaptured, wall);
    connections_.erase(known);
  }
  if (connections_.size() >= kMaxConnections) {
    Conclude(connections_.front(), kTooMany, wall);
    connections_.pop_front();
  }
  connections_.push_back({.peer = segment.from,
                          .syn = segment.sequence,
                          .waitsSince = now,
                          .stream = TcpStream(segment.sequence)});
  Connection& opened = connections_.back();
  Read(opened, opened.stream.Add(segment.sequence + 1, segment.payload), wall, now);
}

void Deliveries::Read(Connection& connection, std::string_view bytes, WallTime wall,
                      Clock::time_point now) {
  while (!bytes.empty() && !connection.givenUp) {
    const std::string_view piece = bytes.substr(0, connection.reader.Room());
    bytes.remove_prefix(piece.size());
    connection.reader.Append(piece);
    while (auto frame = connection.reader.Next()) {
      connection.waitsSince = now;
      Show(connection, std::move(*frame), wall);
    }
    if (connection.reader.Room() == 0) Conclude(connection, "no frame can follow", wall);
  }
}

void Deliveries::Conclude(Connection& connection, const char* reason, WallTime wall) {
  if (std::exchange(connection.givenUp, true)) return;
  auto rest = connection.reader.Rest();
  const bool isSilent = !connection.broughtFrame && connection.answered;
  if (!rest && connection.stream.HasGap()) {
    rest = Frame{};
  } else if (!rest && isSilent) {
    rest = DecodeFrame({});
  }
  if (!rest) return;
  if (!rest->fault.empty()) rest->fault += "; ";
  rest->fault += reason;
  Show(connection, std::move(*rest), wall);
}

void Deliveries::Show(Connection& connection, Frame frame, WallTime wall) {
  connection.broughtFrame = true;
  Received received = Examine(std::move(frame), wall);
  if (received.message) {
    connection.message = received.message->arrival ? "arrival" : "removal";
    connection.path = received.message->path;
  }
  handlers_.onReceived(received);
}

void Deliveries::Tell(const Connection& connection, Mishap mishap, std::string reason,
                      WallTime wall) {
  handlers_.onIncident({wall, mishap, std::move(reason), connection.message, connection.path});
}

void Deliveries::Tick(WallTime wall, Clock::time_point now) {
  for (Connection& connection : connections_) {
    if (connection.toldSlow || now - connection.waitsSince < kPatience) continue;
    const std::string seconds = std::to_string(kPatience.count()) + " s";
    if (!connection.answered) {
      Tell(connection, Mishap::Waiting, "a connection has not been answered for " + seconds, wall);
    } else if (connection.broughtFrame && !connection.applicationDone) {
      Tell(connection, Mishap::Late, "the application has not closed the connection for " + seconds,
           wall);
    } else {
      continue;
    }
    connection.toldSlow = true;
  }
}

Deliveries::Connections::iterator Deliveries::Find(const Endpoint& peer) {
  return std::find_if(connections_.begin(), connections_.end(),
                      [&](const Connection& connection) { return connection.peer == peer; });
}

}  // namespace tools
