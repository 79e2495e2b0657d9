#include "frame/Log.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <thread>

#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

namespace {

TEST(Log, ALineIsTimeIdentPrefixAndMessage) {
  const tCapturedLog log;
  Log("Voldrake startup", kLogInfo);
  EXPECT_THAT(
      log.Text(),
      MatchesRegex("[0-9][0-9]:[0-9][0-9]:[0-9][0-9]: Voldrake: Log:    Voldrake startup\n"));
}

TEST(Log, EachLevelHasAPrefixOfEightCharacters) {
  const struct {
    int level;
    const char* prefix;
  } cases[] = {
      {kLogError, "Error:  "},
      {kLogWarning, "Warning:"},
      {kLogInfo, "Log:    "},
      {kLogDebug, "Debug:  "},
  };
  for (const auto& [level, prefix] : cases) {
    const tCapturedLog log;
    Log("Failed to remove /media/x: Directory not empty", level);
    EXPECT_EQ(log.Text().substr(8), std::string(": Voldrake: ") + prefix +
                                        "Failed to remove /media/x: Directory not empty\n");
  }
}

TEST(Log, ALineIsWrittenWhenItsLevelIsAtMostTheLogLevelAndOneOfTheFour) {
  for (int logLevel = -1; logLevel <= 6; ++logLevel) {
    const tCapturedLog log(logLevel);
    std::vector<tLogLine> expected;
    for (int level = -1; level <= 6; ++level) {
      Log("message", level);
      if (level >= 1 && level <= 4 && level <= logLevel) expected.push_back({level, "message"});
    }
    EXPECT_EQ(log.Lines(), expected) << "log level " << logLevel;
  }
}

TEST(Log, AMessageIsNeverTakenForAFormat) {
  const tCapturedLog log;
  Log("%s %n 100%", kLogInfo);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "%s %n 100%"}));
}

TEST(Log, LinesAreAppendedInOrder) {
  const tCapturedLog log;
  Log("first", kLogInfo);
  Log("", kLogError);
  Log("third", kLogDebug);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "first"}, tLogLine{kLogError, ""},
                                       tLogLine{kLogDebug, "third"}));
}

TEST(Log, AnExistingFileIsContinued) {
  const tTemporaryDirectory directory;
  const std::string path = directory.Write("log", "before\n");
  const tCapturedLog silent;  // restores the settings at the end
  SetLogFile(path);
  Log("after", kLogInfo);
  std::ifstream file(path);
  std::string line;
  ASSERT_TRUE(std::getline(file, line));
  EXPECT_EQ(line, "before");
  ASSERT_TRUE(std::getline(file, line));
  EXPECT_THAT(line, testing::EndsWith("after"));
}

TEST(Log, ADeletedFileIsMadeAgainByTheNextLine) {
  const tCapturedLog log;
  Log("before", kLogInfo);
  ASSERT_EQ(unlink(log.Path().c_str()), 0);
  Log("after", kLogInfo);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "after"}));
}

TEST(Log, AFileThatWasMovedAwayIsLeftAlone) {
  const tCapturedLog log;
  Log("before", kLogInfo);
  const std::string rotated = log.Path() + ".1";
  ASSERT_EQ(rename(log.Path().c_str(), rotated.c_str()), 0);
  Log("after", kLogInfo);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "after"}));
  std::ifstream file(rotated);
  std::string line;
  ASSERT_TRUE(std::getline(file, line));
  EXPECT_THAT(line, testing::EndsWith("before"));
  EXPECT_FALSE(std::getline(file, line));
}

TEST(Log, AFileThatCannotBeOpenedDropsTheLineAndOnlyThat) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  // On procfs nobody can make a file, whoever runs the test.
  for (const std::string& path :
       {directory.Path("missing/log"), directory.Path(), directory.Write("file", "") + "/log",
        directory.Path(std::string(300, 'x')), std::string("/proc/log")}) {
    SetLogFile(path);
    Log("dropped", kLogError);
  }
  EXPECT_FALSE(directory.Holds("missing"));
  SetLogFile(log.Path());
  Log("kept", kLogInfo);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "kept"}));
}

TEST(Log, AFullDiskDropsTheLine) {
  const tCapturedLog log;
  SetLogFile("/dev/full");
  Log("dropped", kLogError);
  SetLogFile(log.Path());
  Log("kept", kLogInfo);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogInfo, "kept"}));
}

TEST(Log, AVeryLongMessageIsWrittenWhole) {
  const tCapturedLog log;
  const std::string message(3'000'000, 'x');
  Log(message, kLogInfo);
  ASSERT_THAT(log.Lines(), SizeIs(1));
  EXPECT_EQ(log.Lines()[0], (tLogLine{kLogInfo, message}));
}

TEST(Log, LinesOfManyThreadsStayWhole) {
  constexpr int kThreads = 8;
  constexpr int kLines = 200;
  const tCapturedLog log;
  std::vector<std::thread> threads;
  std::vector<tLogLine> expected;
  for (int thread = 0; thread < kThreads; ++thread) {
    const std::string message = "thread " + std::to_string(thread) + std::string(300, '.');
    expected.insert(expected.end(), kLines, tLogLine{kLogInfo, message});
    threads.emplace_back([message] {
      for (int line = 0; line < kLines; ++line) Log(message, kLogInfo);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(std::ranges::is_permutation(log.Lines(), expected));
}

TEST(Log, LevelZeroSilencesEverything) {
  const tCapturedLog log(0);
  for (int level = 0; level <= 5; ++level) Log("message", level);
  EXPECT_THAT(log.Lines(), IsEmpty());
}

TEST(Log, WhyAFileCannotBeWrittenIsKnownBeforehandAndNothingIsMade) {
  const tTemporaryDirectory directory;
  const struct {
    std::string path;
    int error;
  } cases[] = {
      {directory.Write("file", ""), 0},
      {directory.Path("new"), 0},
      {directory.Link("link", directory.Path("new")), 0},
      {directory.Path(), EISDIR},
      {directory.Path() + "/", EISDIR},
      {directory.Path("missing/log"), ENOENT},
      {directory.Path("file/log"), ENOTDIR},
      {directory.Path(std::string(300, 'x')), ENAMETOOLONG},
      {"a-name-alone", 0},
  };
  for (const auto& [path, error] : cases) EXPECT_EQ(LogFileError(path), error) << path;
  EXPECT_FALSE(directory.Holds("new"));
  EXPECT_NE(access("a-name-alone", F_OK), 0);
}

}  // namespace
