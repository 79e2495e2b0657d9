#pragma once

#include <list>
#include <optional>
#include <string>
#include <variant>

#include "glib/Handles.h"

namespace halsim {

// What may happen to a call instead of being served at once.
struct Delay {
  unsigned ms;
};
struct Refusal {
  std::string errorName;
  std::string text;
};
struct OddAnswer {
  glib::VariantPointer values;  // a tuple
};
struct Silent {};

using Fault = std::variant<Delay, Refusal, OddAnswer, Silent>;

/// Faults that wait for their call; each applies to one call.
class CallFaults {
 public:
  /// `call` is METHOD or METHOD:ARG.
  void Add(const std::string& call, Fault fault);
  /// Removes and returns the oldest fault for this call; `argument` is the call's first argument if
  /// that is a string.
  std::optional<Fault> Take(const std::string& method, const std::optional<std::string>& argument);
  void Clear() { waiting_.clear(); }

 private:
  struct Waiting {
    std::string method;
    std::optional<std::string> argument;  // nullopt: any
    Fault fault;
  };
  std::list<Waiting> waiting_;
};

}  // namespace halsim
