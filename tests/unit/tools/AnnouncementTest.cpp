#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

#include "tools/shares/Announcement.h"

using tools::Announcement;
using tools::DecodeAnnouncement;
using tools::EncodeAnnouncement;
using tools::ReactionOfUnits;
using tools::UnitReaction;

namespace {

using namespace std::string_literals;

const Announcement kShare{
    .mediaType = 1, .readOnly = true, .path = "/media/sda1", .key = "", .friendlyName = "Name"};

const std::string kGolden =
    "\x78\x56\x34\x12\x01\x00\x01\x00\xE8\x03\x01\x00\x01\x00\x0C\x00\x01\x00\x05\x00"s
    "/media/sda1\0\0Name\0"s;

std::string With(std::size_t offset, std::string_view bytes) {
  std::string datagram = kGolden;
  return datagram.replace(offset, bytes.size(), bytes);
}

std::string FaultOf(std::string_view datagram) {
  std::string fault;
  EXPECT_FALSE(DecodeAnnouncement(datagram, fault));
  return fault;
}

TEST(Announcement, EncodesToTheByte) {
  EXPECT_EQ(kGolden.size(), 38U);
  EXPECT_EQ(EncodeAnnouncement(kShare), kGolden);
}

TEST(Announcement, DecodesWhatItEncodes) {
  for (const Announcement& share : {kShare, Announcement{},
                                    Announcement{.type = 2,
                                    .mediaType = 65535,
                                    .readOnly = false,
                                    .path = "/a\xFF\n",
                                    .key = std::string(32, '0'),
                                    .friendlyName = "n"}}) {
    std::string fault;
    const auto decoded = DecodeAnnouncement(*EncodeAnnouncement(share), fault);
    ASSERT_TRUE(decoded) << fault;
    EXPECT_EQ(*decoded, share);
  }
}

TEST(Announcement, AnyReadOnlyValueButZeroIsReadOnly) {
  std::string fault;
  EXPECT_FALSE(DecodeAnnouncement(With(12, "\0\0"s), fault)->readOnly);
  EXPECT_TRUE(DecodeAnnouncement(With(12, "\2\0"s), fault)->readOnly);
  EXPECT_TRUE(DecodeAnnouncement(With(12, "\0\1"s), fault)->readOnly);
}

TEST(Announcement, TheLongestDatagramIsMadeAndOneByteMoreIsNot) {
  Announcement share{.path = std::string(1477, 'p')};
  const auto datagram = EncodeAnnouncement(share);
  ASSERT_TRUE(datagram);
  EXPECT_EQ(datagram->size(), 1500U);
  std::string fault;
  EXPECT_TRUE(DecodeAnnouncement(*datagram, fault)) << fault;
  share.friendlyName = "x";
  EXPECT_FALSE(EncodeAnnouncement(share));
}

TEST(Announcement, EveryPrefixAndOneByteMoreAreAtFault) {
  for (std::size_t length = 0; length < kGolden.size(); ++length) {
    EXPECT_NE(FaultOf(std::string_view(kGolden).substr(0, length)), "") << length;
  }
  EXPECT_EQ(FaultOf(kGolden + "x"), "its lengths make 38 bytes, the datagram has 39");
}

TEST(Announcement, FaultsAreNamed) {
  const struct {
    std::string datagram;
    const char* fault;
    UnitReaction reaction;
  } kTable[] = {
      {"", "the datagram has 0 bytes, its header alone has 20", UnitReaction::Ignores},
      {kGolden.substr(0, 19), "the datagram has 19 bytes, its header alone has 20",
       UnitReaction::Ignores},
      {kGolden.substr(0, 20), "its lengths make 38 bytes, the datagram has 20",
       UnitReaction::Ignores},
      {kGolden.substr(0, 21), "its lengths make 38 bytes, the datagram has 21",
       UnitReaction::Takes},
      {With(0, "\x12\x34\x56\x78"), "the magic is 78563412 instead of 12345678",
       UnitReaction::Ignores},
      {With(4, "\2"), "the version is 2 instead of 1", UnitReaction::Takes},
      {With(6, "\0"s), "the message type is 0, neither 1 nor 2", UnitReaction::Ends},
      {With(6, "\3"), "the message type is 3, neither 1 nor 2", UnitReaction::Ends},
      {With(4, "\2\0\3"s), "the version is 2 instead of 1", UnitReaction::Ends},
      {With(8, "\0\0"s), "the field at offset 8 is 0 instead of 1000", UnitReaction::Takes},
      {With(14, "\xFF\xFF"), "its lengths make 65561 bytes, the datagram has 38",
       UnitReaction::Takes},
      {With(14, "\x0B\x00\x02\x00"s), "the path does not end with a zero byte",
       UnitReaction::Takes},
      {With(31, "x"), "the path does not end with a zero byte", UnitReaction::Takes},
      {With(24, "\0"s), "the path ends before its length", UnitReaction::Takes},
      {With(32, "x"), "the key does not end with a zero byte", UnitReaction::Takes},
      {With(37, "x"), "the friendly name does not end with a zero byte", UnitReaction::Takes},
      {With(14, "\0\0\x0D\0"s), "the path does not end with a zero byte", UnitReaction::Takes},
      {kGolden + std::string(1463, 'x'), "the datagram has 1501 bytes, at most 1500 are read",
       UnitReaction::Takes},
  };
  for (const auto& row : kTable) {
    EXPECT_EQ(FaultOf(row.datagram), row.fault);
    EXPECT_EQ(ReactionOfUnits(row.datagram), row.reaction) << row.fault;
  }
}

TEST(Announcement, DamagedDatagramsAreReadOrRefusedWithAReason) {
  std::mt19937 random(4);
  for (int round = 0; round < 20000; ++round) {
    std::string datagram = kGolden;
    datagram.resize(random() % (kGolden.size() + 4), 'x');
    for (unsigned changes = 1 + random() % 4; changes > 0 && !datagram.empty(); --changes) {
      datagram[random() % datagram.size()] = static_cast<char>(random() % 256);
    }
    std::string fault;
    const bool isRead = DecodeAnnouncement(datagram, fault).has_value();
    ASSERT_EQ(isRead, fault.empty());
  }
}

}  // namespace
