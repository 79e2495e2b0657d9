#include <gtest/gtest.h>

#include <string>

#include "tools/monitor/Segment.h"

using tools::Endpoint;
using tools::ReadSegment;

namespace {

using namespace std::string_literals;

/// 127.0.0.1:40000 sends "hi" to 127.0.0.1:8080, with twelve bytes of TCP options, as the loopback
/// interface carries it.
const std::string kPacket =
    "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x08\x00"s
    "\x45\x00\x00\x36\x12\x34\x40\x00\x40\x06\x00\x00\x7f\x00\x00\x01\x7f\x00\x00\x01"s
    "\x9c\x40\x1f\x90\x01\x02\x03\x04\x00\x00\x00\x01\x80\x18\x02\x00\x00\x00\x00\x00"s
    "\x01\x01\x08\x0a\x00\x00\x00\x01\x00\x00\x00\x02hi"s;

std::string Changed(std::size_t offset, const std::string& bytes) {
  std::string packet = kPacket;
  return packet.replace(offset, bytes.size(), bytes);
}

TEST(Segment, EveryFieldOfAPacketIsRead) {
  const auto segment = ReadSegment(kPacket);
  ASSERT_TRUE(segment);
  EXPECT_EQ(segment->from, (Endpoint{0x7F000001, 40000}));
  EXPECT_EQ(segment->to, (Endpoint{0x7F000001, 8080}));
  EXPECT_EQ(segment->sequence, 0x01020304U);
  EXPECT_EQ(segment->payload, "hi");
  EXPECT_TRUE(segment->ack);
  EXPECT_FALSE(segment->syn || segment->fin || segment->rst);
}

TEST(Segment, FlagsAreTakenOneByOne) {
  for (int flags = 0; flags < 256; ++flags) {
    const auto segment = ReadSegment(Changed(47, std::string(1, static_cast<char>(flags))));
    ASSERT_TRUE(segment);
    EXPECT_EQ(segment->fin, (flags & 1) != 0);
    EXPECT_EQ(segment->syn, (flags & 2) != 0);
    EXPECT_EQ(segment->rst, (flags & 4) != 0);
    EXPECT_EQ(segment->ack, (flags & 16) != 0);
  }
}

TEST(Segment, WhatFollowsThePacketIsNotItsPayload) {
  const std::string padded = kPacket + "padding";
  const auto segment = ReadSegment(padded);
  ASSERT_TRUE(segment);
  EXPECT_EQ(segment->payload, "hi");
}

TEST(Segment, EveryPrefixIsNone) {
  for (std::size_t length = 0; length < kPacket.size(); ++length) {
    EXPECT_FALSE(ReadSegment(std::string_view(kPacket).substr(0, length))) << length;
  }
}

TEST(Segment, WhatIsNoWholeTcpSegmentOverIpv4IsNone) {
  const struct {
    const char* what;
    std::size_t offset;
    std::string bytes;
  } kTable[] = {
      {"another protocol than IP", 12, "\x86\xdd"},
      {"version 6", 14, "\x65"},
      {"an IP header shorter than one", 14, "\x44"},
      {"an IP header longer than the packet", 14, "\x4f"},
      {"a total shorter than its header", 16, "\x00\x13"s},
      {"a total longer than the packet", 16, "\x00\x37"s},
      {"the first fragment", 20, "\x20\x00"s},
      {"a later fragment", 20, "\x00\x01"s},
      {"UDP", 23, "\x11"},
      {"a TCP header shorter than one", 46, "\x40"},
      {"a TCP header longer than the packet", 46, "\xf0"},
  };
  for (const auto& row : kTable)
    EXPECT_FALSE(ReadSegment(Changed(row.offset, row.bytes))) << row.what;
}

TEST(Segment, AnyPacketThatMayNotBeFragmentedIsWhole) {
  EXPECT_TRUE(ReadSegment(Changed(20, "\x40\x00"s)));
  EXPECT_TRUE(ReadSegment(Changed(20, "\x00\x00"s)));
}

}  // namespace
