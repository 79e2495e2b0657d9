#include "frame/Assert.h"

#include <gtest/gtest.h>

// This file is compiled with NDEBUG, which switches the C library's assertions off.
#ifndef NDEBUG
#error "The test must be built as an image would be"
#endif

namespace {

void RequirePositive(int number) {
  VOLDRAKE_ASSERT(number > 0);
}

TEST(AssertDeathTest, AFalseConditionAbortsAndNamesSourceFunctionAndCondition) {
  EXPECT_EXIT(RequirePositive(0), testing::KilledBySignal(SIGABRT),
              "^voldrake: AssertTest:[0-9]+: void .*RequirePositive\\(int\\): "
              "Assertion `number > 0' failed\\.\n(qemu: [^\n]*\n)?$");
}

TEST(AssertDeathTest, TheSourceIsNamedWithoutFolderAndEnding) {
  EXPECT_DEATH(AssertionFailed("x != 0", "/a/b.c/tThing.cpp", 7, "f"),
               "^voldrake: tThing:7: f: Assertion `x != 0' failed\\.\n(qemu: [^\n]*\n)?$");
  EXPECT_DEATH(AssertionFailed("x != 0", "tThing", 7, "f"),
               "^voldrake: tThing:7: f: Assertion `x != 0' failed\\.\n(qemu: [^\n]*\n)?$");
}

TEST(Assert, ATrueConditionDoesNothing) {
  RequirePositive(1);
}

TEST(Assert, TheConditionIsEvaluatedOnce) {
  int evaluations = 0;
  VOLDRAKE_ASSERT(++evaluations > 0);
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
