#include "storage/NfsMounter.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "sharing/NfsData.h"
#include "storage/HalVolumeInfo.h"
#include "support/CapturedLog.h"
#include "support/NfsRootSetting.h"
#include "support/OwnNfsRoot.h"
#include "support/RecordedCommands.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kOptions = ",rsize=1280,soft,udp,noatime,nodiratime ";
const std::string kSource = "169.254.3.7:/media/sda1";
/// Where that is mounted.
const std::string kMountPath = "./mnt/169.254.3.7:-media-sda1";

NFS_DATA_T Share(const std::string& source = kSource) {
  NFS_DATA_T share;
  share.path = source;
  return share;
}

class NfsMounter : public testing::Test {
 protected:
  [[nodiscard]] bool Mount(const NFS_DATA_T& share) {
    return m_Mounter.MountRemoteShare(share, m_MountPath);
  }

  tRecordedCommands m_Commands;
  CNfsMounter m_Mounter{m_Commands.Runner()};
  std::string m_MountPath;

 private:
  const tOwnNfsRoot m_Root;
};

TEST_F(NfsMounter, MountsWritableOnlyWhatThePeerSharesWritable) {
  const struct {
    bool fromPeer;
    bool readOnly;
    const char* mode;
  } cases[] = {{true, false, "rw"}, {true, true, "ro"}, {false, false, "ro"}, {false, true, "ro"}};
  for (const auto& [fromPeer, readOnly, mode] : cases) {
    NFS_DATA_T share = Share();
    share.fromPeer = fromPeer;
    share.readOnly = readOnly;
    EXPECT_TRUE(Mount(share));
    EXPECT_EQ(m_MountPath, kMountPath);
    EXPECT_THAT(m_Commands.Take(), ElementsAre("mount -t nfs -o " + std::string(mode) + kOptions +
                                               kSource + " " + kMountPath));
    EXPECT_TRUE(Mount(share)) << "again, where it is mounted";
    EXPECT_THAT(m_Commands.Take(),
                ElementsAre("mountpoint -q " + kMountPath,
                            "mount -o remount," + std::string(mode) + " " + kMountPath));
    EXPECT_EQ(rmdir(kMountPath.c_str()), 0);
  }
}

TEST_F(NfsMounter, MakesADirectoryThatOnlyTheDaemonMayEnter) {
  ASSERT_TRUE(Mount(Share()));
  struct stat status {};
  ASSERT_EQ(stat(kMountPath.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
}

TEST_F(NfsMounter, MountsOnADirectoryThatIsThereAlready) {
  ASSERT_EQ(mkdir(kMountPath.c_str(), 0755), 0);
  m_Commands.End("mountpoint", 256);
  const tCapturedLog log;
  EXPECT_TRUE(Mount(Share()));
  const std::string command = "mount -t nfs -o ro" + kOptions + kSource + " " + kMountPath;
  EXPECT_THAT(m_Commands.Take(), ElementsAre("mountpoint -q " + kMountPath, command));
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogInfo, "Mount command: '" + command + "' PASS"}));
}

TEST_F(NfsMounter, TellsThatItRemounts) {
  ASSERT_EQ(mkdir(kMountPath.c_str(), 0755), 0);
  const tCapturedLog log;
  EXPECT_TRUE(Mount(Share()));
  EXPECT_THAT(
      log.Lines(),
      ElementsAre(
          tLogLine{kLogInfo, "Mountpoint: '" + kMountPath + "' is already mounted."},
          tLogLine{kLogInfo, "Mount command: 'mount -o remount,ro " + kMountPath + "' PASS"}));
}

TEST_F(NfsMounter, QuotesWhatComesFromTheNetwork) {
  const struct {
    const char* source;
    const char* words;
  } cases[] = {
      {"169.254.3.7:/media/my stick",
       "'169.254.3.7:/media/my stick' './mnt/169.254.3.7:-media-my stick'"},
      {"169.254.3.7:/a;reboot", "'169.254.3.7:/a;reboot' './mnt/169.254.3.7:-a;reboot'"},
      {"169.254.3.7:/$(id)", "'169.254.3.7:/$(id)' './mnt/169.254.3.7:-$(id)'"},
      {"169.254.3.7:/it's", R"('169.254.3.7:/it'\''s' './mnt/169.254.3.7:-it'\''s')"},
  };
  for (const auto& [source, words] : cases) {
    EXPECT_TRUE(Mount(Share(source)));
    EXPECT_THAT(m_Commands.Take(), ElementsAre("mount -t nfs -o ro" + kOptions + words));
  }
}

TEST_F(NfsMounter, HasFailedUnlessTheStatusIsZeroAndShowsItAsItIs) {
  for (const int status : {256, 32 * 256, 255 * 256, 9, -1}) {
    m_Commands.End("mount -t nfs", status);
    const tCapturedLog log;
    EXPECT_FALSE(Mount(Share()));
    EXPECT_THAT(m_Commands.Take(), testing::SizeIs(1)) << "nothing is tried again";
    EXPECT_THAT(log.Lines(),
                ElementsAre(tLogLine{
                    kLogError, "Mount command: 'mount -t nfs -o ro" + kOptions + kSource + " " +
                                   kMountPath + "' FAIL with error " + std::to_string(status)}));
    EXPECT_EQ(rmdir(kMountPath.c_str()), 0) << "the directory stays";
  }
}

TEST_F(NfsMounter, TriesToMountWhereNoDirectoryCanBeMade) {
  const tNfsRootSetting root("./missing/");
  const tCapturedLog log(kLogError);
  EXPECT_TRUE(Mount(Share()));
  EXPECT_THAT(m_Commands.Take(), ElementsAre("mount -t nfs -o ro" + kOptions + kSource +
                                             " ./missing/169.254.3.7:-media-sda1"));
  EXPECT_THAT(log.Lines(),
              ElementsAre(tLogLine{kLogError,
                                   "ERROR Failed to create directory "
                                   "'./missing/169.254.3.7:-media-sda1' with error "}));
}

TEST_F(NfsMounter, RefusesASourceThatLeadsOutOfTheRoot) {
  const struct {
    const char* source;
    const char* path;
  } cases[] = {{"", "./mnt/"}, {".", "./mnt/."}, {"..", "./mnt/.."}};
  for (const auto& [source, path] : cases) {
    const tCapturedLog log;
    EXPECT_FALSE(Mount(Share(source)));
    EXPECT_EQ(m_MountPath, path);
    EXPECT_THAT(m_Commands.Take(), IsEmpty());
    EXPECT_THAT(log.Lines(),
                ElementsAre(tLogLine{kLogError, std::string("MountRemoteShare: refused '") +
                                                    source + "' at '" + path + "'"}));
  }
}

TEST_F(NfsMounter, UnmountsByForceAndRemovesTheDirectory) {
  const struct {
    int status;
    bool unmounted;
    tLogLine line;
  } cases[] = {
      {0, true, {kLogInfo, "Umount command: umount -f -l " + kMountPath + " PASS"}},
      {256, false, {kLogError, "Umount command: umount -f -l " + kMountPath + " FAIL"}},
      {-1, false, {kLogError, "Umount command: umount -f -l " + kMountPath + " FAIL"}},
  };
  for (const auto& [status, unmounted, line] : cases) {
    for (const bool there : {true, false}) {
      if (there) {
        ASSERT_EQ(mkdir(kMountPath.c_str(), 0700), 0);
      }
      m_Commands.End("umount", status);
      const tCapturedLog log;
      EXPECT_EQ(m_Mounter.UnmountRemoteShare(Share(), m_MountPath), unmounted);
      EXPECT_EQ(m_MountPath, kMountPath);
      EXPECT_THAT(m_Commands.Take(), ElementsAre("umount -f -l " + kMountPath));
      EXPECT_NE(access(kMountPath.c_str(), F_OK), 0);
      EXPECT_THAT(log.Lines(), ElementsAre(line));
    }
  }
}

TEST_F(NfsMounter, KeepsADirectoryThatIsNotEmpty) {
  std::filesystem::create_directories(kMountPath + "/somebody's");
  const tCapturedLog log(kLogWarning);
  EXPECT_TRUE(m_Mounter.UnmountRemoteShare(Share(), m_MountPath));
  EXPECT_EQ(access(kMountPath.c_str(), F_OK), 0);
  EXPECT_THAT(log.Lines(), ElementsAre(tLogLine{kLogWarning, "Failed to remove " + kMountPath +
                                                                 ": Directory not empty"}));
}

TEST_F(NfsMounter, UnmountsALocalVolumeInSilence) {
  HalVolumeInfo info;
  info.MountPoint = "./mnt/my stick";
  for (const int status : {0, 256}) {
    ASSERT_EQ(mkdir("./mnt/my stick", 0700), 0);
    m_Commands.End("umount", status);
    const tCapturedLog log;
    EXPECT_EQ(m_Mounter.UnmountVolume(info), status == 0);
    EXPECT_THAT(m_Commands.Take(), ElementsAre("umount './mnt/my stick'"));
    EXPECT_NE(access("./mnt/my stick", F_OK), 0);
    EXPECT_THAT(log.Lines(), IsEmpty());
  }
}

}  // namespace
