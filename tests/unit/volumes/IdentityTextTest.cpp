#include "volumes/IdentityText.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <utime.h>

#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

namespace {

/// An identity file whose time the test sets.
class IdentityText : public testing::Test {
 protected:
  void Write(const char* content, time_t time) {
    m_Directory.Write("id", content);
    const utimbuf times{time, time};
    ASSERT_EQ(utime(m_Directory.Path("id").c_str(), &times), 0);
  }

  std::string Refreshed() {
    m_Text.Refresh();
    return m_Text.Text();
  }

  const tTemporaryDirectory m_Directory;
  tIdentityText m_Text{m_Directory.Path("id")};
};

TEST_F(IdentityText, IsEmptyBeforeTheFirstRefresh) {
  Write("ID-1\n", 1000);
  EXPECT_EQ(m_Text.Text(), "");
}

TEST_F(IdentityText, IsTheFirstLineOfTheFile) {
  Write(" ID-1 \nsecond\n", 1000);
  EXPECT_EQ(Refreshed(), "ID-1");
}

TEST_F(IdentityText, IsReadAgainWhenTheFilesTimeChanges) {
  Write("ID-1\n", 1000);
  EXPECT_EQ(Refreshed(), "ID-1");
  Write("ID-2\n", 1001);
  EXPECT_EQ(Refreshed(), "ID-2");
  Write("ID-3\n", 999);
  EXPECT_EQ(Refreshed(), "ID-3") << "an older time is a change too";
}

TEST_F(IdentityText, IsNotReadAgainWhileTheFilesTimeStays) {
  Write("ID-1\n", 1000);
  EXPECT_EQ(Refreshed(), "ID-1");
  Write("ID-2\n", 1000);
  EXPECT_EQ(Refreshed(), "ID-1");
}

TEST_F(IdentityText, IsEmptyWhileTheFileIsMissing) {
  EXPECT_EQ(Refreshed(), "");
  Write("ID-1\n", 1000);
  EXPECT_EQ(Refreshed(), "ID-1");
  ASSERT_EQ(unlink(m_Directory.Path("id").c_str()), 0);
  EXPECT_EQ(Refreshed(), "");
  Write("ID-2\n", 1000);
  EXPECT_EQ(Refreshed(), "ID-2");
}

TEST_F(IdentityText, ReportsAFileWhoseReadingFailsOnce) {
  const tCapturedLog log;
  tIdentityText directory(m_Directory.Path());
  directory.Refresh();
  directory.Refresh();
  EXPECT_EQ(directory.Text(), "");
  EXPECT_EQ(log.Lines(),
            std::vector<tLogLine>({{kLogWarning, "Identity file " + m_Directory.Path() +
                                                     " cannot be read: Is a directory"}}));
}

TEST_F(IdentityText, SaysNothingOfAFileThatIsReadOrMissing) {
  const tCapturedLog log;
  EXPECT_EQ(Refreshed(), "");
  Write("", 1000);
  EXPECT_EQ(Refreshed(), "");
  Write("ID-1\n", 1001);
  EXPECT_EQ(Refreshed(), "ID-1");
  ASSERT_EQ(unlink(m_Directory.Path("id").c_str()), 0);
  EXPECT_EQ(Refreshed(), "");
  EXPECT_TRUE(log.Lines().empty());
}

TEST_F(IdentityText, OfTheEmptyPathIsEmpty) {
  tIdentityText none("");
  none.Refresh();
  EXPECT_EQ(none.Text(), "");
}

}  // namespace
