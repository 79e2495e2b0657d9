#pragma once

#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "hal/BusLink.h"
#include "hal/CallFaults.h"
#include "hal/DeviceTree.h"
#include "hal/HalMethods.h"
#include "hal/Tape.h"
#include "hal/VolumeMounter.h"

namespace halsim {

/// The bus face of a device tree: serves its objects, sends its signals, and tells the tape of
/// both. It knows nothing of where the devices come from.
class HalService : public IDeviceTreeObserver {
 public:
  /// An empty address is the system bus.
  HalService(DeviceTree& tree, VolumeMounter& mounter, Tape& tape, const std::string& address);
  ~HalService() override;
  HalService(const HalService&) = delete;
  HalService& operator=(const HalService&) = delete;

  /// Each gives the reason of a failure.
  std::optional<std::string> Connect() { return bus_.Connect(); }
  /// Connects if necessary and takes the name. Nothing is announced.
  std::optional<std::string> Return();
  /// Closes the connection, with delayed calls answered first or not at all.
  void Leave(bool answerFirst);
  void GiveUpName() { bus_.GiveUpName(); }

  std::string UniqueName() const { return bus_.UniqueName(); }
  bool OwnsName() const { return bus_.OwnsName(); }

  /// Any signal; an empty destination is everybody. The caller sees to it that the names are valid.
  /// Gives the reason of a failure.
  std::optional<std::string> EmitRaw(const std::string& destination, const std::string& path,
                                     const std::string& interface, const std::string& member,
                                     glib::VariantPointer body);

  CallFaults& Faults() { return faults_; }

  // IDeviceTreeObserver
  void DeviceAdded(const std::string& udi) override;
  void DeviceRemoved(const std::string& udi) override;
  void PropertiesModified(const std::string& udi,
                          const std::vector<PropertyChange>& changes) override;

 private:
  struct DelayedCall {
    HalService* service;
    glib::ObjectPointer<GDBusMessage> call;
    guint timer;
  };

  void OnCall(GDBusMessage* call);
  void OnLoss();
  void ApplyFault(GDBusMessage* call, const Fault& fault);
  void Postpone(GDBusMessage* call, unsigned ms);
  static gboolean OnDelayOver(gpointer data);
  void DropDelayed();

  CallResult CarryOut(GDBusMessage* call);
  void Answer(GDBusMessage* call, const CallResult& result);
  void SayUnanswered(GDBusMessage* call);
  void EmitManager(const char* member, const std::string& udi);

  DeviceTree& tree_;
  VolumeMounter& mounter_;
  Tape& tape_;
  CallFaults faults_;
  std::list<DelayedCall> delayed_;
  BusLink bus_;
};

}  // namespace halsim
