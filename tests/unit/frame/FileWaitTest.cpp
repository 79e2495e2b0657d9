#include "frame/FileWait.h"

#include <gmock/gmock.h>

#include <thread>

#include "support/CapturedLog.h"
#include "support/Deadline.h"
#include "support/ProgramTime.h"
#include "support/TemporaryDirectory.h"

using std::chrono::seconds;
using testing::ElementsAre;

namespace {

const tLogLine kWaiting{kLogInfo, "Voldrake waiting for files to appear"};
const tLogLine kSomeMissing{kLogInfo, "Some files not found"};

tLogLine Found(const std::string& path) {
  return {kLogInfo, "Found: " + path};
}

/// Lets an hour pass once the log has this line. Joined by its owner.
std::thread AnHourPassesAfter(const tCapturedLog& log, const tLogLine& line) {
  return std::thread([&log, line] {
    EXPECT_TRUE(Eventually([&] { return log.Holds(line.level, line.message); }));
    LetTimePass(std::chrono::hours(1));
  });
}

TEST(FileWait, WithoutFilesOnlyTheFirstLineIsLogged) {
  const tCapturedLog log;
  WaitForFiles({}, seconds(5));
  EXPECT_THAT(log.Lines(), ElementsAre(kWaiting));
}

TEST(FileWait, FilesThatAreThereAreFoundAtOnceInListOrder) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string second = directory.Write("a", "x");
  const std::string first = directory.Write("b", "x");
  WaitForFiles({first, second, first}, seconds(3600));
  EXPECT_THAT(log.Lines(), ElementsAre(kWaiting, Found(first), Found(second), Found(first)));
}

TEST(FileWait, AnEmptyFileIsNotYetThere) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  std::thread time = AnHourPassesAfter(log, kWaiting);
  WaitForFiles({directory.Write("empty", "")}, seconds(3600));
  time.join();
  EXPECT_THAT(log.Lines(), ElementsAre(kWaiting, kSomeMissing));
}

TEST(FileWait, OneDeadlineCountsForTheWholeList) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string there = directory.Write("there", "x");
  const std::string behind = directory.Write("behind", "x");
  std::thread time = AnHourPassesAfter(log, Found(there));
  WaitForFiles({there, directory.Path("missing"), behind}, seconds(3600));
  time.join();
  EXPECT_THAT(log.Lines(), ElementsAre(kWaiting, Found(there), kSomeMissing))
      << "what stands behind the missing file is not looked at";
}

TEST(FileWait, AFileThatAppearsWhileWaitingIsFound) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string path = directory.Path("late");
  std::thread writer([&] {
    EXPECT_TRUE(Eventually([&] { return log.Holds(kWaiting.level, kWaiting.message); }));
    directory.Write("late", "x");
  });
  WaitForFiles({path}, seconds(3600));
  writer.join();
  EXPECT_THAT(log.Lines(), ElementsAre(kWaiting, Found(path)));
}

TEST(FileWait, TheWaitDoesNotEndMoreThanASecondEarly) {
  // The deadline is counted in whole seconds: up to one second is lost at its beginning.
  const auto start = std::chrono::steady_clock::now();
  const tTemporaryDirectory directory;
  WaitForFiles({directory.Path("missing")}, seconds(2));
  EXPECT_GE(std::chrono::steady_clock::now() - start, seconds(1));
}

TEST(FileWait, EachMissingOrEmptyFileIsNamed) {
  const tCapturedLog log;
  const tTemporaryDirectory directory;
  const std::string there = directory.Write("there", "x");
  const std::string empty = directory.Write("empty", "");
  const std::string missing = directory.Path("mis\nsing");
  WarnOfMissingFiles({empty, there, missing});
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogWarning, "Identity file " + empty + " is missing or empty"},
                          tLogLine{kLogWarning, "Identity file " + directory.Path("mis?sing") +
                                                    " is missing or empty"}));
}

}  // namespace
