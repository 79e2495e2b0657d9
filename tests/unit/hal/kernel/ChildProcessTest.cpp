#include "hal/kernel/ChildProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>

#include "glib/Handles.h"
#include "support/TemporaryDirectory.h"

namespace {

using halkernel::ChildResult;
using halkernel::RunChild;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""h;

/// Runs a shell script as the child and the main loop until it has ended.
class Child : public testing::Test {
 protected:
  void Start(const std::vector<std::string>& words, std::chrono::milliseconds limit = 1h) {
    RunChild(
        words, limit,
        [this] {
          ++late_;
          g_main_loop_quit(loop_.get());
        },
        [this](const ChildResult& result) {
          result_ = result;
          ++ended_;
          g_main_loop_quit(loop_.get());
        });
  }
  ChildResult Run(const std::string& script) {
    Start({"sh", "-c", script});
    g_main_loop_run(loop_.get());
    return result_;
  }

  const glib::MainLoopPointer loop_{g_main_loop_new(nullptr, FALSE)};
  ChildResult result_;
  int late_ = 0;
  int ended_ = 0;
};

TEST_F(Child, TellsSuccessAndWhatWasWritten) {
  const ChildResult result = Run("echo one; echo two >&2");
  EXPECT_TRUE(result.succeeded);
  EXPECT_EQ(result.output, "one\ntwo\n");
}

TEST_F(Child, TellsFailure) {
  EXPECT_FALSE(Run("echo reason >&2; exit 32").succeeded);
  EXPECT_EQ(result_.output, "reason\n");
  EXPECT_FALSE(Run("kill -KILL $$").succeeded);
}

TEST_F(Child, AProgramThatIsNotThereFailsLaterWithTheReason) {
  Start({"/nowhere/mount"});
  EXPECT_EQ(ended_, 0);
  g_main_loop_run(loop_.get());
  EXPECT_EQ(ended_, 1);
  EXPECT_FALSE(result_.succeeded);
  EXPECT_THAT(result_.output, testing::HasSubstr("/nowhere/mount"));
}

TEST_F(Child, NoWordIsReadByAShell) {
  Start({"echo", "$HOME; `id`", "a  b"});
  g_main_loop_run(loop_.get());
  EXPECT_EQ(result_.output, "$HOME; `id` a  b\n");
}

TEST_F(Child, InputIsEmptyAndMessagesAreNotTranslated) {
  EXPECT_EQ(Run("cat; echo $LC_ALL").output, "C\n");
}

TEST_F(Child, OfMegabytesTheBeginningIsKept) {
  const ChildResult result = Run("echo first; head -c 8000000 /dev/zero | tr '\\0' x");
  EXPECT_TRUE(result.succeeded);
  EXPECT_EQ(result.output.size(), 4096U);
  EXPECT_EQ(result.output.substr(0, 7), "first\nx");
}

TEST_F(Child, WhatTakesTooLongIsToldAndGoesOn) {
  const tTemporaryDirectory directory;
  const std::string file = directory.Path("go");
  Start({"sh", "-c", "while [ ! -e \"$0\" ]; do sleep 0.01; done; echo done", file}, 1ms);
  g_main_loop_run(loop_.get());
  EXPECT_EQ(late_, 1);
  EXPECT_EQ(ended_, 0);
  directory.Write("go", "");
  g_main_loop_run(loop_.get());
  EXPECT_EQ(ended_, 1);
  EXPECT_TRUE(result_.succeeded);
  EXPECT_EQ(result_.output, "done\n");
}

TEST_F(Child, AHelperThatStaysIsNotWaitedForAndCanStillWrite) {
  const tTemporaryDirectory directory;
  Start({"sh", "-c",
         "cd \"$0\";"
         "(while [ ! -e go ]; do sleep 0.01; done; head -c 1000000 /dev/zero && echo > done) &"
         "echo mounted",
         directory.Path()});
  g_main_loop_run(loop_.get());
  EXPECT_EQ(ended_, 1);
  EXPECT_EQ(result_.output, "mounted\n");
  directory.Write("go", "");
  // Nobody who reads, or nobody who reads on, and it would not come so far.
  while (!directory.Holds("done")) {
    g_main_context_iteration(nullptr, FALSE);
    usleep(1000);
  }
}

}  // namespace
