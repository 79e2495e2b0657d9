#include "sharing/ServiceList.h"

#include "frame/Assert.h"
#include "frame/Log.h"
#include "sharing/IServiceBrowserCallback.h"

namespace {

constexpr int32_t kLifeMs = 3000;
constexpr int32_t kTickMs = 100;

}  // namespace

CServiceList::CServiceList(IServiceBrowserCallback* pCallback) : m_pCallback(pCallback) {
  // clang-format off
  VOLDRAKE_ASSERT(m_pCallback !=0);
  // clang-format on
}

CServiceList::~CServiceList() = default;

bool CServiceList::Add(const NFS_DATA_T& service) {
  const tMutexLock lock(m_Mutex);
  const auto known = m_Services.find(service.path);
  if (known != m_Services.end()) {
    known->second.remainingLifeMs = kLifeMs;
    return false;
  }
  if (m_Services.size() >= kMaxServices) {
    if (!m_FullReported) Log("CServiceList: full, further shares are refused", kLogWarning);
    m_FullReported = true;
    return false;
  }
  m_FullReported = false;
  NFS_DATA_T copy = service;
  copy.remainingLifeMs = kLifeMs;
  if (!m_pCallback->OnServiceAdded(copy)) return false;
  m_Services[service.path] = std::move(copy);
  return true;
}

bool CServiceList::Remove(const std::string& path) {
  const tMutexLock lock(m_Mutex);
  const auto service = m_Services.find(path);
  if (service == m_Services.end()) return false;
  m_pCallback->OnServiceRemoved(service->second);
  m_Services.erase(service);
  return true;
}

void CServiceList::Republish() {
  const tMutexLock lock(m_Mutex);
  for (const auto& [path, service] : m_Services) m_pCallback->OnServiceAdded(service);
}

void CServiceList::run() {
  while (!StopRequested()) {
    _CountDown();
    _Ticked();
    WaitForWake(std::chrono::milliseconds(kTickMs));
  }
  _RemoveAll();
}

void CServiceList::_CountDown() {
  const tMutexLock lock(m_Mutex);
  for (auto next = m_Services.begin(); next != m_Services.end();) {
    const auto service = next++;
    service->second.remainingLifeMs -= kTickMs;
    if (service->second.remainingLifeMs > 0) continue;
    m_pCallback->OnServiceRemoved(service->second);
    m_Services.erase(service);
  }
}

void CServiceList::_RemoveAll() {
  const tMutexLock lock(m_Mutex);
  for (const auto& [path, service] : m_Services) m_pCallback->OnServiceRemoved(service);
  m_Services.clear();
}
