#include "sharing/ServicePublisher.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>

#include "frame/FileDescriptor.h"
#include "sharing/ExportTable.h"
#include "sharing/SharingNames.h"
#include "support/Deadline.h"
#include "support/TemporaryDirectory.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int kServices = 1000;
constexpr int kPasses = 4;

/// Longer than every other path and last in their order, so that its announcement ends each pass.
const std::string kLastPath = "/media/z" + std::string(100, 'z');

/// What a process of its own ends with.
enum tOutcome {
  kRhythmKept = 0,
  kNotAllowed = 77,
  kNoSocket,
  kNoAnnouncement,
  kTooEarly,
  kTooCostly,
  kWaitsWithinAPass
};

/// What this process has used up, by the kernel's account: what it did not get while others ran
/// does not count.
struct tUse {
  nanoseconds processor{};
  long waits = 0;  ///< times that a thread gave the processor away
};

tUse UseSoFar() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec), usage.ru_nvcsw};
}

/// Gives this process a network of its own with an eth0 that has everything but its address, and an
/// exportfs that does nothing. False where the kernel does not allow it.
/// Requires: the process has one thread.
bool EnterOwnNetwork(const tTemporaryDirectory& directory) {
  const std::string identity = "0 " + std::to_string(geteuid()) + " 1";
  if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  std::ofstream("/proc/self/uid_map") << identity;
  std::ofstream(directory.Path("exportfs")) << "#!/bin/sh\nexit 0\n";
  const std::string path = directory.Path("") + ":/usr/sbin:/usr/bin:/sbin:/bin";
  return setenv("PATH", path.c_str(), 1) == 0 &&
         system(("chmod +x " + directory.Path("exportfs") +
                 " && ip link set lo up && ip link add eth0 type veth peer name cable"
                 " && ip link set cable up && ip link set eth0 up"
                 " && ip route add 224.0.0.0/4 dev eth0")
                    .c_str()) == 0;
}

/// A member of the announcements' group that takes only the last announcement of each pass.
tFileDescriptor ListenForLastPath() {
  tFileDescriptor ear(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto atLeast = static_cast<uint32_t>(kLastPath.size());
  sock_filter instructions[] = {BPF_STMT(BPF_LD | BPF_W | BPF_LEN, 0),
                                BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, atLeast, 0, 1),
                                BPF_STMT(BPF_RET | BPF_K, 0xFFFF), BPF_STMT(BPF_RET | BPF_K, 0)};
  const sock_fprog filter{4, instructions};
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_port = htons(kAnnouncementPort);
  ip_mreq membership{};
  membership.imr_multiaddr.s_addr = inet_addr(kAnnouncementGroup);
  const int on = 1;
  if (setsockopt(ear.Get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
      setsockopt(ear.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
      bind(ear.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 ||
      setsockopt(ear.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0) {
    ear.Reset();
  }
  return ear;
}

/// A datagram's time by the kernel's clock, nothing when none came.
std::optional<nanoseconds> AwaitPass(const tFileDescriptor& ear) {
  pollfd waiting{ear.Get(), POLLIN, 0};
  if (poll(&waiting, 1, milliseconds(kDeadline).count()) != 1) return std::nullopt;
  char byte = 0;
  iovec content{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  if (recvmsg(ear.Get(), &message, 0) < 0) return std::nullopt;
  const cmsghdr* const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_TIMESTAMPNS) return std::nullopt;
  timespec sent{};
  memcpy(&sent, CMSG_DATA(header), sizeof sent);
  return std::chrono::seconds(sent.tv_sec) + nanoseconds(sent.tv_nsec);
}

tOutcome AnnounceAThousand() {
  const tTemporaryDirectory directory;
  if (!EnterOwnNetwork(directory)) return kNotAllowed;
  const tFileDescriptor ear = ListenForLastPath();
  if (!ear.IsOpen()) return kNoSocket;
  tExportTable exports;
  CServicePublisher publisher(exports);
  publisher.Start();
  publisher.StartPublishing();
  for (int number = 1; number < kServices; ++number) {
    publisher.AddServiceNFS("/media/v" + std::to_string(number), MEDIA_TYPE_T::kVolume, "", "", "",
                            "USB Mass Storage", false);
  }
  publisher.AddServiceNFS(kLastPath, MEDIA_TYPE_T::kVolume, "", "", "", "", false);
  if (system("ip address add 169.254.1.1/16 dev eth0") != 0) return kNotAllowed;
  const std::optional<nanoseconds> first = AwaitPass(ear);
  const tUse before = UseSoFar();
  std::optional<nanoseconds> last = first;
  for (int pass = 1; pass < kPasses && last; ++pass) last = AwaitPass(ear);
  const tUse after = UseSoFar();
  publisher.Stop();
  if (!last) return kNoAnnouncement;
  if (*last - *first < milliseconds(990) * (kPasses - 1)) return kTooEarly;
  if (after.processor - before.processor > milliseconds(300) * (kPasses - 1)) return kTooCostly;
  return after.waits - before.waits < kServices / 10 ? kRhythmKept : kWaitsWithinAPass;
}

/// Between two passes lies a second's sleep; what is left to show is that a pass takes no time.
TEST(ServicePublisher, KeepsTheRhythmOfASecondWithAThousandServices) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(AnnounceAThousand());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  if (WEXITSTATUS(status) == kNotAllowed) GTEST_SKIP() << "no network namespaces here";
  EXPECT_EQ(WEXITSTATUS(status), kRhythmKept);
}

}  // namespace
