#include "storage/UsbHub.h"

#include <gtest/gtest.h>

namespace {

TEST(UsbHub, IsThePathSegmentBeforeTheHost) {
  const struct {
    const char* path;
    const char* hub;
  } cases[] = {
      {"/sys/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1.3/1-1.3:1.0/host2", "1-1_3--1_0"},
      {"/sys/devices/usb2/2-1/2-1.4/2-1.4:1.0/host5/target5:0:0/5:0:0:0", "2-1_4--1_0"},
      {"/sys/devices/usb1/plain/host0", "plain"},
      {"/a:b.c:d/host1", "a--b_c--d"},
      {"/:./host1", "--_"},
      {"/a/host2", "a"},
      {"/sys//host2", ""},
      {"/sys/usbhost1/1-1:1.0/host2", "usbhost1"},
      {"/sys/1-1:1.0/ghost", "ghost"},
      {"/sys/my.ghost:1/b/host3", "my_ghost--1"},
      {"/sys/a/host1/b/host2", "a"},
      {"/sys/a.b:c/host2/target2:0:0", "a_b--c"},
      {"x/ahost", "ahost"},
      {"/sys/plain/host1", "plain"},
      {"/sys/1-1:1.0/host", "1-1--1_0"},
  };
  for (const auto& [path, expected] : cases) {
    std::string hub = "before";
    EXPECT_TRUE(UsbHubFromSysfsPath(path, hub)) << path;
    EXPECT_EQ(hub, expected) << path;
  }
}

TEST(UsbHub, IsLeftAsItIsByAPathOfAnotherForm) {
  for (const char* path :
       {"", "/", "host", "host2", "/host2", "a/host2", "//host2", "ab/host2", "abchost2", "/ahost2",
        "/sys/devices/usb1/1-1", "/sys/1-1:1.0/HOST2", "/sys/1-1:1.0/hos"}) {
    std::string hub = "before";
    EXPECT_FALSE(UsbHubFromSysfsPath(path, hub)) << path;
    EXPECT_EQ(hub, "before") << path;
  }
}

}  // namespace
