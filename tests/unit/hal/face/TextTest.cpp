#include "hal/face/Text.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using Texts = std::vector<std::string>;

TEST(ParseNumber, TakesDecimalAndHexadecimalNumbersOfTheTypesRange) {
  const struct {
    const char* text;
    std::optional<int> number;
  } kTable[] = {
      {"0", 0},
      {"007", 7},
      {"-1", -1},
      {"2147483647", 2147483647},
      {"2147483648", std::nullopt},
      {"-2147483648", -2147483647 - 1},
      {"0x1F", 31},
      {"0x1f", 31},
      {"0x0", 0},
      {"0x7fffffff", 2147483647},
      {"0x80000000", std::nullopt},
      {"0X1f", std::nullopt},
      {"0x", std::nullopt},
      {"0x-1", std::nullopt},
      {"1f", std::nullopt},
      {"", std::nullopt},
      {" 1", std::nullopt},
      {"1 ", std::nullopt},
      {"+1", std::nullopt},
      {"-", std::nullopt},
      {"1.0", std::nullopt},
  };
  for (const auto& [text, number] : kTable) EXPECT_EQ(hal::ParseNumber<int>(text), number) << text;
  EXPECT_EQ(hal::ParseNumber<unsigned>("-1"), std::nullopt);
  EXPECT_EQ(hal::ParseNumber<unsigned char>("255"), 255);
  EXPECT_EQ(hal::ParseNumber<unsigned char>("256"), std::nullopt);
}

TEST(Text, IsSplitAtEverySeparator) {
  const struct {
    const char* text;
    Texts parts;
  } kTable[] = {
      {"", {}},          {"a", {"a"}},      {"a,b", {"a", "b"}},      {",", {"", ""}},
      {"a,", {"a", ""}}, {",a", {"", "a"}}, {"a,,b", {"a", "", "b"}},
  };
  for (const auto& [text, parts] : kTable) EXPECT_EQ(hal::Split(text, ','), parts) << text;
}

TEST(Text, IsJoinedWithSeparatorsInBetween) {
  EXPECT_EQ(hal::Join({}, ", "), "");
  EXPECT_EQ(hal::Join({"a"}, ", "), "a");
  EXPECT_EQ(hal::Join({"a", "", "b"}, ", "), "a, , b");
  EXPECT_EQ(hal::Join({"", "", "b", ""}, ","), ",,b,");
}

TEST(Text, IsFoundAmongTextsAsAWhole) {
  EXPECT_TRUE(hal::Contains({"a", "bc"}, "bc"));
  EXPECT_FALSE(hal::Contains({"a", "bc"}, "b"));
  EXPECT_FALSE(hal::Contains({}, ""));
}

TEST(BaseName, IsWhatFollowsTheLastSlash) {
  const struct {
    const char* path;
    const char* name;
  } kTable[] = {{"/dev/sda1", "sda1"}, {"sda1", "sda1"}, {"/", ""}, {"a/", ""}, {"", ""}};
  for (const auto& [path, name] : kTable) EXPECT_EQ(hal::BaseName(path), name) << path;
}

}  // namespace
