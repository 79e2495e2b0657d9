#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "glib/Handles.h"
#include "tools/monitor/Segment.h"

struct pcap;

namespace tools {

/// Captures the TCP segments from and to one port of 127.0.0.1 on the loopback interface. Runs on
/// the default main context.
class LoopbackCapture {
 public:
  /// Receives the segment and the time at which the kernel saw it.
  using SegmentHandler = std::function<void(const Segment&, std::chrono::system_clock::time_point)>;

  /// The longest delay between a segment and the call of the handler.
  static constexpr std::chrono::milliseconds kDelay{50};

  explicit LoopbackCapture(SegmentHandler onSegment);
  LoopbackCapture(const LoopbackCapture&) = delete;
  LoopbackCapture& operator=(const LoopbackCapture&) = delete;
  ~LoopbackCapture();

  /// Starts capturing; every segment after the return is seen. Returns false and sets `error` on
  /// failure, for instance without the capability CAP_NET_RAW.
  [[nodiscard]] bool Open(std::uint16_t port, std::string& error);

  /// Passes on every segment older than `kDelay`, and possibly newer ones. Returns false if there
  /// are more than can be processed at once.
  [[nodiscard]] bool Drain();

  /// How many packets the kernel has dropped since the last call, for want of room.
  [[nodiscard]] unsigned TakeMissed();

 private:
  static gboolean OnReadable(int descriptor, GIOCondition, gpointer self);

  /// Processes one batch of packets; returns false if there was none.
  bool TakeBatch();

  SegmentHandler onSegment_;
  std::unique_ptr<pcap, void (*)(pcap*)> capture_;
  unsigned missed_ = 0;
  glib::EventSource readable_;
};

}  // namespace tools
