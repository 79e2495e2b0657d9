#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "hal/face/CallResult.h"
#include "hal/face/DeviceTree.h"
#include "hal/face/IVolumeActions.h"

// The methods of the service: the table by which calls are dispatched. HalInterfaces describes
// their arguments and results.

namespace hal {

struct CallContext {
  DeviceTree& tree;
  IVolumeActions& actions;
  const Device* device;  // null on the manager
  GVariant* arguments;   // of the method's signature; null: none
  /// Answers a call whose method returned nullopt; may be kept and called later, once.
  std::function<void(const CallResult&)> answer;
};

struct Method {
  const char* interface;
  const char* member;
  /// nullopt: the answer comes through CallContext::answer, now or later.
  std::optional<CallResult> (*carryOut)(const CallContext& context);
};

/// The method of this interface, or of any interface in the list if `interface` is empty. Null if
/// there is none.
const Method* FindMethod(const std::vector<std::string>& interfaces, const std::string& interface,
                         const std::string& member);

/// The interfaces of the object at this path; empty if there is no such object.
std::vector<std::string> InterfacesOf(const DeviceTree& tree, const std::string& path);

}  // namespace hal
