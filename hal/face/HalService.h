#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hal/face/BusLink.h"
#include "hal/face/CallResult.h"
#include "hal/face/DeviceTree.h"
#include "hal/face/ICallObserver.h"
#include "hal/face/IVolumeActions.h"

namespace hal {

/// The bus side of a device tree: serves its objects and sends its signals, whatever the source of
/// the devices. Main thread only.
class HalService : public IDeviceTreeObserver {
 public:
  /// An empty address means the system bus. `onLoss` is called when the bus has closed the
  /// connection; the observer may be null. Owns none of them.
  HalService(DeviceTree& tree, IVolumeActions& actions, ICallObserver* observer,
             const std::string& address, std::function<void()> onLoss);
  ~HalService() override;
  HalService(const HalService&) = delete;
  HalService& operator=(const HalService&) = delete;

  /// Connects if necessary. Returns the reason for a failure. Blocks.
  std::optional<std::string> Connect();
  /// Connects if necessary and acquires the name. Announces nothing. Returns the reason for a
  /// failure. Blocks.
  std::optional<std::string> Return();
  /// Closes the connection; calls not answered by then get no answer.
  void Leave();
  void GiveUpName() { bus_.GiveUpName(); }
  /// Returns once all signals and answers so far have reached the bus; false if they have not,
  /// because the connection is broken. Blocks.
  [[nodiscard]] bool Flush() { return bus_.Flush(); }

  std::string UniqueName() const { return bus_.UniqueName(); }
  bool OwnsName() const { return bus_.OwnsName(); }

  /// See BusLink::AskUser.
  void AskUser(const std::string& client, BusLink::UserHandler handler) {
    bus_.AskUser(client, std::move(handler));
  }

  /// Executes and answers a call that the observer took over.
  void Serve(GDBusMessage* call);
  /// Answers a call that the observer took over.
  void Answer(GDBusMessage* call, const CallResult& result);

  /// Sends any signal, to everybody if the destination is empty. Returns the reason for a failure.
  /// Requires: valid names.
  std::optional<std::string> EmitRaw(const std::string& destination, const std::string& path,
                                     const std::string& interface, const std::string& member,
                                     glib::VariantPointer body);

  // IDeviceTreeObserver
  void DeviceAdded(const std::string& udi) override;
  void DeviceRemoved(const std::string& udi) override;
  void PropertiesModified(const std::string& udi,
                          const std::vector<PropertyChange>& changes) override;

 private:
  struct Session {};

  void OnCall(GDBusMessage* call);
  void OnLoss();
  std::optional<CallResult> CarryOut(GDBusMessage* call);
  void EmitManager(const char* member, const std::string& udi);

  DeviceTree& tree_;
  IVolumeActions& actions_;
  ICallObserver* const observer_;
  const std::function<void()> onLoss_;
  // One for each connection: an answer that comes after its connection has nowhere to go.
  std::shared_ptr<Session> session_;
  BusLink bus_;
};

}  // namespace hal
