#include <gtest/gtest.h>

#include "frame/Log.h"

namespace {

/// Keeps what the tests provoke out of the log of the machine that runs them.
class tQuietLog : public testing::Environment {
 public:
  void SetUp() override { SetLogLevel(0); }
};

[[maybe_unused]] const auto* const kQuietLog = testing::AddGlobalTestEnvironment(new tQuietLog);

}  // namespace
