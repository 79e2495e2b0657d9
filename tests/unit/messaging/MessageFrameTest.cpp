#include "messaging/MessageFrame.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using tBytes = std::vector<uint8_t>;

/// The bytes to send for a text.
tBytes Sent(std::string_view text) {
  tFrameBuffer frame;
  frame.fill(0xEE);
  const size_t length = EncodeFrame(text, frame);
  return tBytes(frame.begin(), frame.begin() + static_cast<tBytes::difference_type>(length));
}

TEST(MessageFrame, OfTheEmptyTextIsItsHeader) {
  EXPECT_EQ(Sent(""), (tBytes{0, 4, 0, 0, 0, 0}));
}

TEST(MessageFrame, OfTwoBytesIsExactlyThis) {
  EXPECT_EQ(Sent("ab"), (tBytes{0, 8, 0, 0, 0, 4, 0, 'a', 0, 'b'}));
}

TEST(MessageFrame, TakesEveryByteAsTheCharacterOfItsValue) {
  for (int code = 0; code < 256; ++code) {
    const char byte = static_cast<char>(code);
    EXPECT_EQ(Sent({&byte, 1}), (tBytes{0, 6, 0, 0, 0, 2, 0, static_cast<uint8_t>(code)}));
  }
}

TEST(MessageFrame, LengthsAreBigEndian) {
  const struct {
    size_t textBytes;
    tBytes header;
  } cases[] = {
      {125, {0x00, 0xFE, 0, 0, 0x00, 0xFA}},  {126, {0x01, 0x00, 0, 0, 0x00, 0xFC}},
      {127, {0x01, 0x02, 0, 0, 0x00, 0xFE}},  {128, {0x01, 0x04, 0, 0, 0x01, 0x00}},
      {8189, {0x3F, 0xFE, 0, 0, 0x3F, 0xFA}}, {8190, {0x40, 0x00, 0, 0, 0x3F, 0xFC}},
  };
  for (const auto& [textBytes, header] : cases) {
    const tBytes sent = Sent(std::string(textBytes, 'x'));
    EXPECT_EQ(sent.size(), 6 + 2 * textBytes);
    EXPECT_EQ(tBytes(sent.begin(), sent.begin() + 6), header) << textBytes;
    for (size_t unit = 0; unit < textBytes; ++unit) {
      ASSERT_EQ(sent[6 + 2 * unit], 0) << unit;
      ASSERT_EQ(sent[7 + 2 * unit], 'x') << unit;
    }
  }
}

TEST(MessageFrame, AZeroUnitFollowsInTheBuffer) {
  for (const size_t textBytes : {size_t{0}, size_t{2}, kMaxMessageBytes}) {
    tFrameBuffer frame;
    frame.fill(0xEE);
    const size_t length = EncodeFrame(std::string(textBytes, 'x'), frame);
    EXPECT_EQ(frame.at(length), 0);
    EXPECT_EQ(frame.at(length + 1), 0);
  }
}

TEST(MessageFrame, TheBufferHoldsHeaderLongestTextAndTerminator) {
  EXPECT_EQ(kMaxMessageBytes, 8190U);
  EXPECT_EQ(tFrameBuffer().size(), 16388U);
}

TEST(MessageFrameDeathTest, ATextThatIsTooLongIsAProgrammingError) {
  tFrameBuffer frame;
  EXPECT_DEATH(static_cast<void>(EncodeFrame(std::string(kMaxMessageBytes + 1, 'x'), frame)),
               "voldrake: MessageFrame:[0-9]+: .*EncodeFrame.*: "
               "Assertion `text\\.size\\(\\) <= kMaxMessageBytes' failed\\.");
}

}  // namespace
