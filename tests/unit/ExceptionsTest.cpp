// Linked with src/Exceptions.cpp and the C++ runtime inside, as the daemon is.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>

#include "support/CapturedLog.h"

namespace {

constexpr const char* kLastWords = "^voldrake: memory has run out, or a text or list was used";

TEST(ExceptionsDeathTest, LackOfMemoryEndsTheProcessWithALine) {
  const volatile size_t tooMuch = SIZE_MAX - 1'000'000;
  EXPECT_EXIT(::operator delete(::operator new(tooMuch)), testing::KilledBySignal(SIGABRT),
              kLastWords);
}

TEST(ExceptionsDeathTest, APositionBeyondTheEndEndsTheProcessWithALine) {
  std::string text = "a";
  EXPECT_EXIT(text = text.substr(2), testing::KilledBySignal(SIGABRT), kLastWords);
}

TEST(ExceptionsDeathTest, TheLogHasTheLineToo) {
  const tCapturedLog log;
  const volatile size_t tooMuch = SIZE_MAX - 1'000'000;
  EXPECT_EXIT(::operator delete(::operator new(tooMuch)), testing::KilledBySignal(SIGABRT),
              kLastWords);
  EXPECT_THAT(log.Text(),
              testing::MatchesRegex("[0-9:]+: Voldrake: Error:  memory has run out, or a text or "
                                    "list was used beyond its end\n"));
}

}  // namespace
