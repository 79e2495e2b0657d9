#pragma once

#include <functional>

#include "glib/Handles.h"
#include "tools/monitor/Frame.h"

namespace tools {

/// One accepted connection: reads frames until the peer closes it, stays silent for too long, or
/// sends something that cannot be a frame. Runs on the main context and holds at most one frame.
class Connection {
 public:
  using FrameHandler = std::function<void(Frame)>;
  using EndHandler = std::function<void(Connection*)>;

  /// `onFrame` receives every frame, including faulty ones and an empty one (no byte was sent).
  /// `onEnd` is called exactly once, last of all; it may destroy the connection.
  Connection(GSocketConnection* connection, FrameHandler onFrame, EndHandler onEnd);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

 private:
  static gboolean OnReadable(GSocket*, GIOCondition, gpointer self);
  static gboolean OnTimeout(gpointer self);

  void Read();
  void StartTimer();
  void End(const char* reason);

  glib::ObjectPointer<GSocketConnection> connection_;
  FrameHandler onFrame_;
  EndHandler onEnd_;
  FrameReader reader_;
  bool deliveredFrame_ = false;
  glib::EventSource readable_;
  glib::EventSource timer_;
};

}  // namespace tools
