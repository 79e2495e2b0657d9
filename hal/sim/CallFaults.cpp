#include "hal/sim/CallFaults.h"

#include <algorithm>

namespace halsim {

void CallFaults::Add(const std::string& call, Fault fault) {
  const std::size_t colon = call.find(':');
  std::optional<std::string> argument;
  if (colon != std::string::npos) argument = call.substr(colon + 1);
  waiting_.push_back({call.substr(0, colon), std::move(argument), std::move(fault)});
}

std::optional<Fault> CallFaults::Take(const std::string& method,
                                      const std::optional<std::string>& argument) {
  const auto found = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& candidate) {
    return candidate.method == method && (!candidate.argument || candidate.argument == argument);
  });
  if (found == waiting_.end()) return std::nullopt;
  Fault fault = std::move(found->fault);
  waiting_.erase(found);
  return fault;
}

}  // namespace halsim
