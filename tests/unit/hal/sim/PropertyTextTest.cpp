#include "hal/sim/PropertyText.h"

#include <gtest/gtest.h>

#include "hal/sim/CommandError.h"

namespace {

using halsim::FormatPropertyValue;
using halsim::ParsePropertyValue;
using Texts = std::vector<std::string>;

TEST(PropertyText, EveryTypeIsReadAndWrittenBack) {
  const struct {
    const char* text;
    hal::PropertyValue value;
  } kTable[] = {
      {"string:", std::string()},
      {"string:a:b", std::string("a:b")},
      {"int:-5", std::int32_t{-5}},
      {"int:2147483647", std::int32_t{2147483647}},
      {"uint64:18446744073709551615", std::uint64_t{18446744073709551615U}},
      {"double:0.5", 0.5},
      {"bool:true", true},
      {"bool:false", false},
      {"strlist:", Texts{}},
      {"strlist:a,b", Texts{"a", "b"}},
  };
  for (const auto& row : kTable) {
    EXPECT_EQ(ParsePropertyValue(row.text), row.value) << row.text;
    EXPECT_EQ(FormatPropertyValue(row.value), row.text);
  }
}

TEST(PropertyText, HexadecimalNumbersAreRead) {
  EXPECT_EQ(ParsePropertyValue("int:0x1f"), hal::PropertyValue(std::int32_t{31}));
}

TEST(PropertyText, ATextWithBlanksIsQuoted) {
  EXPECT_EQ(FormatPropertyValue(std::string("a b")), "string:\"a b\"");
}

TEST(PropertyText, WhatIsNoValueIsRefused) {
  for (const char* text :
       {"", "string", "int:", "int:x", "int:1x", "int:2147483648", "int:0x", "int:0x-1",
        "uint64:-1", "double:", "double:1,5", "bool:", "bool:1", "nonsense:1", "String:a"}) {
    EXPECT_THROW(ParsePropertyValue(text), halsim::CommandError) << text;
  }
}

}  // namespace
