#include "hal/sim/LineSplitter.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using halsim::LineSplitter;
using Texts = std::vector<std::string>;

/// The lines of these pieces; "(too long)" for a line that was.
Texts LinesOf(const Texts& pieces) {
  Texts lines;
  LineSplitter splitter([&](std::string_view line, bool complete) {
    lines.push_back(complete ? std::string(line) : "(too long)" + std::string(line));
  });
  for (const std::string& piece : pieces) splitter.Feed(piece);
  splitter.Finish();
  return lines;
}

TEST(LineSplitter, CutsAtLineFeedsHoweverTheBytesCome) {
  const struct {
    Texts pieces;
    Texts lines;
  } kTable[] = {
      {{}, {}},
      {{""}, {}},
      {{"a\n"}, {"a"}},
      {{"a"}, {"a"}},
      {{"a\nb"}, {"a", "b"}},
      {{"a\n\nb\n"}, {"a", "", "b"}},
      {{"a", "b\nc", "\n"}, {"ab", "c"}},
      {{"\n"}, {""}},
      {{std::string("a\0b\n", 4)}, {std::string("a\0b", 3)}},
      {{"a\r\n"}, {"a\r"}},
  };
  for (const auto& [pieces, lines] : kTable) {
    EXPECT_EQ(LinesOf(pieces), lines) << testing::PrintToString(pieces);
  }
}

TEST(LineSplitter, ALineThatIsTooLongIsReportedOnceWithoutItsText) {
  const std::string longest(LineSplitter::kMaxLineBytes, 'x');
  EXPECT_EQ(LinesOf({longest + "\n"}), Texts{longest});
  EXPECT_EQ(LinesOf({longest, "x", "x\na\n"}), (Texts{"(too long)", "a"}));
  EXPECT_EQ(LinesOf({longest + "x\na"}), (Texts{"(too long)", "a"}));
  EXPECT_EQ(LinesOf({longest + "x"}), Texts{"(too long)"});
  EXPECT_EQ(LinesOf({"a" + longest, "\n", "\n"}), (Texts{"(too long)", ""}));
}

TEST(LineSplitter, FinishesOnlyOnce) {
  int lines = 0;
  LineSplitter splitter([&](std::string_view, bool) { ++lines; });
  splitter.Feed("a");
  splitter.Finish();
  splitter.Finish();
  EXPECT_EQ(lines, 1);
}

}  // namespace
