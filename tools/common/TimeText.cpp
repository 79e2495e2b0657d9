#include "tools/common/TimeText.h"

#include <cstdio>
#include <ctime>

namespace tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

std::string Format(const char* format, const std::tm& calendar, system_clock::time_point time) {
  char text[64];
  const std::size_t length = std::strftime(text, sizeof text, format, &calendar);
  const auto fraction = std::chrono::floor<milliseconds>(time) - std::chrono::floor<seconds>(time);
  std::snprintf(text + length, sizeof text - length, ".%03d", static_cast<int>(fraction.count()));
  return text;
}

std::time_t WholeSeconds(system_clock::time_point time) {
  return system_clock::to_time_t(std::chrono::floor<seconds>(time));
}

}  // namespace

std::string ClockText(system_clock::time_point time) {
  const std::time_t whole = WholeSeconds(time);
  std::tm calendar{};
  localtime_r(&whole, &calendar);
  return Format("%H:%M:%S", calendar, time);
}

std::string IsoText(system_clock::time_point time) {
  const std::time_t whole = WholeSeconds(time);
  std::tm calendar{};
  gmtime_r(&whole, &calendar);
  return Format("%Y-%m-%dT%H:%M:%S", calendar, time) + "Z";
}

}  // namespace tools
