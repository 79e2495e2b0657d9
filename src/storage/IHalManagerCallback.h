#pragma once

/// Receiver of the hardware service's events. All calls come on the main thread, from within the
/// dispatch of a bus message; the texts are valid during the call only. The receiver may query the
/// service from within a call.
class IHalManagerCallback {
 public:
  virtual ~IHalManagerCallback() = default;

  /// A device object appeared; `udi` is its object path.
  virtual void HalManagerDeviceAddedCb(const char* udi) = 0;

  /// A device object went away.
  virtual void HalManagerDeviceRemovedCb(const char* udi) = 0;

  /// The property `key` of a device was added, changed or removed.
  virtual void HalManagerPropertyChangedCb(const char* udi, const char* key) = 0;
};
