#include "frame/Text.h"

#include <gtest/gtest.h>

namespace {

TEST(Printable, ReplacesControlCharactersAndNothingElse) {
  for (int code = 0; code < 256; ++code) {
    const std::string text(1, static_cast<char>(code));
    const bool control = code < 0x20 || code == 0x7F;
    EXPECT_EQ(Printable(text), control ? "?" : text) << code;
  }
}

TEST(Printable, KeepsTheLength) {
  EXPECT_EQ(Printable(""), "");
  EXPECT_EQ(Printable(std::string("a\0b\nc\x1B[31m", 10)), "a?b?c?[31m");
}

TEST(Printable, ReplacesControlCharactersOfTwoBytes) {
  EXPECT_EQ(Printable("a\xC2\x80\xC2\x9B[2J\xC2\x9F"), "a????[2J??");
  EXPECT_EQ(Printable("\xC2\xA0\xC3\x84\xC2"), "\xC2\xA0\xC3\x84\xC2") << "no control characters";
  EXPECT_EQ(Printable("\xC2\xC2\x85\x85"), "\xC2??\x85");
}

TEST(WithoutTrailingSpace, CutsWhiteSpaceAtTheEndOnly) {
  const struct {
    const char* text;
    const char* cut;
  } cases[] = {
      {"", ""},           {"a", "a"},     {" a b ", " a b"},
      {"a\n", "a"},       {"a\r\n", "a"}, {"a \t\n\v\f\r", "a"},
      {"\n", ""},         {" \n ", ""},   {"a\nb\n", "a\nb"},
      {"a\x7F", "a\x7F"},
  };
  for (const auto& [text, cut] : cases) EXPECT_EQ(WithoutTrailingSpace(text), cut);
}

TEST(FlagWords, AreTheOnesThatMessagesAndLogShow) {
  EXPECT_STREQ(BoolText(true), "true");
  EXPECT_STREQ(BoolText(false), "false");
  EXPECT_STREQ(FlagText(true), "1");
  EXPECT_STREQ(FlagText(false), "0");
}

}  // namespace
