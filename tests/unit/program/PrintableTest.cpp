#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "program/Printable.h"

namespace {

using namespace std::string_literals;

TEST(Printable, WhatATerminalWouldActOnIsShownAsDigits) {
  const struct {
    std::string bytes;
    const char* text;
  } kTable[] = {
      {"plain text", "plain text"},
      {"a\\b", "a\\\\b"},
      {"\x1B[2J\n\x7F\x00"s, "\\x1b[2J\\x0a\\x7f\\x00"},
      {"K\xC3\xBC", "K\xC3\xBC"},
      {"\xC3", "\\xc3"},
      {"\xC3(", "\\xc3("},
      {"\xC0\x80\xED\xA0\x80", "\\xc0\\x80\\xed\\xa0\\x80"},
      {"\xC2\x9B", "\\xc2\\x9b"},           // a control character of its own: CSI
      {"\xE2\x80\xAE", "\\xe2\\x80\\xae"},  // turns the direction of writing around
  };
  for (const auto& row : kTable) EXPECT_EQ(program::Printable(row.bytes), row.text);
}

TEST(Printable, QuotesInsideAreMarked) {
  EXPECT_EQ(program::Quoted("a\"b"), "\"a\\\"b\"");
}

TEST(Printable, PaddingCountsCharacters) {
  EXPECT_EQ(program::Padded("K\xC3\xBC", 4), "K\xC3\xBC  ");
  EXPECT_EQ(program::Padded("longer", 3), "longer");
}

TEST(Printable, DumpsHaveSixteenBytesARow) {
  constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();
  EXPECT_EQ(program::HexDump("", kAll), "");
  EXPECT_EQ(program::HexDump("\x00\x08"s + "0123456789abcde", kAll),
            "00000000  00 08 30 31 32 33 34 35  36 37 38 39 61 62 63 64  |..0123456789abcd|\n"
            "00000010  65                                                |e|\n");
  EXPECT_EQ(program::HexDump(std::string(33, 'x'), 2).substr(2 * 79), "... and 1 more bytes\n");
}

}  // namespace
