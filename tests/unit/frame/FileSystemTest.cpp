#include "frame/FileSystem.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>

#include "support/CapturedLog.h"
#include "support/OrdinaryUser.h"
#include "support/TemporaryDirectory.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

tLogLine Warned(const std::string& text) {
  return {kLogWarning, "Failed to remove " + text};
}

TEST(RemoveDirectory, RemovesAnEmptyDirectory) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  EXPECT_EQ(RemoveDirectory(directory.MakeDirectory("d"), false), 0);
  EXPECT_FALSE(directory.Holds("d"));
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(RemoveDirectory, AMissingDirectoryIsASuccessWithoutALine) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  EXPECT_EQ(RemoveDirectory(directory.Path("missing"), false), 0);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(RemoveDirectory, WarnsWithTheReasonWhatItCannotRemove) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  directory.Write("full/file", "x");
  const std::string file = directory.Write("file", "x");
  const std::string link = directory.Link("link", "full");
  EXPECT_EQ(RemoveDirectory(directory.Path("full"), false), -1);
  EXPECT_EQ(RemoveDirectory(file, false), -1);
  EXPECT_EQ(RemoveDirectory(link, false), -1);
  EXPECT_THAT(log.Lines(),
              ElementsAre(Warned(directory.Path("full") + ": Directory not empty"),
                          Warned(file + ": Not a directory"), Warned(link + ": Not a directory")));
  EXPECT_TRUE(directory.Holds("full/file"));
}

TEST(RemoveDirectory, APathCannotBeginALogLineOfItsOwn) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  directory.Write("a\nb/file", "x");
  EXPECT_EQ(RemoveDirectory(directory.Path("a\nb"), false), -1);
  EXPECT_THAT(log.Lines(), ElementsAre(Warned(directory.Path("a?b") + ": Directory not empty")));
}

TEST(RemoveTree, RemovesAllThatATreeHolds) {
  for (const tLinkPolicy links : {tLinkPolicy::kFollow, tLinkPolicy::kDoNotFollow}) {
    const tCapturedLog log;
    const tTemporaryDirectory directory;
    directory.Write("tree/file", "x");
    directory.Write("tree/a/b/c/file", "x");
    directory.MakeDirectory("tree/a/empty");
    directory.Link("tree/to-file", "file");
    directory.Link("tree/dangling", "/nowhere/at/all");
    ASSERT_EQ(mkfifo(directory.Path("tree/fifo").c_str(), 0600), 0);
    EXPECT_EQ(RemoveDirectory(directory.Path("tree"), true, links), 0);
    EXPECT_FALSE(directory.Holds("tree"));
    EXPECT_THAT(log.Lines(), IsEmpty());
  }
}

TEST(RemoveTree, MeetsALinkToItselfAsALinkUnlessItFollowsLinks) {
  const tTemporaryDirectory directory;
  directory.MakeDirectory("tree");
  directory.Link("tree/to-itself", "to-itself");
  EXPECT_EQ(RemoveDirectory(directory.Path("tree"), true, tLinkPolicy::kFollow), -1);
  EXPECT_TRUE(directory.Holds("tree/to-itself"));
  EXPECT_EQ(RemoveDirectory(directory.Path("tree"), true, tLinkPolicy::kDoNotFollow), 0);
  EXPECT_FALSE(directory.Holds("tree"));
}

TEST(RemoveTree, GoesDeeperThanItHasDescriptors) {
  const tTemporaryDirectory directory;
  std::string deep = "tree";
  for (int level = 0; level < 60; ++level) {
    directory.Write(deep + "/file", "x");
    deep += "/d";
  }
  directory.MakeDirectory(deep);
  EXPECT_EQ(RemoveDirectory(directory.Path("tree"), true), 0);
  EXPECT_FALSE(directory.Holds("tree"));
}

TEST(RemoveTree, RemovesASingleFile) {
  const tTemporaryDirectory directory;
  EXPECT_EQ(RemoveDirectory(directory.Write("file", "x"), true), 0);
  EXPECT_FALSE(directory.Holds("file"));
}

TEST(RemoveTree, AMissingPathFailsWithoutALine) {
  for (const tLinkPolicy links : {tLinkPolicy::kFollow, tLinkPolicy::kDoNotFollow}) {
    const tCapturedLog log;
    const tTemporaryDirectory directory;
    EXPECT_EQ(RemoveDirectory(directory.Path("missing"), true, links), -1);
    EXPECT_THAT(log.Lines(), IsEmpty());
  }
}

/// A tree that holds a link to a directory outside of it.
class TreeWithALinkOutside : public testing::Test {
 protected:
  TreeWithALinkOutside() {
    m_Directory.Write("outside/kept/file", "x");
    m_Directory.Write("tree/file", "x");
    m_Directory.Link("tree/link", m_Directory.Path("outside"));
  }

  const tCapturedLog m_Log;
  const tTemporaryDirectory m_Directory;
};

TEST_F(TreeWithALinkOutside, LosesWhatTheLinkLeadsToWhenLinksAreFollowed) {
  EXPECT_EQ(RemoveDirectory(m_Directory.Path("tree"), true), 0);
  EXPECT_FALSE(m_Directory.Holds("tree"));
  EXPECT_TRUE(m_Directory.Holds("outside"));
  EXPECT_FALSE(m_Directory.Holds("outside/kept"));
}

TEST_F(TreeWithALinkOutside, LosesOnlyTheLinkWhenLinksAreNotFollowed) {
  EXPECT_EQ(RemoveDirectory(m_Directory.Path("tree"), true, tLinkPolicy::kDoNotFollow), 0);
  EXPECT_FALSE(m_Directory.Holds("tree"));
  EXPECT_TRUE(m_Directory.Holds("outside/kept/file"));
}

TEST_F(TreeWithALinkOutside, IsLeftAloneWhenItsOwnPathIsALinkThatIsNotFollowed) {
  m_Directory.Link("entry", m_Directory.Path("tree"));
  EXPECT_EQ(RemoveDirectory(m_Directory.Path("entry"), true, tLinkPolicy::kDoNotFollow), 0);
  EXPECT_FALSE(m_Directory.Holds("entry"));
  EXPECT_TRUE(m_Directory.Holds("tree/file"));
  EXPECT_TRUE(m_Directory.Holds("tree/link"));
}

TEST_F(TreeWithALinkOutside, KeepsTheFilesBehindLinksAndHardLinks) {
  m_Directory.Write("kept", "x");
  m_Directory.Link("tree/to-file", m_Directory.Path("kept"));
  std::filesystem::create_hard_link(m_Directory.Path("kept"), m_Directory.Path("tree/same"));
  EXPECT_EQ(RemoveDirectory(m_Directory.Path("tree"), true, tLinkPolicy::kDoNotFollow), 0);
  EXPECT_TRUE(m_Directory.Holds("kept"));
}

TEST(RemoveTree, FailsAtAnEntryThatCannotBeRemoved) {
  if (!tOrdinaryUser::IsPossible()) GTEST_SKIP() << "this root cannot act as anybody else";
  const tTemporaryDirectory directory;
  directory.Write("tree/inner/file", "x");
  ASSERT_EQ(chmod(directory.Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(directory.Path("tree").c_str(), 0777), 0);
  ASSERT_EQ(chmod(directory.Path("tree/inner").c_str(), 0555), 0);
  {
    const tOrdinaryUser user;
    EXPECT_NE(RemoveDirectory(directory.Path("tree"), true, tLinkPolicy::kDoNotFollow), 0);
  }
  EXPECT_TRUE(directory.Holds("tree/inner/file"));
}

TEST(RemoveTree, StopsAtTheFirstEntryThatCannotBeRemovedAndNamesIt) {
  // A directory of procfs can be walked, and none of its entries can be removed by anybody.
  const tCapturedLog log;
  EXPECT_NE(RemoveDirectory("/proc/self/fdinfo", true, tLinkPolicy::kDoNotFollow), 0);
  ASSERT_EQ(log.Lines().size(), 1U) << "the first failure ends the walk";
  EXPECT_EQ(log.Lines()[0].level, kLogWarning);
  EXPECT_THAT(log.Lines()[0].message,
              testing::MatchesRegex("Failed to remove /proc/self/fdinfo/[0-9]+"));
}

TEST(IsSameDevice, ComparesTheDevicesOfTwoPaths) {
  const tTemporaryDirectory directory;
  const std::string inner = directory.MakeDirectory("inner");
  const std::string file = directory.Write("file", "x");
  const std::string toProc = directory.Link("to-proc", "/proc");
  const std::string dangling = directory.Link("dangling", "nowhere");
  const struct {
    std::string left;
    std::string right;
    bool same;
  } cases[] = {
      {directory.Path(), inner, true},
      {directory.Path(), file, true},
      {inner, inner, true},
      {directory.Path(), "/proc", false},
      {"/proc", "/proc/self", true},
      {directory.Path(), toProc, false},
      {"/proc", toProc, true},
      {directory.Path(), directory.Path("missing"), false},
      {directory.Path("missing"), directory.Path(), false},
      {directory.Path("missing"), directory.Path("missing"), false},
      {directory.Path(), dangling, false},
      {directory.Path(), "/" + std::string(5000, 'n'), false},
      {"", "", false},
  };
  for (const auto& [left, right, same] : cases) {
    EXPECT_EQ(IsSameDevice(left, right), same) << left << " " << right;
  }
}

TEST(GetFileModifiedTime, IsTheFilesTimeInSeconds) {
  const tTemporaryDirectory directory;
  const std::string file = directory.Write("file", "x");
  const std::string link = directory.Link("link", "file");
  for (const time_t time : {time_t{1}, time_t{1'000'000'000}, time_t{2'000'000'000}}) {
    const utimbuf times{time, time};
    ASSERT_EQ(utime(file.c_str(), &times), 0);
    EXPECT_EQ(GetFileModifiedTime(file), time);
    EXPECT_EQ(GetFileModifiedTime(link), time) << "links are followed";
  }
}

TEST(GetFileModifiedTime, IsZeroForWhatCannotBeExamined) {
  const tTemporaryDirectory directory;
  EXPECT_EQ(GetFileModifiedTime(""), 0);
  EXPECT_EQ(GetFileModifiedTime(directory.Path("missing")), 0);
  EXPECT_EQ(GetFileModifiedTime(directory.Write("file", "x") + "/below"), 0);
}

TEST(GetFileModifiedTime, GoesBeyondThe32BitsOfOldUnits) {
  const tTemporaryDirectory directory;
  const std::string file = directory.Write("file", "x");
  constexpr time_t kYear2100 = 4'102'444'800;
  const utimbuf times{kYear2100, kYear2100};
  ASSERT_EQ(utime(file.c_str(), &times), 0);
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  if (status.st_mtime != kYear2100) GTEST_SKIP() << "the file system cannot store this time";
  EXPECT_EQ(GetFileModifiedTime(file), kYear2100);
}

TEST(ReadFile, GivesTheFirstBytesUpToTheLimit) {
  const tTemporaryDirectory directory;
  const std::string content("ab\0cd\xFF\n", 7);
  const std::string file = directory.Write("file", content);
  EXPECT_EQ(ReadFile(file, 6), content.substr(0, 6));
  EXPECT_EQ(ReadFile(file, 7), content);
  EXPECT_EQ(ReadFile(file, 8), content);
  EXPECT_EQ(ReadFile(file, 0), "");
}

TEST(ReadFile, GivesAFileOfManyBlocksWhole) {
  const tTemporaryDirectory directory;
  std::string content;
  for (int line = 0; line < 20'000; ++line) content += std::to_string(line) + "\n";
  EXPECT_EQ(ReadFile(directory.Write("file", content), content.size() + 1), content);
}

TEST(ReadFile, GivesNothingForAFileThatCannotBeOpened) {
  const tTemporaryDirectory directory;
  EXPECT_EQ(ReadFile(directory.Path("missing"), 10), std::nullopt);
  EXPECT_EQ(ReadFile("", 10), std::nullopt);
  EXPECT_EQ(ReadFile(directory.Link("dangling", "nowhere"), 10), std::nullopt);
  EXPECT_EQ(ReadFile(directory.Link("to-itself", "to-itself"), 10), std::nullopt);
}

TEST(ReadFile, GivesAnEmptyTextForWhatOpensButHoldsNothing) {
  const tTemporaryDirectory directory;
  const std::string fifo = directory.Path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(ReadFile(directory.Write("empty", ""), 10), "");
  EXPECT_EQ(ReadFile(directory.Path(), 10), "") << "a directory";
  EXPECT_EQ(ReadFile(fifo, 10), "") << "a FIFO that nobody writes";
}

TEST(ReadFirstLine, IsTheFirstLineWithoutWhiteSpaceAroundIt) {
  const struct {
    std::string content;
    std::string line;
  } cases[] = {
      {"", ""},
      {"ID-1", "ID-1"},
      {"ID-1\n", "ID-1"},
      {"ID-1\r\n", "ID-1"},
      {"ID-1\nsecond\n", "ID-1"},
      {" \t ID 1 \t \r\n", "ID 1"},
      {"\v\fID\v\f\n", "ID"},
      {"x", "x"},
      {"x\n", "x"},
      {" x\n", "x"},
      {" x ", "x"},
      {"\n", ""},
      {"\nsecond\n", ""},
      {"   \nsecond\n", ""},
      {"   ", ""},
      {"\xC3\xA4\xFF\n", "\xC3\xA4\xFF"},
      {std::string("ab\0cd\n", 6), "ab"},
      {std::string("ab \0cd\n", 7), "ab"},
      {std::string("\0ab\n", 4), ""},
      {std::string("a\nb\0c\n", 6), "a"},
      {std::string(510, 'x') + "\n", std::string(510, 'x')},
      {std::string(511, 'x') + "\n", std::string(511, 'x')},
      {std::string(512, 'x') + "\n", std::string(511, 'x')},
      {std::string(511, 'x') + "y", std::string(511, 'x')},
      {std::string(510, 'x') + " y\n", std::string(510, 'x')},
      {std::string(511, ' ') + "y\n", ""},
      {std::string(510, ' ') + "yz\n", "y"},
  };
  for (const auto& [content, line] : cases) {
    const tTemporaryDirectory directory;
    EXPECT_EQ(ReadFirstLine(directory.Write("file", content)), line)
        << testing::PrintToString(content);
  }
}

TEST(ReadFirstLine, OfAHugeFileIsRead) {
  const tTemporaryDirectory directory;
  EXPECT_EQ(ReadFirstLine(directory.Write("file", std::string(20'000'000, 'x'))),
            std::string(511, 'x'));
}

TEST(ReadFirstLine, IsEmptyForAFileThatCannotBeRead) {
  const tTemporaryDirectory directory;
  const std::string fifo = directory.Path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(ReadFirstLine(directory.Path("missing")), "");
  EXPECT_EQ(ReadFirstLine(""), "");
  EXPECT_EQ(ReadFirstLine(directory.Link("dangling", "nowhere")), "");
  EXPECT_EQ(ReadFirstLine(directory.Link("to-itself", "to-itself")), "");
  EXPECT_EQ(ReadFirstLine("/dev/null"), "");
  EXPECT_EQ(ReadFirstLine(directory.Path()), "") << "a directory";
  EXPECT_EQ(ReadFirstLine(fifo), "") << "a FIFO that nobody writes";
  EXPECT_EQ(ReadFirstLine("/proc/self/mem"), "") << "opens, but reading fails";
}

TEST(ReadFirstLine, TellsWhyAFileCannotBeRead) {
  const tTemporaryDirectory directory;
  const struct {
    std::string path;
    int error;
  } cases[] = {{directory.Path("missing"), ENOENT},
               {directory.Path(), EISDIR},
               {directory.Write("empty", ""), 0},
               {directory.Write("file", "text"), 0}};
  for (const auto& [path, expected] : cases) {
    int error = EINVAL;
    static_cast<void>(ReadFirstLine(path, &error));
    EXPECT_EQ(error, expected) << path;
  }
}

TEST(ReadFirstLine, IsEmptyForAFileWithoutReadPermission) {
  if (!tOrdinaryUser::IsPossible()) GTEST_SKIP() << "this root cannot act as anybody else";
  const tTemporaryDirectory directory;
  const std::string file = directory.Write("file", "secret\n");
  ASSERT_EQ(chmod(directory.Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(file.c_str(), 0), 0);
  const tOrdinaryUser user;
  EXPECT_EQ(ReadFirstLine(file), "");
}

}  // namespace
