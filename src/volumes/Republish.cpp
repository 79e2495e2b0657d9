// What tVoldrake does on SIGUSR1 and SIGUSR2.

#include <csignal>

#include "frame/Log.h"
#include "frame/Text.h"
#include "messaging/tMessageClient.h"
#include "sharing/ServiceBrowser.h"
#include "volumes/FriendlyName.h"
#include "volumes/RemoteVolumes.h"
#include "volumes/tVoldrake.h"

bool tVoldrake::SignalAction(int signalNumber) {
  switch (signalNumber) {
    case SIGUSR1:
      Log("SIGUSR1: Republishing all mounted FS to VessaApp", kLogInfo);
      Republish();
      return true;
    case SIGUSR2:
      Log("SIGUSR2: Simulating removing/inserting SD card", kLogInfo);
      _UnmountAll();
      _ManualScan();
      return true;
    default:
      return false;
  }
}

void tVoldrake::Republish() {
  m_pMessageClient->ClearPending();
  if (m_pServiceBrowser) m_pRemoteVolumes->Republish(m_pServiceBrowser->ServiceList());
  for (HalVolumeInfo& volume : m_Volumes) {
    const std::string name = FriendlyName(volume, _FindUsbMapEntry(volume));
    if (_IsInExclusionList(volume)) continue;
    _PublishArrival(volume, name);
    Log("Republish: \"" + name + "\" --> " +
            Printable(volume.BlockDevice + ":" + volume.MountPoint),
        kLogInfo);
  }
}
