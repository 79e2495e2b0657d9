#include "frame/Platform.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TemporaryDirectory.h"

namespace {

TEST(MmcHostIndex, IsTheNumberOfMmcEntriesLessOne) {
  const struct {
    std::vector<const char*> entries;
    int index;
  } cases[] = {
      {{}, 0},
      {{"mmc0"}, 0},
      {{"mmc0", "mmc1"}, 1},
      {{"mmc0", "mmc1", "mmc2"}, 2},
      {{"mmc0", "mmc1", "sd0", "xmmc1", "mm"}, 1},
      {{"mmc", "mmcblk0"}, 1},
      {{"MMC0", "MMC1"}, 0},
      {{"usb1", "usb2", "usb3"}, 0},
  };
  for (const auto& [entries, index] : cases) {
    const tTemporaryDirectory directory;
    for (const char* entry : entries) directory.MakeDirectory(entry);
    EXPECT_EQ(MmcHostIndex(directory.Path()), index) << testing::PrintToString(entries);
  }
}

TEST(MmcHostIndex, CountsFilesAndLinksToo) {
  const tTemporaryDirectory directory;
  directory.Write("mmc0", "");
  directory.Link("mmc1", "nowhere");
  EXPECT_EQ(MmcHostIndex(directory.Path()), 1);
}

TEST(MmcHostIndex, IsZeroForADirectoryThatCannotBeOpened) {
  const tTemporaryDirectory directory;
  EXPECT_EQ(MmcHostIndex(directory.Path("missing")), 0);
  EXPECT_EQ(MmcHostIndex(directory.Write("mmc", "a file")), 0);
}

TEST(PlatformFamily, IsTheSecondWordBehindAnInteger) {
  const struct {
    std::string content;
    std::string family;
  } cases[] = {
      {"3 hawk", "hawk"},
      {"3 hawk\n", "hawk"},
      {"3 hawk eagle\n", "hawk"},
      {"  3 \t hawk  \n", "hawk"},
      {"-12 hawk\n", "hawk"},
      {"3hawk\n", "hawk"},
      {"3\n", ""},
      {"3 \n", ""},
      {"3", ""},
      {"", ""},
      {"\n", ""},
      {"hawk\n", ""},
      {"hawk 3\n", ""},
      {"3\nhawk\n", ""},
      {"\n3 hawk\n", ""},
      {"3 " + std::string(509, 'h'), std::string(509, 'h')},
      {"3 " + std::string(600, 'h'), std::string(509, 'h')},
      {std::string(511, ' ') + "3 hawk", ""},
  };
  for (const auto& [content, family] : cases) {
    const tTemporaryDirectory directory;
    EXPECT_EQ(PlatformFamily(directory.Write("family_id", content)), family) << content;
  }
}

TEST(PlatformFamily, IsEmptyForAFileThatCannotBeRead) {
  const tTemporaryDirectory directory;
  EXPECT_EQ(PlatformFamily(directory.Path("missing")), "");
  EXPECT_EQ(PlatformFamily(directory.Path()), "");
  const std::string fifo = directory.Path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(PlatformFamily(fifo), "");
}

}  // namespace
