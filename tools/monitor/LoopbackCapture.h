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

/// Captures the TCP segments from and to one port of 127.0.0.1, as they pass the loopback
/// interface. Lives on the default main context.
class LoopbackCapture {
 public:
  /// Gets the segment and when the kernel saw it.
  using SegmentHandler = std::function<void(const Segment&, std::chrono::system_clock::time_point)>;

  /// How much later than it passed a segment may be handed on.
  static constexpr std::chrono::milliseconds kDelay{50};

  explicit LoopbackCapture(SegmentHandler onSegment);
  LoopbackCapture(const LoopbackCapture&) = delete;
  LoopbackCapture& operator=(const LoopbackCapture&) = delete;
  ~LoopbackCapture();

  /// Starts to capture; what passes after the return is seen. False, with `error` set, when that
  /// cannot be done, such as without the capability CAP_NET_RAW.
  [[nodiscard]] bool Open(std::uint16_t port, std::string& error);

  /// Hands on what passed up to `kDelay` ago, and maybe more. False when there is more than can be
  /// taken at once.
  [[nodiscard]] bool Drain();

  /// How many packets the kernel had no room for since the last call.
  [[nodiscard]] unsigned TakeMissed();

 private:
  static gboolean OnReadable(int descriptor, GIOCondition, gpointer self);

  /// Takes one batch of packets; false when there was none.
  bool TakeBatch();

  SegmentHandler onSegment_;
  std::unique_ptr<pcap, void (*)(pcap*)> capture_;
  unsigned missed_ = 0;
  glib::EventSource readable_;
};

}  // namespace tools
