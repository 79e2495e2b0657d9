#include "messaging/CidCrc.h"

#include <gmock/gmock.h>

#include "support/CapturedLog.h"

using testing::ElementsAre;

namespace {

/// The first 15 bytes of a register and the last one that belongs to them.
struct tVector {
  std::string digits;
  const char* last;
};

const tVector kVectors[] = {
    // Leading zeros do not count, so the command examples of the SD standard stand here as
    // registers: CMD0 (CRC7 0x4A), CMD17 (0x2A) and the response to it (0x33).
    {"000000000000000000004000000000", "95"},
    {"000000000000000000005100000000", "55"},
    {"000000000000000000001100000900", "67"},
    // Computed by long division by x^7 + x^3 + 1.
    {std::string(30, '0'), "01"},
    {"000000000000000000000000000001", "13"},
    {"800000000000000000000000000000", "89"},
    {std::string(30, 'f'), "ff"},
    {"0123456789abcdef0123456789abcd", "4d"},
    {"035344535355313647801234567800", "11"},
    {"0353445355303847802A5B1C4A00F3", "b1"},
    {"1b534d30303030301012f2f1f400d6", "b5"},
    {"02544d53413032471036ee52c60078", "0b"},
};

TEST(CidCrc, ReplacesTheLastByteByTheOneThatBelongsThere) {
  for (const auto& [digits, last] : kVectors) {
    EXPECT_EQ(CidCrcCorrect(digits + "00"), digits + last);
    EXPECT_EQ(CidCrcCorrect(digits + "FF"), digits + last);
    EXPECT_EQ(CidCrcCorrect(digits + "zz"), digits + last);
    EXPECT_EQ(CidCrcCorrect(digits + last), digits + last) << "a right one stays";
  }
}

TEST(CidCrc, TheLastByteIsAlwaysOdd) {
  for (int byte = 0; byte < 256; ++byte) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", byte);
    const std::string corrected = CidCrcCorrect(std::string(28, '0') + digits + "00");
    EXPECT_NE(std::string("13579bdf").find(corrected.back()), std::string::npos) << corrected;
  }
}

TEST(CidCrc, DigitsCountAlikeInUpperAndLowerCaseAndAreKept) {
  const std::string upper = "0123456789ABCDEF0123456789ABCD";
  EXPECT_EQ(CidCrcCorrect(upper + "00"), upper + "4d");
}

TEST(CidCrc, APairThatIsNotHexadecimalCountsAsFarAsItIs) {
  const struct {
    std::string pair;
    std::string counted;
  } cases[] = {{"zz", "00"}, {"1z", "01"}, {"z1", "00"}, {"fg", "0f"}, {"Gf", "00"},
               {"/9", "00"}, {"9:", "09"}, {"@A", "00"}, {"a`", "0a"}, {" 1", "00"},
               {"-1", "00"}, {"&<", "00"}, {"A0", "a0"}, {"F9", "f9"}};
  for (const auto& [pair, counted] : cases) {
    for (const size_t position : {0U, 14U, 28U}) {
      const std::string before(position, '0');
      const std::string behind(28 - position, '0');
      const std::string corrected = CidCrcCorrect(before + pair + behind + "00");
      const std::string reference = CidCrcCorrect(before + counted + behind + "00");
      EXPECT_EQ(corrected, before + pair + behind + reference.substr(30)) << pair;
    }
  }
}

TEST(CidCrc, ARegisterOfAnotherLengthIsWarnedOfAndKept) {
  const std::string cids[] = {
      "",
      "a",
      std::string(31, 'a'),
      std::string(33, 'a'),
      std::string(300, '0'),
      "0x" + std::string(32, '0'),
      "\xC3\x84" + std::string(31, '0'),  // 32 characters
  };
  for (const std::string& cid : cids) {
    const tCapturedLog log;
    EXPECT_EQ(CidCrcCorrect(cid), cid);
    EXPECT_THAT(log.Lines(),
                ElementsAre(tLogLine{kLogWarning, "Error computing CID CRC - Invalid CID length"}));
  }
}

TEST(CidCrc, LogsTheRegisterTheByteAndTheResultAsDebug) {
  const tCapturedLog log;
  const std::string zeros(32, '0');
  const std::string corrected = CidCrcCorrect(zeros);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogDebug, zeros}, tLogLine{kLogDebug, "01"},
                                       tLogLine{kLogDebug, corrected}));
}

}  // namespace
