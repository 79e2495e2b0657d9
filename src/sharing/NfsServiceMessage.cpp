#include "sharing/NfsServiceMessage.h"

#include <algorithm>

#include "frame/Assert.h"

namespace {

constexpr size_t kHeaderBytes = 20;
constexpr uint32_t kMagic = 0x12345678;
constexpr uint16_t kVersion = 1;
constexpr uint16_t kConstantAt8 = 1000;

void Put16(uint8_t* at, size_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

uint16_t Get16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] | (at[1] << 8));
}

uint32_t Get32(const uint8_t* at) {
  return Get16(at) | (static_cast<uint32_t>(Get16(at + 2)) << 16);
}

/// Copies a text and its zero byte; gives the place after it.
uint8_t* PutText(uint8_t* at, const std::string& text) {
  at = std::copy(text.begin(), text.end(), at);
  *at = 0;
  return at + 1;
}

void GetText(std::span<const uint8_t> received, size_t offset, std::string& text) {
  const auto rest = received.subspan(std::min(offset, received.size()));
  text.assign(rest.begin(), std::find(rest.begin(), rest.end(), 0));
}

size_t DatagramBytes(const NFS_DATA_T& service) {
  return kHeaderBytes + service.path.size() + 1 + service.key.size() + 1 +
         service.friendlyName.size() + 1;
}

}  // namespace

bool CNfsServiceMessage::Fits(const NFS_DATA_T& service) {
  return DatagramBytes(service) <= kMaxBytes;
}

void CNfsServiceMessage::Set(uint16_t messageType, const NFS_DATA_T& service) {
  VOLDRAKE_ASSERT(Fits(service));
  uint8_t* const header = m_Buffer.data();
  Put16(header, kMagic & 0xFFFF);
  Put16(header + 2, kMagic >> 16);
  Put16(header + 4, kVersion);
  Put16(header + 6, messageType);
  Put16(header + 8, kConstantAt8);
  Put16(header + 10, static_cast<size_t>(service.mediaType));
  Put16(header + 12, service.readOnly ? 1 : 0);
  Put16(header + 14, service.path.size() + 1);
  Put16(header + 16, service.key.size() + 1);
  Put16(header + 18, service.friendlyName.size() + 1);
  uint8_t* at = PutText(header + kHeaderBytes, service.path);
  at = PutText(at, service.key);
  PutText(at, service.friendlyName);
  m_Length = DatagramBytes(service);
}

bool CNfsServiceMessage::Decode(std::span<const uint8_t> received) {
  m_MessageDecoded = false;
  if (received.size() <= kHeaderBytes) return false;
  const uint8_t* const header = received.data();
  if (Get32(header) != kMagic) return false;
  m_MessageType = Get16(header + 6);
  m_Service.mediaType = static_cast<MEDIA_TYPE_T>(Get16(header + 10));
  m_Service.readOnly = Get16(header + 12) != 0;
  const size_t keyOffset = kHeaderBytes + Get16(header + 14);
  const size_t nameOffset = keyOffset + Get16(header + 16);
  GetText(received, kHeaderBytes, m_Service.path);
  GetText(received, keyOffset, m_Service.key);
  GetText(received, nameOffset, m_Service.friendlyName);
  m_MessageDecoded = true;
  return true;
}

uint16_t CNfsServiceMessage::GetMessageType() const {
  VOLDRAKE_ASSERT(m_MessageDecoded == true);
  return m_MessageType;
}

const std::string& CNfsServiceMessage::GetPath() const {
  VOLDRAKE_ASSERT(m_MessageDecoded == true);
  return m_Service.path;
}

NFS_DATA_T* CNfsServiceMessage::GetNfsServiceDataPtr() {
  VOLDRAKE_ASSERT(m_MessageDecoded == true);
  return &m_Service;
}
