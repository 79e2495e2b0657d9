#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "sharing/NfsData.h"

// The datagram by which a unit announces one shared volume, or withdraws it. Multi-byte fields are
// little-endian, texts are 8-bit and each ends with a zero byte:
//
//   offset      size  field
//   0           4     magic, 0x12345678
//   4           2     version, 1; not checked on receipt
//   6           2     message type: 1 announces, 2 withdraws
//   8           2     1000; not checked on receipt
//   10          2     media type
//   12          2     0 writable, anything else read-only
//   14          2     L1, length of the path with its zero byte
//   16          2     L2, length of the key with its zero byte
//   18          2     L3, length of the friendly name with its zero byte
//   20          L1    path
//   20+L1       L2    key
//   20+L1+L2    L3    friendly name
//
// A receiver refuses fewer than 21 bytes and another magic, and nothing else: a text that would
// start beyond what was received is empty, one without a zero byte ends with the datagram.

inline constexpr uint16_t kServiceAnnounced = 1;
inline constexpr uint16_t kServiceWithdrawn = 2;

/// Builds and reads the datagram. Used by one thread.
class CNfsServiceMessage {
 public:
  static constexpr size_t kMaxBytes = 1500;

  /// True when the service's texts fit into one datagram.
  [[nodiscard]] static bool Fits(const NFS_DATA_T& service);

  /// Builds the datagram of a service. Requires: Fits(service).
  void Set(uint16_t messageType, const NFS_DATA_T& service);

  /// The datagram that was built; valid until the next call of `Set`.
  [[nodiscard]] std::span<const uint8_t> Datagram() const { return {m_Buffer.data(), m_Length}; }

  /// Reads a received datagram (untrusted). False when it is refused.
  [[nodiscard]] bool Decode(std::span<const uint8_t> received);

  // What was decoded. Requires: the last `Decode` succeeded.
  [[nodiscard]] uint16_t GetMessageType() const;
  [[nodiscard]] const std::string& GetPath() const;
  /// The decoded record, which stays this object's own; the caller may complete it.
  [[nodiscard]] NFS_DATA_T* GetNfsServiceDataPtr();

 private:
  std::array<uint8_t, kMaxBytes> m_Buffer{};
  size_t m_Length = 0;
  bool m_MessageDecoded = false;
  uint16_t m_MessageType = 0;
  NFS_DATA_T m_Service;
};
