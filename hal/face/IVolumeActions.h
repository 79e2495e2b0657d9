#pragma once

#include <functional>
#include <optional>
#include <string>

#include "hal/face/MountRequest.h"
#include "hal/face/VolumeError.h"

namespace hal {

/// What carries out Mount, Unmount and Eject. It may answer at once or later; other calls are
/// served meanwhile.
class IVolumeActions {
 public:
  /// To be called exactly once, on the main thread; nullopt means success. Does nothing if the
  /// service or its connection to the bus is gone by then.
  using Done = std::function<void(const std::optional<VolumeError>&)>;

  virtual ~IVolumeActions() = default;
  /// Requires: a volume that is in the tree, and a request made for it by CheckMount.
  virtual void Mount(const std::string& udi, const MountRequest& request, Done done) = 0;
  /// `lazy` detaches a volume that is in use.
  virtual void Unmount(const std::string& udi, bool lazy, Done done) = 0;
  /// Unmounts all volumes of the volume's disk and releases the medium.
  virtual void Eject(const std::string& udi, Done done) = 0;
};

}  // namespace hal
