#include "storage/CardReader.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

using testing::ElementsAre;

namespace {

TEST(CardReader, IsKnownByItsVendorAndProduct) {
  const struct {
    int32_t vendor;
    int32_t product;
    bool cardReader;
    bool mediaReader;
  } cases[] = {
      {0x0424, 0x4040, true, true},   {0x0424, 0x2240, true, false}, {0x0424, 0x4041, false, false},
      {0x0424, 0x2241, false, false}, {0x0424, 0, false, false},     {0x0425, 0x4040, false, false},
      {0x0781, 0x2240, false, false}, {0, 0x4040, false, false},     {0, 0, false, false},
      {0x4040, 0x0424, false, false}, {-1, -1, false, false},
  };
  for (const auto& [vendor, product, cardReader, mediaReader] : cases) {
    EXPECT_EQ(IsSmscCardReader(vendor, product), cardReader) << vendor << ":" << product;
    EXPECT_EQ(IsSmscMediaReader(vendor, product), mediaReader) << vendor << ":" << product;
  }
}

TEST(CardReader, ThatDoesNotAnswerGivesZerosAndOneLine) {
  const tTemporaryDirectory directory;
  const std::string fifo = directory.Path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::string deep;
  for (int level = 0; level < 200; ++level) deep += "/dev";
  for (const std::string& device :
       {directory.Path("missing"), directory.Path(), directory.Write("file", "x"), fifo,
        directory.Link("to-itself", "to-itself"), std::string("/dev/null"), std::string(),
        std::string("sda1"), std::string("etc/passwd"), std::string("/"), deep,
        "/" + std::string(4090, 'x'), std::string(20'000, 'y')}) {
    const tCapturedLog log;
    std::string cid = "before";
    EXPECT_FALSE(ReadCardSerial(device.c_str(), cid)) << device;
    EXPECT_EQ(cid, std::string(32, '0')) << device;
    EXPECT_THAT(log.Lines(),
                ElementsAre(tLogLine{kLogInfo, "Unable to read serial number from " + device}));
  }
}

TEST(CardReader, ADeviceNameCannotBeginALogLineOfItsOwn) {
  const tCapturedLog log;
  std::string cid;
  EXPECT_FALSE(ReadCardSerial("/nowhere/\n12:00:00: Voldrake: Error:  forged", cid));
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0].level, kLogInfo);
}

}  // namespace
