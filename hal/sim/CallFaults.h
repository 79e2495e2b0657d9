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

/// Faults that wait for their call, each for one.
class CallFaults {
 public:
  /// `call` is METHOD or METHOD:ARG.
  void Add(const std::string& call, Fault fault);
  /// Takes out the oldest fault for this call; `argument` is its first argument if that is a
  /// string.
  std::optional<Fault> Take(const std::string& method, const std::optional<std::string>& argument);
  void Clear() { waiting_.clear(); }

 private:
  struct Waiting {
    std::string method;
    std::optional<std::string> argument;  // nothing: any
    Fault fault;
  };
  std::list<Waiting> waiting_;
};

}  // namespace halsim
