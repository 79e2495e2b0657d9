#include "frame/NetworkInterfaces.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "frame/FileDescriptor.h"

namespace {

constexpr const char* kLongestName = "abcdefghijklmno";  // 15 characters, the kernel's limit

/// What a body in a network of its own reported.
enum tOutcome : int { kPassed = 0, kFailed = 1, kNotPossible = 2 };

/// Runs `body` in a child process with a network namespace that holds nothing but a loopback
/// interface that is down.
tOutcome InAnEmptyNetwork(const std::function<bool()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      _exit(kNotPossible);
    }
    _exit(body() ? kPassed : kFailed);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return kFailed;
  return static_cast<tOutcome>(WEXITSTATUS(status));
}

/// Renames "lo", gives it the address and brings it up, in the namespace of this process.
bool SetUpLoopback(const char* newName, const char* address) {
  const tFileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  strcpy(request.ifr_name, "lo");
  strcpy(request.ifr_newname, newName);
  if (ioctl(socket.Get(), SIOCSIFNAME, &request) != 0) return false;
  request = {};
  strcpy(request.ifr_name, newName);
  request.ifr_flags = IFF_UP;
  if (ioctl(socket.Get(), SIOCSIFFLAGS, &request) != 0) return false;
  sockaddr_in internet{};
  internet.sin_family = AF_INET;
  internet.sin_addr.s_addr = inet_addr(address);
  memcpy(&request.ifr_addr, &internet, sizeof internet);
  return ioctl(socket.Get(), SIOCSIFADDR, &request) == 0;
}

/// The addresses by the C library's own road.
std::vector<in_addr_t> AddressesByLibrary() {
  std::vector<in_addr_t> addresses;
  ifaddrs* list = nullptr;
  EXPECT_EQ(getifaddrs(&list), 0);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    sockaddr_in internet{};
    memcpy(&internet, entry->ifa_addr, sizeof internet);
    addresses.push_back(internet.sin_addr.s_addr);
  }
  freeifaddrs(list);
  std::ranges::sort(addresses);
  return addresses;
}

TEST(GetInterfaceAddresses, ListsTheAddressesOfThisMachine) {
  std::vector<in_addr_t> addresses{1, 2, 3};
  const std::vector<in_addr_t> expected = AddressesByLibrary();
  EXPECT_EQ(GetInterfaceAddresses(addresses), !expected.empty());
  std::ranges::sort(addresses);
  EXPECT_EQ(addresses, expected);
}

TEST(GetInterfaceAddresses, WithoutAnyAddressGivesAnEmptyListAndFalse) {
  const tOutcome outcome = InAnEmptyNetwork([] {
    std::vector<in_addr_t> addresses{1, 2, 3};
    return !GetInterfaceAddresses(addresses) && addresses.empty();
  });
  if (outcome == kNotPossible) GTEST_SKIP() << "no network namespaces here";
  EXPECT_EQ(outcome, kPassed);
}

TEST(GetInterfaceAddresses, AreInNetworkByteOrder) {
  const tOutcome outcome = InAnEmptyNetwork([] {
    std::vector<in_addr_t> addresses;
    return SetUpLoopback("lo", "169.254.3.7") && GetInterfaceAddresses(addresses) &&
           addresses == std::vector<in_addr_t>{inet_addr("169.254.3.7")};
  });
  if (outcome == kNotPossible) GTEST_SKIP() << "no network namespaces here";
  EXPECT_EQ(outcome, kPassed);
}

TEST(GetInterfaceAddress, OfAnInterfaceThatIsMissingIsZero) {
  in_addr_t address = 42;
  EXPECT_TRUE(GetInterfaceAddress("no-such-if", address));
  EXPECT_EQ(address, 0U);
  address = 42;
  EXPECT_TRUE(GetInterfaceAddress("", address));
  EXPECT_EQ(address, 0U);
}

TEST(GetInterfaceAddress, OfAnInterfaceWithoutOneIsZero) {
  const tOutcome outcome = InAnEmptyNetwork([] {
    in_addr_t address = 42;
    return GetInterfaceAddress("lo", address) && address == 0;
  });
  if (outcome == kNotPossible) GTEST_SKIP() << "no network namespaces here";
  EXPECT_EQ(outcome, kPassed);
}

TEST(GetInterfaceAddress, CountsTheNameUpToItsFifteenthCharacter) {
  const tOutcome outcome = InAnEmptyNetwork([] {
    in_addr_t whole = 0;
    in_addr_t longer = 0;
    in_addr_t shorter = 42;
    return SetUpLoopback(kLongestName, "10.1.2.3") && GetInterfaceAddress(kLongestName, whole) &&
           whole == inet_addr("10.1.2.3") &&
           GetInterfaceAddress(std::string(kLongestName) + "pqrstuvwxyz", longer) &&
           longer == whole && GetInterfaceAddress("abcdefghijklmn", shorter) && shorter == 0;
  });
  if (outcome == kNotPossible) GTEST_SKIP() << "no network namespaces here";
  EXPECT_EQ(outcome, kPassed);
}

}  // namespace
