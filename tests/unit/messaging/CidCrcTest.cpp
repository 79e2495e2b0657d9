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
  const std::string rest(28, '0');
  const struct {
    const char* pair;
    const char* counted;
  } cases[] = {{"zz", "00"}, {"1z", "01"}, {"z1", "00"}, {"fg", "0f"}, {" 1", "00"}, {"-1", "00"}};
  for (const auto& [pair, counted] : cases) {
    const std::string corrected = CidCrcCorrect(rest + pair + "00");
    const std::string reference = CidCrcCorrect(rest + counted + "00");
    EXPECT_EQ(corrected, rest + pair + reference.substr(30)) << pair;
  }
}

TEST(CidCrc, ARegisterOfAnotherLengthIsWarnedOfAndKept) {
  for (const size_t length : {0U, 1U, 31U, 33U, 64U}) {
    const tCapturedLog log;
    const std::string cid(length, 'a');
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
