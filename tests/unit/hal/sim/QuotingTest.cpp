#include "hal/sim/Quoting.h"

#include <gtest/gtest.h>

#include "hal/sim/CommandError.h"

namespace {

using halsim::CommandError;
using halsim::Quote;
using halsim::QuoteIfNeeded;
using halsim::WordReader;
using Texts = std::vector<std::string>;

/// The text of the error that reading the line's words ends with; empty without one.
std::string ErrorOf(std::string_view line) {
  try {
    WordReader(line).All();
  } catch (const CommandError& error) {
    return error.what();
  }
  return "";
}

TEST(WordReader, WordsAreSeparatedByBlanksAndQuotesKeepThem) {
  const struct {
    std::string line;
    Texts words;
  } kTable[] = {
      {"", {}},
      {" \t\r ", {}},
      {"a", {"a"}},
      {"  a\tb\r", {"a", "b"}},
      {"a\nb\vc", {"a\nb\vc"}},
      {R"("a b")", {"a b"}},
      {R"('a b')", {"a b"}},
      {R"("")", {""}},
      {R"(''"" "")", {"", ""}},
      {R"(label="MY STICK" x)", {"label=MY STICK", "x"}},
      {R"(a"b c"d'e f'g)", {"ab cde fg"}},
      {R"("it's" 'say "x"')", {"it's", "say \"x\""}},
      {R"("\n\t\r\"\\")", {"\n\t\r\"\\"}},
      {R"("\x41\x7f\xfFz")", {"A\x7F\xFFz"}},
      {R"('\n\')", {"\\n\\"}},
      {R"(\n)", {"\\n"}},
      {"# x", {"#", "x"}},
  };
  for (const auto& [line, words] : kTable) EXPECT_EQ(WordReader(line).All(), words) << line;
}

TEST(WordReader, UnfinishedQuotesAndUnknownEscapesAreRefused) {
  for (const char* line : {"\"", "'", "a \"b", "a='b c", "\"a'", "\"\\", "\"a\\\"", "'a\""}) {
    EXPECT_EQ(ErrorOf(line), "quotes are not closed") << line;
  }
  for (const char* line : {R"("\q")", R"("\ ")", R"("\'")", R"("\x")", R"("\x4")", R"("\x4g")",
                           R"("\x00")", R"("\x-1")", R"("\x 1")", R"("\X41")", R"("\x4)"}) {
    EXPECT_EQ(ErrorOf(line), "unknown escape in quotes") << line;
  }
}

TEST(WordReader, GivesWordsAndTheRestOneByOne) {
  WordReader words("  a  'b c'  d e \t");
  EXPECT_EQ(words.Next(), "a");
  EXPECT_EQ(words.Need("WORD"), "b c");
  EXPECT_EQ(words.Rest(), "d e");
  EXPECT_EQ(words.Rest(), "");
  EXPECT_EQ(words.Next(), std::nullopt);
  EXPECT_NO_THROW(words.End());
  EXPECT_EQ(WordReader(" (1, 'a b') ").Rest(), "(1, 'a b')") << "the rest stands as it is";
}

TEST(WordReader, SaysWhatIsMissingAndWhatIsTooMuch) {
  const auto errorOf = [](auto operation) -> std::string {
    try {
      operation();
    } catch (const CommandError& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ(errorOf([] { WordReader(" ").Need("NAME"); }), "NAME is missing");
  EXPECT_EQ(errorOf([] { WordReader(" a\\ b").End(); }), R"(unexpected "a\\")");
}

TEST(Quote, IsReadBackAsOneWord) {
  std::string every;
  for (int code = 1; code < 256; ++code) every += static_cast<char>(code);
  for (const std::string& text : {every, std::string(), std::string(R"(a "b" \c)")}) {
    EXPECT_EQ(WordReader(Quote(text)).All(), Texts{text});
  }
  EXPECT_EQ(Quote("a\n\t\x1F\x7F\"\\'\xC3\xA4 "), R"("a\n\x09\x1f\x7f\"\\')"
                                                  "\xC3\xA4 \"");
}

TEST(QuoteIfNeeded, LeavesAPlainWordAsItIs) {
  for (const char* text : {"", "a", "/dev/sda1", "a:b,c=d", "\xC3\xA4", "#~"}) {
    EXPECT_EQ(QuoteIfNeeded(text), text);
  }
  for (const char* text : {" ", "a b", "a\tb", "a\rb", "a\nb", "a\x7F", "a\x01", "'", "\"", "\\"}) {
    EXPECT_EQ(QuoteIfNeeded(text), Quote(text));
  }
}

}  // namespace
