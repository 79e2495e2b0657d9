#include "support/VoldrakeWorld.h"

#include "frame/Log.h"
#include "frame/Text.h"
#include "frame/TreeRemoval.h"
#include "messaging/DataSourceInfo.h"
#include "messaging/tMessageClient.h"
#include "sharing/ServiceBrowser.h"
#include "sharing/ServicePublisher.h"
#include "sharing/UdpTxSocket.h"
#include "storage/tHalManager.h"
#include "volumes/MediaLinks.h"

namespace {

void Note(const std::string& deed) {
  Log("> " + Printable(deed), kLogInfo);
}

std::string InBrackets(const std::string& text) {
  return " [" + text + "]";
}

}  // namespace

tVoldrakeWorld& World() {
  static tVoldrakeWorld world;
  return world;
}

// ---- Threads, of which none runs

void tThread::Start() {
  m_Running = true;
}

void tThread::Stop() {
  m_Running = false;
}

void tThread::WaitForWake(std::chrono::milliseconds) {}

bool tThread::StopRequested() {
  return !m_Running;
}

// ---- The hardware service's client

tHalManager* tHalManager::getInstance() {
  static tHalManager instance;
  return &instance;
}

bool tHalManager::isVolumeUdi(const std::string& udi) const {
  return udi.starts_with("/volume");
}

bool tHalManager::GetVolumeInfo(HalVolumeInfo& info) {
  Note("describe " + info.VolumeId);
  auto& answers = World().volumes[info.VolumeId];
  if (answers.empty() || !answers.front()) return false;
  info = *answers.front();
  if (answers.size() > 1) answers.pop_front();
  return true;
}

bool tHalManager::propertyBool(const char* udi, const char* key, bool& ok) {
  Note(std::string("query ") + udi + " " + key);
  const auto flag = World().flags.find({udi, key});
  ok = flag != World().flags.end();
  return ok && flag->second;
}

std::vector<std::string> tHalManager::findDeviceByCapability(const char* capability) {
  Note(std::string("find ") + capability);
  return World().found;
}

bool tHalManager::mountVolume(const char* udi, const std::string& mountPoint,
                              const std::string& fsType) {
  Note(std::string("mount ") + udi + InBrackets(mountPoint) + " " + fsType);
  return !World().refusesMounts;
}

// ---- The application

void tMessageClient::PublishDataSource(DataSourceInfo& info) {
  if (!info.arrival) return Note("tell removal " + info.path);
  Note("tell arrival " + info.path + (info.readOnly ? " ro" : " rw") +
       InBrackets(info.friendlyName) + InBrackets(info.key) + InBrackets(info.contentId) +
       InBrackets(info.serialNumber));
}

void tMessageClient::ClearPending() {
  Note("forget messages");
}

size_t tMessageClient::PendingCount() {
  return 0;  // asked for shares of other units only
}

void tMessageClient::StopAfterDelivery() {
  Stop();
  Note("deliver and stop messages");
}

void tMessageClient::run() {}

// ---- Other units

CServicePublisher::CServicePublisher(tExportTable& exports, tCommandRunner run)
    : m_Exports(exports), m_Run(std::move(run)) {}

CServicePublisher::~CServicePublisher() = default;

bool CServicePublisher::AddServiceNFS(const std::string& path, MEDIA_TYPE_T mediaType,
                                      const std::string& key, const std::string& contentId,
                                      const std::string& serialNumber,
                                      const std::string& friendlyName, bool readOnly) {
  Note(std::string("share ") + (mediaType == MEDIA_TYPE_T::kVolume ? "volume " : "disk ") + path +
       (readOnly ? " ro" : " rw") + InBrackets(friendlyName) + InBrackets(key) +
       InBrackets(contentId) + InBrackets(serialNumber));
  return true;
}

void CServicePublisher::RemoveServiceNFS(const std::string& path) {
  Note("unshare " + path);
}

void CServicePublisher::SetPeerIpAddress(const std::string& address) {
  Note("peer " + address);
}

void CServicePublisher::StartPublishing() {
  Note("publish");
}

void CServicePublisher::StopAndWait() {
  Stop();
  Note("stop publishing and wait");
}

void CServicePublisher::run() {}

bool CServicePublisher::_ReadAddress(in_addr_t&) {
  return false;
}

void CServicePublisher::_Send(std::span<const uint8_t>) {}

CServiceBrowser::CServiceBrowser(IServiceBrowserCallback* pCallback, std::string peerMac)
    : m_pCallback(pCallback), m_PeerMac(std::move(peerMac)), m_ServiceList(*this, m_pCallback) {
  Note("listen to other units" + InBrackets(m_PeerMac));
}

CServiceBrowser::~CServiceBrowser() {
  Note("forget other units");
}

void CServiceBrowser::StopBrowsing() {
  Stop();
  Note("stop listening");
}

void CServiceBrowser::run() {}

void CServiceBrowser::tWatchingList::_Ticked() {}

// ---- "/media"

void CreateMediaLink(HalVolumeInfo& info, int mmcHostIndex) {
  Note("link " + info.MountPoint + " " + std::to_string(mmcHostIndex));
  if (!World().refusesLinks) info.LinkPath = "link to " + info.MountPoint;
}

void RemoveMediaLink(const HalVolumeInfo& info) {
  Note("unlink" + InBrackets(info.LinkPath));
}

bool IsLeftover(const std::string& name) {
  return World().leftovers.contains(name);
}

void RemoveDanglingLinks(const std::string& directory) {
  Note("clear links in " + directory);
}

int RemoveTree(const std::string& path) {
  Note("delete " + path);
  return World().leftoversStay ? -1 : 0;
}
