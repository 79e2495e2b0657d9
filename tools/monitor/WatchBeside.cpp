#include "tools/monitor/WatchBeside.h"

#include <string>
#include <utility>

#include "program/Output.h"
#include "tools/monitor/LoopbackCapture.h"

namespace tools {

namespace {

constexpr std::uint32_t kLoopbackAddress = 0x7F000001;
constexpr guint kTickMs = 200;

struct Watch {
  LoopbackCapture& capture;
  Deliveries& deliveries;
};

gboolean OnTick(gpointer data) {
  const auto* watch = static_cast<Watch*>(data);
  // What is too late by then is known once everything until then was taken.
  const auto wall = Deliveries::WallTime::clock::now();
  const auto now = Deliveries::Clock::now() - 2 * LoopbackCapture::kDelay;
  if (watch->capture.Drain()) watch->deliveries.Tick(wall, now);
  if (const unsigned missed = watch->capture.TakeMissed(); missed != 0) {
    program::Complain(std::to_string(missed) + " packets were missed");
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace

bool WatchBeside(std::uint16_t port, Deliveries::Handlers handlers, program::MainLoop& loop) {
  Deliveries deliveries({kLoopbackAddress, port}, std::move(handlers));
  LoopbackCapture capture([&](const Segment& segment, Deliveries::WallTime time) {
    deliveries.Hear(segment, time, Deliveries::Clock::now());
  });
  if (std::string error; !capture.Open(port, error)) {
    program::Complain(error);
    return false;
  }
  Watch watch{capture, deliveries};
  GSource* source = g_timeout_source_new(kTickMs);
  g_source_set_callback(source, OnTick, &watch, nullptr);
  const glib::EventSource tick(source);
  program::Complain("watching 127.0.0.1:" + std::to_string(port));
  loop.Run();
  return true;
}

}  // namespace tools
