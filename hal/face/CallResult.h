#pragma once

#include <string>
#include <utility>

#include "glib/Handles.h"

namespace hal {

/// The answer to a call: values, as a tuple, or an error.
struct CallResult {
  glib::VariantPointer values;
  std::string errorName;  // empty: no error
  std::string errorText;

  static CallResult Values(GVariant* tuple) { return {glib::Sink(tuple), "", ""}; }
  static CallResult Error(std::string name, std::string text) {
    return {nullptr, std::move(name), std::move(text)};
  }
};

/// An outgoing signal. Everything is valid only during the call that passes it on.
struct Signal {
  const std::string& destination;  // empty: everybody
  const std::string& path;
  const std::string& interface;
  const std::string& member;
  GVariant* body;  // a tuple; null: no arguments
};

}  // namespace hal
