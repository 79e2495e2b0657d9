#include "sharing/ServiceBrowser.h"

#include <gtest/gtest.h>

namespace {

TEST(ServiceBrowserDeathTest, NeedsAReceiver) {
  EXPECT_DEATH(CServiceBrowser(nullptr, ""),
               "voldrake: ServiceBrowser:[0-9]+: .*: Assertion `m_pCallback != 0' failed\\.");
}

}  // namespace
