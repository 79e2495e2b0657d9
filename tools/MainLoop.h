#pragma once

#include "tools/GLibHandles.h"

namespace tools {

/// The main loop of a program that SIGTERM and SIGINT end in an orderly way. One in a process.
class MainLoop {
 public:
  MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;
  ~MainLoop();

  /// Runs until a signal or `Quit` ends it.
  void Run() { g_main_loop_run(loop_); }
  void Quit() { g_main_loop_quit(loop_); }

 private:
  GMainLoop* loop_;
  EventSource terminate_;
  EventSource interrupt_;
};

}  // namespace tools
