#pragma once

#include <string>
#include <vector>

#include "hal/DeviceTree.h"
#include "hal/VolumeMounter.h"
#include "tools/GLibHandles.h"

// The methods of the service: one table, from which calls are dispatched and the introspection text
// is made.

namespace halsim {

/// What a call is answered with: values, a tuple, or an error.
struct CallResult {
  glib::VariantPointer values;
  std::string errorName;  // empty: no error
  std::string errorText;

  static CallResult Values(GVariant* tuple) { return {glib::Sink(tuple), "", ""}; }
  static CallResult Error(std::string name, std::string text) {
    return {nullptr, std::move(name), std::move(text)};
  }
};

struct CallContext {
  DeviceTree& tree;
  VolumeMounter& mounter;
  const Device* device;  // null on the manager
  GVariant* arguments;   // of the method's signature
};

struct Method {
  const char* interface;
  const char* member;
  const char* in;       // signature of the arguments
  const char* inNames;  // separated by blanks
  const char* out;      // signature of the values
  CallResult (*carryOut)(const CallContext& context);
};

const std::vector<Method>& Methods();

/// The interfaces of the object at this path: none for an object that is not there.
std::vector<std::string> InterfacesOf(const DeviceTree& tree, const std::string& path);

}  // namespace halsim
