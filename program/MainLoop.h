#pragma once

#include "glib/Handles.h"

namespace program {

/// The main loop of a program that ends in an orderly way on SIGTERM and SIGINT. One per process.
class MainLoop {
 public:
  MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// Runs until a signal or `Quit` ends it.
  void Run() { g_main_loop_run(loop_.get()); }
  void Quit() { g_main_loop_quit(loop_.get()); }

 private:
  const glib::MainLoopPointer loop_;
  glib::EventSource terminate_;
  glib::EventSource interrupt_;
};

}  // namespace program
