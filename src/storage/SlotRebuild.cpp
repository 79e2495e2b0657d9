#include "storage/SlotRebuild.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string_view>
#include <thread>

#include "frame/FileDescriptor.h"
#include "frame/Log.h"
#include "frame/SystemCall.h"
#include "storage/tHalManager.h"

namespace {

constexpr std::chrono::seconds kTeardownPause{1};

void WriteWord(const std::string& path, std::string_view word) {
  const tFileDescriptor file(RetryInterrupted(
      [&] { return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666); }));
  if (!file.IsOpen()) return;
  // A card that is gone refuses the word; there is nothing left to rebuild then.
  [[maybe_unused]] const ssize_t written =
      RetryInterrupted([&] { return write(file.Get(), word.data(), word.size()); });
}

}  // namespace

tUeventFiles UeventFilesOf(const std::string& backingDevice) {
  // MMC block devices have major number 179 and eight minor numbers a card.
  if (backingDevice == "/dev/mmcblk0") {
    return {"/sys/dev/block/179:0/uevent", "/sys/dev/block/179:1/uevent", true};
  }
  if (backingDevice == "/dev/mmcblk1") {
    return {"/sys/dev/block/179:8/uevent", "/sys/dev/block/179:9/uevent", true};
  }
  if (backingDevice == "/dev/mmcblk2") {
    return {"/sys/dev/block/179:16/uevent", "/sys/dev/block/179:17/uevent", true};
  }
  return {"/dev/null", "/dev/null", false};
}

void tHalManager::_RebuildCardReaderTree(const std::string& backingDevice) {
  const tUeventFiles files = UeventFilesOf(backingDevice);
  if (!files.known) {
    Log("GetVolumeInfo() WEIRD:  Not mmcblk0, mmcblk1 or mmcblk2.  Please report this.", kLogDebug);
  }
  Log("GetVolumeInfo() Tearing down device tree.", kLogDebug);
  WriteWord(files.partition, "remove");
  WriteWord(files.disk, "remove");
  std::this_thread::sleep_for(kTeardownPause);
  Log("GetVolumeInfo() Rebuilding device tree.", kLogDebug);
  WriteWord(files.disk, "add");
  WriteWord(files.partition, "add");
}
