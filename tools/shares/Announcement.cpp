#include "tools/shares/Announcement.h"

#include <array>
#include <cstdio>

namespace tools {

namespace {

constexpr std::uint32_t kMagic = 0x12345678;
constexpr std::uint16_t kVersion = 1;
constexpr std::uint16_t kConstant = 1000;

void Put(std::string& datagram, std::size_t value, int bytes) {
  for (int index = 0; index < bytes; ++index) {
    datagram += static_cast<char>((value >> (8 * index)) & 0xFF);
  }
}

std::uint32_t Number(std::string_view datagram, std::size_t offset, std::size_t bytes) {
  std::uint32_t value = 0;
  for (std::size_t index = bytes; index > 0; --index) {
    value = (value << 8) | static_cast<unsigned char>(datagram[offset + index - 1]);
  }
  return value;
}

std::uint16_t Field(std::string_view datagram, std::size_t offset) {
  return static_cast<std::uint16_t>(Number(datagram, offset, 2));
}

std::string Digits(std::uint32_t value) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%08x", value);
  return digits;
}

bool IsKnown(std::uint16_t type) {
  return type == kTypeAnnounce || type == kTypeWithdraw;
}

std::string HeaderFault(std::string_view datagram) {
  if (datagram.size() < kAnnouncementHeaderBytes) {
    return "the datagram has " + std::to_string(datagram.size()) + " bytes, its header alone has " +
           std::to_string(kAnnouncementHeaderBytes);
  }
  if (const auto magic = Number(datagram, 0, 4); magic != kMagic) {
    return "the magic is " + Digits(magic) + " instead of " + Digits(kMagic);
  }
  if (const auto version = Field(datagram, 4); version != kVersion) {
    return "the version is " + std::to_string(version) + " instead of 1";
  }
  if (const auto type = Field(datagram, 6); !IsKnown(type)) {
    return "the message type is " + std::to_string(type) + ", neither 1 nor 2";
  }
  if (const auto constant = Field(datagram, 8); constant != kConstant) {
    return "the field at offset 8 is " + std::to_string(constant) + " instead of 1000";
  }
  if (datagram.size() > kMaxAnnouncementBytes) {
    return "the datagram has " + std::to_string(datagram.size()) + " bytes, at most " +
           std::to_string(kMaxAnnouncementBytes) + " are read";
  }
  return {};
}

/// Takes a text of `length` bytes, its zero byte included, from the front of `rest`. A text that is
/// not ended there and only there sets `fault`, unless one is set already.
/// Requires: `rest` has that many bytes.
std::string TakeText(std::string_view& rest, std::size_t length, const char* name,
                     std::string& fault) {
  const std::string_view field = rest.substr(0, length);
  rest.remove_prefix(length);
  const std::string_view text = field.substr(0, field.find('\0'));
  if (fault.empty() && text.size() == length) {
    fault = std::string("the ") + name + " does not end with a zero byte";
  } else if (fault.empty() && text.size() + 1 != length) {
    fault = std::string("the ") + name + " ends before its length";
  }
  return std::string(text);
}

}  // namespace

std::optional<std::string> EncodeAnnouncement(const Announcement& announcement) {
  const std::array texts = {&announcement.path, &announcement.key, &announcement.friendlyName};
  std::size_t total = kAnnouncementHeaderBytes;
  for (const std::string* text : texts) total += text->size() + 1;
  if (total > kMaxAnnouncementBytes) return std::nullopt;

  std::string datagram;
  Put(datagram, kMagic, 4);
  Put(datagram, kVersion, 2);
  Put(datagram, announcement.type, 2);
  Put(datagram, kConstant, 2);
  Put(datagram, announcement.mediaType, 2);
  Put(datagram, announcement.readOnly ? 1 : 0, 2);
  for (const std::string* text : texts) Put(datagram, text->size() + 1, 2);
  for (const std::string* text : texts) datagram.append(text->c_str(), text->size() + 1);
  return datagram;
}

std::optional<Announcement> DecodeAnnouncement(std::string_view datagram, std::string& fault) {
  fault = HeaderFault(datagram);
  if (!fault.empty()) return std::nullopt;

  const std::array<std::size_t, 3> lengths = {Field(datagram, 14), Field(datagram, 16),
                                              Field(datagram, 18)};
  const std::size_t total = kAnnouncementHeaderBytes + lengths[0] + lengths[1] + lengths[2];
  if (datagram.size() != total) {
    fault = "its lengths make " + std::to_string(total) + " bytes, the datagram has " +
            std::to_string(datagram.size());
    return std::nullopt;
  }
  Announcement announcement{.type = Field(datagram, 6),
                            .mediaType = Field(datagram, 10),
                            .readOnly = Field(datagram, 12) != 0};
  std::string_view rest = datagram.substr(kAnnouncementHeaderBytes);
  announcement.path = TakeText(rest, lengths[0], "path", fault);
  announcement.key = TakeText(rest, lengths[1], "key", fault);
  announcement.friendlyName = TakeText(rest, lengths[2], "friendly name", fault);
  if (!fault.empty()) return std::nullopt;
  return announcement;
}

UnitReaction ReactionOfUnits(std::string_view datagram) {
  if (datagram.size() <= kAnnouncementHeaderBytes || Number(datagram, 0, 4) != kMagic) {
    return UnitReaction::Ignores;
  }
  return IsKnown(Field(datagram, 6)) ? UnitReaction::Takes : UnitReaction::Ends;
}

}  // namespace tools
