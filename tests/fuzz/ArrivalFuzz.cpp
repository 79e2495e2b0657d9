// The signals and replies of the hardware service may be anything: a whole arrival out of them ends
// in names, a message and an announcement that can be used, or in nothing.

#include "FakeBus.h"
#include "frame/Log.h"
#include "messaging/DataSourceInfo.h"
#include "messaging/DataSourceMessage.h"
#include "sharing/NfsServiceMessage.h"
#include "storage/HalNames.h"
#include "storage/HalVolumeInfo.h"
#include "storage/IHalManagerCallback.h"
#include "storage/MountPointNameManager.h"
#include "storage/tHalManager.h"
#include "volumes/FriendlyName.h"
#include "volumes/MediaLinks.h"

namespace {

tHalManager& Manager() {
  return *tHalManager::getInstance();
}

/// What is made of a volume, without a trace outside the program.
void Arrive(const std::string& udi) {
  HalVolumeInfo info;
  info.VolumeId = udi;
  if (!Manager().GetVolumeInfo(info)) return;
  Require(info.BusType.empty() || info.BusType == "usb" || info.BusType == "mmc");
  Require(info.USBHub.find_first_of("/:.") == std::string::npos);
  std::string name;
  if (CMountPointNameManager().GetNextMountPointName(name, info.BlockDevice)) {
    (void)Manager().mountVolume(udi.c_str(), name, info.FileSystemType);
  }
  if (!info.IsMounted) return;
  Require(MediaLinkTarget(info.MountPoint).size() <= info.MountPoint.size());
  (void)MediaLinkName(info.BusType, info.MountPoint, info.MMCHost, 2);

  DataSourceInfo arrival{.arrival = true,
                         .memoryCard = !info.Cid.empty(),
                         .path = info.MountPoint,
                         .friendlyName = FriendlyName(info, std::nullopt),
                         .key = info.Cid};
  const std::string text = BuildDataSourceMessage(arrival);
  Require(text.starts_with("<message ") && text.ends_with("</message>"));

  NFS_DATA_T service;
  service.path = info.MountPoint;
  service.key = info.Cid;
  service.friendlyName = arrival.friendlyName;
  if (!CNfsServiceMessage::Fits(service)) return;
  CNfsServiceMessage sent;
  sent.Set(kServiceAnnounced, service);
  CNfsServiceMessage heard;
  Require(heard.Decode(sent.Datagram()));
  Require(heard.GetPath() == service.path);
}

class Receiver : public IHalManagerCallback {
 public:
  void HalManagerDeviceAddedCb(const char* udi) override { Arrive(udi); }
  void HalManagerDeviceRemovedCb(const char* udi) override { Require(udi != nullptr); }
  void HalManagerPropertyChangedCb(const char* udi, const char* key) override {
    bool ok = false;
    const bool value = Manager().propertyBool(udi, key, ok);
    if (ok && value) Arrive(udi);
  }
};

DBusMessage* NewSignal(Source& source) {
  constexpr const char* kVolume = "/org/freedesktop/Hal/devices/volume_uuid_A";
  switch (source.Choice(4)) {
    case 0:
      return dbus_message_new_signal(kHalManagerPath, kHalManagerInterface, "DeviceAdded");
    case 1:
      return dbus_message_new_signal(kHalManagerPath, kHalManagerInterface, "DeviceRemoved");
    default:
      return dbus_message_new_signal(kVolume, kHalDeviceInterface, "PropertyModified");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static Receiver receiver;
  SetLogLevel(0);
  Require(Manager().initHal());
  Manager().InstallCallback(&receiver);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Source source(data, size);
  SetReplies(&source);
  while (!source.Empty()) {
    DBusMessage* const signal = NewSignal(source);
    Require(signal != nullptr);
    Require(dbus_message_set_sender(signal, ":1.7"));
    if (source.Choice(8) == 0) Require(dbus_message_set_destination(signal, ":1.9"));
    AppendArguments(signal, source);
    tHalManager::dBusHandler(nullptr, signal, nullptr);
    dbus_message_unref(signal);
  }
  SetReplies(nullptr);
  return 0;
}
