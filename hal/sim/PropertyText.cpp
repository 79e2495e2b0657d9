#include "hal/sim/PropertyText.h"

#include <charconv>

#include "hal/face/Text.h"
#include "hal/sim/CommandError.h"
#include "hal/sim/Quoting.h"

namespace halsim {
namespace {

struct Formatter {
  std::string operator()(const std::string& value) const {
    return "string:" + QuoteIfNeeded(value);
  }
  std::string operator()(std::int32_t value) const { return "int:" + std::to_string(value); }
  std::string operator()(std::uint64_t value) const { return "uint64:" + std::to_string(value); }
  std::string operator()(double value) const {
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return "double:" + std::string(text, result.ptr);
  }
  std::string operator()(bool value) const { return value ? "bool:true" : "bool:false"; }
  std::string operator()(const std::vector<std::string>& value) const {
    return "strlist:" + QuoteIfNeeded(hal::Join(value, ","));
  }
};

template <typename T>
hal::PropertyValue NumberOrThrow(std::string_view value, std::string_view type) {
  const std::optional<T> number = hal::ParseNumber<T>(value);
  if (!number) throw CommandError(Quote(value) + " is not of type " + std::string(type));
  return *number;
}

hal::PropertyValue DoubleOrThrow(std::string_view value) {
  double number = 0;
  const char* end = value.data() + value.size();
  const auto result = std::from_chars(value.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) {
    throw CommandError(Quote(value) + " is not of type double");
  }
  return number;
}

}  // namespace

hal::PropertyValue ParsePropertyValue(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) throw CommandError(Quote(text) + " is not TYPE:VALUE");
  const std::string_view type = text.substr(0, colon);
  const std::string_view value = text.substr(colon + 1);
  if (type == "string") return std::string(value);
  if (type == "int") return NumberOrThrow<std::int32_t>(value, type);
  if (type == "uint64") return NumberOrThrow<std::uint64_t>(value, type);
  if (type == "double") return DoubleOrThrow(value);
  if (type == "strlist") return hal::Split(value, ',');
  if (type != "bool") throw CommandError("unknown type " + Quote(type));
  if (value != "true" && value != "false") throw CommandError(Quote(value) + " is not a bool");
  return value == "true";
}

std::string FormatPropertyValue(const hal::PropertyValue& value) {
  return std::visit(Formatter{}, value);
}

}  // namespace halsim
