#include "hal/sim/CallFaults.h"

#include <gtest/gtest.h>

namespace {

using halsim::CallFaults;
using halsim::Delay;

/// The delay of the fault that waits for this call; 0 when none does.
unsigned Taken(CallFaults& faults, const std::string& method,
               const std::optional<std::string>& argument = std::nullopt) {
  const std::optional<halsim::Fault> fault = faults.Take(method, argument);
  return fault ? std::get<Delay>(*fault).ms : 0;
}

TEST(CallFaults, EachIsTakenOnceAndTheOldestFirst) {
  CallFaults faults;
  faults.Add("Mount", Delay{1});
  faults.Add("Eject", Delay{2});
  faults.Add("Mount", Delay{3});
  EXPECT_EQ(Taken(faults, "Mount"), 1U);
  EXPECT_EQ(Taken(faults, "Mount", "sda1"), 3U);
  EXPECT_EQ(Taken(faults, "Mount"), 0U);
  EXPECT_EQ(Taken(faults, "Eject"), 2U);
  EXPECT_EQ(Taken(faults, "Eject"), 0U);
}

TEST(CallFaults, AFaultWithAnArgumentWaitsForThatArgument) {
  CallFaults faults;
  faults.Add("Get:a", Delay{1});
  faults.Add("Get:", Delay{2});
  faults.Add("Get:b:c", Delay{3});
  faults.Add("Get", Delay{4});
  EXPECT_EQ(Taken(faults, "Get", "b:c"), 3U) << "divided by the first colon";
  EXPECT_EQ(Taken(faults, "Get", ""), 2U);
  EXPECT_EQ(Taken(faults, "Get", "x"), 4U);
  EXPECT_EQ(Taken(faults, "Get", "x"), 0U);
  EXPECT_EQ(Taken(faults, "Get"), 0U);
  EXPECT_EQ(Taken(faults, "get", "a"), 0U);
  EXPECT_EQ(Taken(faults, "Get", "a"), 1U);
}

TEST(CallFaults, AreForgottenTogether) {
  CallFaults faults;
  faults.Add("Get", Delay{1});
  faults.Clear();
  EXPECT_EQ(Taken(faults, "Get"), 0U);
}

}  // namespace
