// Takes the place of WatchBeside.cpp in a build without libpcap.

#include "program/Output.h"
#include "tools/monitor/WatchBeside.h"

namespace tools {

bool WatchBeside(std::uint16_t, Deliveries::Handlers, program::MainLoop&) {
  program::Complain("--beside is not available: built without libpcap");
  return false;
}

}  // namespace tools
