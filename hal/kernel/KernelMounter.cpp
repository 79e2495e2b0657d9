#include "hal/kernel/KernelMounter.h"

#include <fcntl.h>
#include <glib.h>
#include <linux/cdrom.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "hal/face/DeviceBuilders.h"
#include "hal/face/HalNames.h"
#include "hal/face/Text.h"
#include "hal/kernel/BlockingCall.h"
#include "hal/kernel/ChildProcess.h"
#include "hal/kernel/FileContents.h"
#include "hal/kernel/Log.h"
#include "hal/kernel/MountCommand.h"

namespace halkernel {
namespace {

using hal::Device;
using hal::VolumeError;
using hal::VolumeFault;

constexpr std::string_view kMedia = "/media/";

// Below the 25 s that a client's library waits.
constexpr std::chrono::seconds kMountLimit{20};

// Names are tried until one is free; nobody has that many volumes of one label.
constexpr int kMaxNumber = 1000;

std::string InMedia(const std::string& name) {
  return std::string(kMedia) + name;
}

VolumeError Failure(std::string text) {
  return {VolumeFault::UnknownFailure, std::move(text)};
}

std::string Node(const Device& volume) {
  return hal::BaseName(volume.Text("block.device"));
}

/// Empty, and logged, if it cannot be read: a device may go at any time.
std::string ReadText(const std::string& path) {
  glib::ErrorHolder error;
  const std::optional<std::string> text = FileContents(path, error);
  if (!text) Log(LOG_WARNING, path + " cannot be read: " + error.Text());
  return text.value_or("");
}

bool IsReadOnlyMedium(const Device& volume) {
  return ReadText(volume.Text("linux.sysfs_path") + "/ro").starts_with('1');
}

bool HasNtfsHelper() {
  const glib::CharPointer found(g_find_program_in_path("mount.ntfs"));
  return found != nullptr || access("/sbin/mount.ntfs", X_OK) == 0;
}

std::string WithoutLineEnd(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

/// What mount(8) wrote, as a bus message can carry it.
std::string FailureText(const std::string& output) {
  const std::string text = WithoutLineEnd(output);
  if (text.empty()) return "mount failed without a message";
  const glib::CharPointer valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
  return valid.get();
}

VolumeError UnmountError(const std::string& mountPoint, int error) {
  const std::string text = mountPoint + ": " + std::strerror(error);
  switch (error) {
    case EBUSY:
      return {VolumeFault::Busy, text};
    case EINVAL:
      return {VolumeFault::NotMounted, text};
    default:
      return {VolumeFault::UnknownFailure, text};
  }
}

/// 0 or an error number.
int UnmountAt(const std::string& mountPoint, int flags) {
  return umount2(mountPoint.c_str(), flags | UMOUNT_NOFOLLOW) == 0 ? 0 : errno;
}

/// 0 or an error number; 0 also for a device that cannot be ejected.
int EjectDisk(const std::string& node) {
  const int descriptor = open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int error = ioctl(descriptor, CDROMEJECT) == 0 ? 0 : errno;
  close(descriptor);
  const bool cannot = error == ENOTTY || error == EINVAL || error == EOPNOTSUPP || error == ENOSYS;
  return cannot ? 0 : error;
}

}  // namespace

KernelMounter::KernelMounter(hal::DeviceTree& tree, const IMountSource& mounts,
                             std::function<void()> refresh, std::function<void()> onChange)
    : tree_(tree), mounts_(mounts), refresh_(std::move(refresh)), onChange_(std::move(onChange)) {}

void KernelMounter::Restore(const std::vector<std::string>& directories) {
  directories_.insert(directories.begin(), directories.end());
}

bool KernelMounter::IsMountPoint(const std::string& path) const {
  const auto& entries = mounts_.Current().entries;
  return std::any_of(entries.begin(), entries.end(),
                     [&](const MountEntry& entry) { return entry.target == path; });
}

bool KernelMounter::IsOwn(const std::string& mountPoint) const {
  return mountPoint.starts_with(kMedia) && directories_.contains(mountPoint.substr(kMedia.size()));
}

void KernelMounter::RemoveUnused() {
  std::vector<std::string> unused;
  for (const std::string& name : directories_) {
    if (!directoriesUnderWay_.contains(name) && !IsMountPoint(InMedia(name))) {
      unused.push_back(name);
    }
  }
  const std::size_t before = directories_.size();
  for (const std::string& name : unused) RemoveDirectory(name);
  if (directories_.size() != before) onChange_();
}

void KernelMounter::RemoveDirectory(const std::string& name) {
  if (rmdir(InMedia(name).c_str()) != 0 && errno != ENOENT) {
    // Something else is mounted there: kept until that goes, too.
    if (errno == EBUSY) return;
    Log(LOG_WARNING, "cannot remove " + InMedia(name) + ": " + std::strerror(errno));
  }
  directories_.erase(name);
}

void KernelMounter::Mount(const std::string& udi, const hal::MountRequest& request, Done done) {
  // Some changes of the table wake nobody.
  refresh_();
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr) return done(Failure("Volume " + udi + " is gone"));
  if (volumesUnderWay_.contains(udi)) {
    return done(Failure("Volume " + udi + " is being mounted"));
  }
  if (request.remount) return Remount(*volume, request, std::move(done));
  if (hal::IsMounted(*volume)) {
    return done(VolumeError{VolumeFault::AlreadyMounted, "Volume " + udi + " is already mounted"});
  }
  std::string name;
  if (const Outcome refused = MakeDirectory(*volume, request.name, name)) return done(refused);
  const std::string fstype =
      TypeToMount(request.fstype, ReadText("/proc/filesystems"), HasNtfsHelper());
  auto job = std::make_shared<Job>(
      Job{udi, Node(*volume) + ": mounted at " + InMedia(name) + " as " + fstype, name,
          std::move(done)});
  Start(MountWords(request, fstype, IsReadOnlyMedium(*volume), volume->Text("block.device"),
                   InMedia(name)),
        job, [this, job](const std::string& output) { return MountOutcome(*job, output); });
}

void KernelMounter::Remount(const Device& volume, const hal::MountRequest& request, Done done) {
  const bool readOnlyMedium = IsReadOnlyMedium(volume);
  if (!hal::IsMounted(volume) || (readOnlyMedium && request.readWrite)) {
    return done(
        VolumeError{VolumeFault::CannotRemount, "Volume " + volume.udi + " cannot be remounted"});
  }
  const bool readOnly = readOnlyMedium || request.readOnly;
  auto job = std::make_shared<Job>(Job{
      volume.udi, Node(volume) + ": remounted " + (readOnly ? "ro" : "rw"), "", std::move(done)});
  Start(RemountWords(readOnly, volume.Text(hal::kVolumeMountPoint)), job,
        [this, udi = volume.udi, readOnly](const std::string& output) -> Outcome {
          const Device* mounted = tree_.Find(udi);
          const bool* isReadOnly =
              mounted != nullptr ? mounted->Get<bool>(hal::kVolumeIsMountedReadOnly) : nullptr;
          if (isReadOnly != nullptr && *isReadOnly == readOnly) return std::nullopt;
          return Failure(FailureText(output));
        });
}

/// 0 or an error number.
int KernelMounter::MakeOwnDirectory(const std::string& name) {
  const std::string path = InMedia(name);
  if (faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  // Kept before it is made: should the service be killed in between, the next run removes it.
  directories_.insert(name);
  directoriesUnderWay_.insert(name);
  onChange_();
  if (mkdir(path.c_str(), 0755) == 0) return 0;
  const int error = errno;
  directories_.erase(name);
  directoriesUnderWay_.erase(name);
  onChange_();
  return error;
}

/// The name was given and is taken, or nothing can be made under /media: an error.
KernelMounter::Outcome KernelMounter::MakeDirectory(const Device& volume, const std::string& wanted,
                                                    std::string& name) {
  for (int number = 0; number < kMaxNumber; ++number) {
    name = wanted.empty() ? hal::DefaultName(volume, number) : wanted;
    const int error = MakeOwnDirectory(name);
    if (error == 0) return std::nullopt;
    if (error != EEXIST) {
      return Failure("Cannot create " + InMedia(name) + ": " + std::strerror(error));
    }
    if (!wanted.empty()) break;
  }
  return VolumeError{VolumeFault::MountPointNotAvailable,
                     "The mount point " + InMedia(name) + " is taken"};
}

/// `outcome` is asked after the table has been read again.
void KernelMounter::Start(const std::vector<std::string>& words, const std::shared_ptr<Job>& job,
                          std::function<Outcome(const std::string& output)> outcome) {
  volumesUnderWay_.insert(job->udi);
  const auto late = [job] {
    std::exchange(job->done, nullptr)(
        Failure("mount has not finished after " + std::to_string(kMountLimit.count()) + " s"));
  };
  const auto ended = [this, job, outcome = std::move(outcome)](const ChildResult& result) {
    volumesUnderWay_.erase(job->udi);
    refresh_();
    const Outcome failed = outcome(result.output);
    directoriesUnderWay_.erase(job->name);
    RemoveUnused();
    if (!failed) Log(LOG_INFO, job->success);
    if (job->done != nullptr) {
      job->done(failed);
    } else if (failed) {
      Log(LOG_NOTICE, "the mount that took too long failed: " + failed->text);
    }
  };
  RunChild(words, kMountLimit, late, ended);
}

/// The table decides; what mount(8) says of itself is only the text of a failure.
KernelMounter::Outcome KernelMounter::MountOutcome(const Job& job, const std::string& output) {
  const std::string directory = InMedia(job.name);
  if (!IsMountPoint(directory)) return Failure(FailureText(output));
  const Device* volume = tree_.Find(job.udi);
  if (volume != nullptr && hal::IsMounted(*volume)) return std::nullopt;
  // The device vanished while it was being mounted.
  Detach(directory);
  refresh_();
  return Failure("Volume " + job.udi + " is gone");
}

KernelMounter::Outcome KernelMounter::CheckUnmount(const std::string& udi,
                                                   std::string& mountPoint) const {
  const Device* volume = tree_.Find(udi);
  if (volume == nullptr || !hal::IsMounted(*volume)) {
    return VolumeError{VolumeFault::NotMounted, "Volume " + udi + " is not mounted"};
  }
  mountPoint = volume->Text(hal::kVolumeMountPoint);
  if (IsOwn(mountPoint)) return std::nullopt;
  return VolumeError{VolumeFault::NotMountedByHal,
                     "Volume " + udi + " was mounted by somebody else"};
}

void KernelMounter::Unmount(const std::string& udi, bool lazy, Done done) {
  refresh_();
  std::string mountPoint;
  if (const Outcome refused = CheckUnmount(udi, mountPoint)) return done(refused);
  const auto work = [mountPoint, lazy] { return UnmountAt(mountPoint, lazy ? MNT_DETACH : 0); };
  CallInThread(work, [this, mountPoint, done = std::move(done)](int error) {
    if (error == 0) Log(LOG_INFO, mountPoint + ": unmounted");
    refresh_();
    RemoveUnused();
    done(error == 0 ? Outcome() : UnmountError(mountPoint, error));
  });
}

void KernelMounter::Eject(const std::string& udi, Done done) {
  refresh_();
  const Device* ejected = tree_.Find(udi);
  if (ejected == nullptr) return done(Failure("No volume " + udi));
  const std::string storage = ejected->Text("block.storage_device");
  std::vector<std::string> mountPoints;
  for (const Device& device : tree_.Devices()) {
    const bool isHere =
        device.kind == hal::DeviceKind::Volume && device.Text("block.storage_device") == storage;
    if (!isHere) continue;
    if (volumesUnderWay_.contains(device.udi)) {
      return done(VolumeError{VolumeFault::Busy, "Volume " + device.udi + " is being mounted"});
    }
    if (!hal::IsMounted(device)) continue;
    if (const Outcome refused = CheckUnmount(device.udi, mountPoints.emplace_back())) {
      return done(refused);
    }
  }
  const Device* disk = tree_.Find(storage);
  const std::string node = disk != nullptr ? disk->Text("block.device") : "";
  // The mount point that could not be unmounted; empty: all could.
  const auto failedAt = std::make_shared<std::string>();
  const auto work = [mountPoints, node, failedAt] {
    for (const std::string& mountPoint : mountPoints) {
      if (const int error = UnmountAt(mountPoint, 0); error != 0) {
        *failedAt = mountPoint;
        return error;
      }
    }
    return EjectDisk(node);
  };
  CallInThread(work, [this, node, failedAt, done = std::move(done)](int error) {
    refresh_();
    RemoveUnused();
    if (error == 0) {
      Log(LOG_INFO, node + ": ejected");
      done(std::nullopt);
    } else if (!failedAt->empty()) {
      done(UnmountError(*failedAt, error));
    } else {
      done(Failure("Cannot eject " + node + ": " + std::strerror(error)));
    }
  });
}

void KernelMounter::Detach(const std::string& mountPoint) {
  if (const int error = UnmountAt(mountPoint, MNT_DETACH); error != 0) {
    Log(LOG_WARNING, "cannot detach " + mountPoint + ": " + std::strerror(error));
    return;
  }
  const std::string name = IsOwn(mountPoint) ? mountPoint.substr(kMedia.size()) : "";
  if (name.empty() || directoriesUnderWay_.contains(name)) return;
  RemoveDirectory(name);
  onChange_();
}

void KernelMounter::Reopen(const std::string& node) {
  const auto work = [node] {
    const int descriptor = open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor >= 0) close(descriptor);
    return 0;
  };
  CallInThread(work, [](int) {});
}

}  // namespace halkernel
