#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

#include "tools/monitor/Frame.h"

using tools::DecodeFrame;
using tools::Frame;
using tools::FrameReader;
using tools::kMaxFrameBytes;
using tools::kMaxTextBytes;

namespace {

using namespace std::string_literals;

/// The frame of a text, made without the code under test.
std::string Encoded(std::string_view text) {
  const auto number = [](std::size_t value) {
    return std::string{static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
  };
  std::string frame = number(4 + 2 * text.size()) + "\0\0"s + number(2 * text.size());
  for (const char c : text) frame += std::string{'\0', c};
  return frame;
}

TEST(Frame, TheEmptyTextIsSixBytes) {
  const Frame frame = DecodeFrame("\x00\x04\x00\x00\x00\x00"s);
  EXPECT_EQ(frame.fault, "");
  EXPECT_EQ(frame.text, "");
}

TEST(Frame, EachCodeUnitIsOneByteOfTheText) {
  const Frame frame = DecodeFrame("\x00\x08\x00\x00\x00\x04\x00\x61\x00\x62"s);
  EXPECT_EQ(frame.fault, "");
  EXPECT_EQ(frame.text, "ab");
}

TEST(Frame, EveryByteValueComesThrough) {
  std::string text;
  for (int value = 0; value < 256; ++value) text += static_cast<char>(value);
  EXPECT_EQ(DecodeFrame(Encoded(text)).text, text);
}

TEST(Frame, TheLongestTextFitsAndOneByteMoreDoesNot) {
  EXPECT_EQ(DecodeFrame(Encoded(std::string(kMaxTextBytes, 'x'))).fault, "");
  EXPECT_EQ(DecodeFrame(Encoded(std::string(kMaxTextBytes + 1, 'x'))).fault,
            "the first length field is 16386, a frame has 4 to 16384");
}

TEST(Frame, EveryPrefixIsAtFault) {
  const std::string whole = Encoded("abc");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const Frame frame = DecodeFrame(whole.substr(0, length));
    EXPECT_NE(frame.fault, "") << length;
    EXPECT_EQ(frame.text, "") << length;
    EXPECT_EQ(frame.bytes, whole.substr(0, length));
  }
}

TEST(Frame, FaultsAreNamed) {
  const struct {
    std::string bytes;
    const char* fault;
  } kTable[] = {
      {"", "no byte was sent"},
      {"\x00"s, "the frame ends within its first length field"},
      {"\x00\x03\x00\x00\x00"s, "the first length field is 3, a frame has 4 to 16384"},
      {"\xFF\xFF"s, "the first length field is 65535, a frame has 4 to 16384"},
      {"\x00\x04\x00\x00\x00"s, "the frame has 5 bytes instead of 6"},
      {"\x00\x04\x00\x00\x00\x00\x00"s, "the frame has 7 bytes instead of 6"},
      {"\x00\x04\x01\x02\x00\x00"s, "the second field is 0102 instead of zero"},
      {"\x00\x06\x00\x00\x00\x04\x00\x61"s, "the payload length is 4, but 2 bytes follow it"},
      {"\x00\x05\x00\x00\x00\x01\x00"s, "the payload length 1 is odd"},
      {"\x00\x08\x00\x00\x00\x04\x00\x61\x20\xAC"s, "code unit 1 is 20ac, above 00ff"},
  };
  for (const auto& row : kTable) {
    const Frame frame = DecodeFrame(row.bytes);
    EXPECT_EQ(frame.fault, row.fault);
    EXPECT_EQ(frame.text, "") << row.fault;
  }
}

TEST(FrameReader, FramesComeWholeHoweverTheyAreCut) {
  const std::string stream = Encoded("first") + Encoded("") + Encoded("third");
  for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
    FrameReader reader;
    std::string texts;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      reader.Append(std::string_view(stream).substr(at, piece));
      while (const auto frame = reader.Next()) texts += '[' + frame->text + ']';
    }
    EXPECT_EQ(texts, "[first][][third]") << piece;
    EXPECT_FALSE(reader.Rest());
  }
}

TEST(FrameReader, AFaultyFrameWithAPossibleLengthLeavesTheNextOneWhole) {
  FrameReader reader;
  reader.Append("\x00\x04\x00\x00\x00\x09"s + Encoded("ok"));
  EXPECT_NE(reader.Next()->fault, "");
  EXPECT_EQ(reader.Next()->text, "ok");
}

TEST(FrameReader, AnImpossibleLengthTakesTheRestOfTheConnection) {
  FrameReader reader;
  reader.Append("\xFF\xFF"s + Encoded("lost"));
  EXPECT_FALSE(reader.Next());
  const auto rest = reader.Rest();
  ASSERT_TRUE(rest);
  EXPECT_EQ(rest->bytes, "\xFF\xFF"s + Encoded("lost"));
  EXPECT_NE(rest->fault, "");
}

TEST(FrameReader, TheLongestFrameFillsTheRoomAndComesOut) {
  FrameReader reader;
  reader.Append(Encoded(std::string(kMaxTextBytes, 'x')));
  EXPECT_EQ(reader.Room(), 0U);
  EXPECT_EQ(reader.Next()->text.size(), kMaxTextBytes);
  EXPECT_EQ(reader.Room(), kMaxFrameBytes);
}

TEST(FrameReader, RandomBytesAreCutWithoutLoss) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    std::string stream(random() % 200, '\0');
    for (char& c : stream) c = static_cast<char>(random() % (round % 2 == 0 ? 256 : 12));
    FrameReader reader;
    reader.Append(stream);
    std::string seen;
    while (const auto frame = reader.Next()) seen += frame->bytes;
    if (const auto rest = reader.Rest()) seen += rest->bytes;
    EXPECT_EQ(seen, stream);
  }
}

}  // namespace
