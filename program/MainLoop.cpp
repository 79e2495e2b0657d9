#include "program/MainLoop.h"

#include <glib-unix.h>

#include <csignal>

namespace program {

namespace {

gboolean OnSignal(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

glib::EventSource QuitOn(int signal, GMainLoop* loop) {
  GSource* source = g_unix_signal_source_new(signal);
  g_source_set_callback(source, OnSignal, loop, nullptr);
  return glib::EventSource(source);
}

}  // namespace

MainLoop::MainLoop()
    : loop_(g_main_loop_new(nullptr, FALSE)),
      terminate_(QuitOn(SIGTERM, loop_.get())),
      interrupt_(QuitOn(SIGINT, loop_.get())) {}

}  // namespace program
