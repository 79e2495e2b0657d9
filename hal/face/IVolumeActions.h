#pragma once

#include <functional>
#include <optional>
#include <string>

#include "hal/face/MountRequest.h"
#include "hal/face/VolumeError.h"

namespace hal {

/// Behind Mount, Unmount and Eject: whoever can really do it. A source may answer at once or later;
/// other calls are served meanwhile.
class IVolumeActions {
 public:
  /// Called exactly once, on the main thread; nullopt is success. It outlives neither the service
  /// nor its connection: called after either, it does nothing.
  using Done = std::function<void(const std::optional<VolumeError>&)>;

  virtual ~IVolumeActions() = default;
  /// Requires: a volume that is in the tree now, and a request that CheckMount made for it.
  virtual void Mount(const std::string& udi, const MountRequest& request, Done done) = 0;
  /// `lazy` detaches a volume that is in use.
  virtual void Unmount(const std::string& udi, bool lazy, Done done) = 0;
  /// Unmounts all volumes of the volume's disk and lets go of the medium.
  virtual void Eject(const std::string& udi, Done done) = 0;
};

}  // namespace hal
