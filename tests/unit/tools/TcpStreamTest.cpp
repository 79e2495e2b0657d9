#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/monitor/TcpStream.h"

using tools::TcpStream;

namespace {

/// Sequence number of the first byte.
constexpr std::uint32_t kFirst = 1001;

struct Piece {
  std::uint32_t at;  ///< from the stream's begin
  std::string payload;
};

TEST(TcpStream, SegmentsComeOutInOrderHoweverTheyCame) {
  const struct {
    const char* name;
    std::vector<Piece> pieces;
    std::vector<std::string> given;  ///< after each piece
    bool hasGap;
  } kTable[] = {
      {"in order", {{0, "ab"}, {2, "cd"}}, {"ab", "cd"}, false},
      {"turned round", {{2, "cd"}, {0, "ab"}}, {"", "abcd"}, false},
      {"the last one first", {{4, "ef"}, {2, "cd"}, {0, "ab"}}, {"", "", "abcdef"}, false},
      {"twice", {{0, "ab"}, {0, "ab"}, {2, "c"}}, {"ab", "", "c"}, false},
      {"twice, held back", {{2, "cd"}, {2, "cd"}, {0, "ab"}}, {"", "", "abcd"}, false},
      {"overlapping what was given", {{0, "abc"}, {1, "bcde"}}, {"abc", "de"}, false},
      {"inside what was given", {{0, "abcd"}, {1, "bc"}}, {"abcd", ""}, false},
      {"overlapping what is held", {{3, "de"}, {2, "cdef"}, {0, "abc"}}, {"", "", "abcdef"}, false},
      {"longer at the same place", {{2, "c"}, {2, "cde"}, {0, "ab"}}, {"", "", "abcde"}, false},
      {"shorter at the same place", {{2, "cde"}, {2, "c"}, {0, "ab"}}, {"", "", "abcde"}, false},
      {"joined with the next one", {{1, "b"}, {0, "abc"}}, {"", "abc"}, false},
      {"without a payload", {{0, ""}, {5, ""}, {0, "a"}}, {"", "", "a"}, false},
      {"one missing", {{0, "ab"}, {3, "d"}}, {"ab", ""}, true},
      {"before the begin", {{static_cast<std::uint32_t>(-2), "xyab"}}, {"ab"}, false},
  };
  for (const auto& row : kTable) {
    TcpStream stream(kFirst - 1);
    std::vector<std::string> given;
    for (const Piece& piece : row.pieces)
      given.push_back(stream.Add(kFirst + piece.at, piece.payload));
    EXPECT_EQ(given, row.given) << row.name;
    EXPECT_EQ(stream.HasGap(), row.hasGap) << row.name;
    EXPECT_FALSE(stream.IsBroken()) << row.name;
  }
}

TEST(TcpStream, SequenceNumbersWrapAround) {
  TcpStream stream(0xFFFFFFFD);
  EXPECT_EQ(stream.Add(1, "de"), "");
  EXPECT_EQ(stream.Add(0xFFFFFFFE, "abc"), "abcde");
  EXPECT_EQ(stream.Add(0, "cd"), "");
  stream.Close(3);
  EXPECT_TRUE(stream.IsComplete());
}

TEST(TcpStream, ItIsCompleteWhenEverythingBeforeItsEndWasGiven) {
  TcpStream stream(kFirst - 1);
  EXPECT_FALSE(stream.IsComplete());
  EXPECT_EQ(stream.Add(kFirst + 2, "cd"), "");
  stream.Close(kFirst + 4);
  EXPECT_FALSE(stream.IsComplete());
  EXPECT_TRUE(stream.HasGap());
  EXPECT_EQ(stream.Add(kFirst, "ab"), "abcd");
  EXPECT_TRUE(stream.IsComplete());
  EXPECT_FALSE(stream.HasGap());
}

TEST(TcpStream, AnEndWithoutItsBytesIsAGap) {
  TcpStream stream(kFirst - 1);
  stream.Close(kFirst + 1);
  EXPECT_TRUE(stream.HasGap());
  EXPECT_FALSE(stream.IsComplete());
}

TEST(TcpStream, NoMoreIsHeldThanThereIsRoomFor) {
  TcpStream large(kFirst - 1);
  EXPECT_EQ(large.Add(kFirst + 1, std::string(TcpStream::kMaxHeldBytes - 64, 'x')), "");
  EXPECT_FALSE(large.IsBroken());
  EXPECT_EQ(large.Add(kFirst + 100'000, "y"), "");
  EXPECT_TRUE(large.IsBroken());

  TcpStream many(kFirst - 1);
  std::uint32_t pieces = 0;
  while (!many.IsBroken()) EXPECT_EQ(many.Add(kFirst + 1 + 2 * pieces++, "x"), "");
  EXPECT_LT(pieces, TcpStream::kMaxHeldBytes / 64);
}

TEST(TcpStream, RoomThatIsFreeAgainIsUsedAgain) {
  TcpStream stream(kFirst - 1);
  const std::string piece(TcpStream::kMaxHeldBytes / 2, 'x');
  std::uint32_t at = kFirst;
  for (int round = 0; round < 10; ++round) {
    EXPECT_EQ(stream.Add(at + 1, piece), "");
    EXPECT_EQ(stream.Add(at, "a"), "a" + piece);
    at += 1 + static_cast<std::uint32_t>(piece.size());
  }
  EXPECT_FALSE(stream.IsBroken());
}

}  // namespace
