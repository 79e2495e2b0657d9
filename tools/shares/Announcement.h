#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tools {

// The datagram with which a unit announces or withdraws one share, all numbers little-endian:
//
//   offset        size  field
//   0             4     magic, 0x12345678
//   4             2     version, 1
//   6             2     message type: 1 announces, 2 withdraws
//   8             2     constant 1000
//   10            2     media type
//   12            2     read-only: 0 writable, anything else read-only
//   14, 16, 18    2     lengths of the three texts, each with its zero byte
//   20                  path, key, friendly name, each followed by a zero byte; nothing else
//
// At most 1,500 bytes. An empty datagram announces nothing; it shows a peer the sender's IP
// address.

inline constexpr const char* kAnnouncementGroup = "224.1.1.1";
inline constexpr std::uint16_t kAnnouncementPort = 10000;
inline constexpr std::size_t kAnnouncementHeaderBytes = 20;
inline constexpr std::size_t kMaxAnnouncementBytes = 1500;

inline constexpr std::uint16_t kTypeAnnounce = 1;
inline constexpr std::uint16_t kTypeWithdraw = 2;

/// One announcement. Texts are byte strings, as on the network.
struct Announcement {
  std::uint16_t type = kTypeAnnounce;
  std::uint16_t mediaType = 1;
  bool readOnly = false;
  std::string path{};
  std::string key{};
  std::string friendlyName{};

  bool operator==(const Announcement&) const = default;
};

/// The datagram of an announcement; nullopt if it would be too long.
/// Requires: no text contains a zero byte.
[[nodiscard]] std::optional<std::string> EncodeAnnouncement(const Announcement& announcement);

/// Parses a datagram, which is untrusted, strictly: every field must be as a unit writes it.
/// Otherwise returns nullopt and sets `fault` to an ASCII reason.
[[nodiscard]] std::optional<Announcement> DecodeAnnouncement(std::string_view datagram,
                                                             std::string& fault);

/// What a unit does with a datagram.
enum class UnitReaction {
  Ignores,
  Takes,  ///< as an announcement or a withdrawal
  Ends,   ///< aborts, or drops it if built with VOLDRAKE_IGNORE_UNKNOWN_ANNOUNCEMENTS
};

/// A unit is less strict: it requires only 21 bytes, the magic and one of the two types, and cuts
/// the texts off at their zero bytes.
[[nodiscard]] UnitReaction ReactionOfUnits(std::string_view datagram);

}  // namespace tools
