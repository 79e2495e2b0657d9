#include "program/JsonObject.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

using program::JsonObject;

namespace {

using namespace std::string_literals;

TEST(JsonObject, WithoutMembersIsEmpty) {
  EXPECT_EQ(JsonObject().Line(), "{}\n");
  EXPECT_EQ(JsonObject().Text(), "{}");
}

TEST(JsonObject, KeepsTheOrderOfItsMembers) {
  EXPECT_EQ(
      JsonObject()
          .AddText("z", "last")
          .AddFlag("a", true)
          .AddFlag("b", false)
          .AddNumber("n", 7)
          .AddTexts("none", {})
          .AddTexts("two", {"x", "\"y"})
          .AddObject("inner", JsonObject().AddText("k", "v"))
          .Text(),
      R"({"z":"last","a":true,"b":false,"n":7,"none":[],"two":["x","\"y"],"inner":{"k":"v"}})");
}

TEST(JsonObject, StringsAreEscaped) {
  const struct {
    std::string bytes;
    const char* asBytes;
    const char* asText;
  } kTable[] = {
      {"", R"("")", R"("")"},
      {"plain /text", R"("plain /text")", R"("plain /text")"},
      {"a\"b\\c", R"("a\"b\\c")", R"("a\"b\\c")"},
      {"\n\x1B\x1F\x7F", R"("\u000a\u001b\u001f\u007f")", R"("\u000a\u001b\u001f\u007f")"},
      {"a\0b"s, R"("a\u0000b")", R"("a\u0000b")"},
      {"K\xC3\xBC", R"("K\u00c3\u00bc")", "\"K\xC3\xBC\""},
  };
  for (const auto& row : kTable) {
    EXPECT_EQ(JsonObject().AddBytes("k", row.bytes).Text(), R"({"k":)"s + row.asBytes + "}");
    EXPECT_EQ(JsonObject().AddText("k", row.bytes).Text(), R"({"k":)"s + row.asText + "}");
    EXPECT_EQ(JsonObject().AddTexts("k", {row.bytes}).Text(), R"({"k":[)"s + row.asText + "]}");
    EXPECT_EQ(JsonObject().AddFlag(row.bytes, true).Text(), "{"s + row.asText + ":true}");
  }
}

TEST(JsonObject, BytesBeyondAsciiAreEscapedOneByOne) {
  EXPECT_EQ(JsonObject().AddBytes("k", "\x80\x9B\xFF").Text(), R"({"k":"\u0080\u009b\u00ff"})");
}

TEST(JsonObject, NumbersKeepTheirValue) {
  EXPECT_EQ(JsonObject()
                .AddNumber("least", std::numeric_limits<std::int32_t>::min())
                .AddNumber("most", std::numeric_limits<std::uint64_t>::max())
                .AddNumber("tenth", 0.1)
                .AddNumber("port", std::uint16_t{8080})
                .Text(),
            R"({"least":-2147483648,"most":18446744073709551615,"tenth":0.1,"port":8080})");
}

}  // namespace
