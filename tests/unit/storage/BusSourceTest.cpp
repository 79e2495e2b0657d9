#include "storage/BusSource.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "storage/DBusHandles.h"
#include "support/Deadline.h"
#include "support/TemporaryDirectory.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kPath = "/a";
constexpr const char* kInterface = "a.b";
constexpr const char* kMember = "C";
constexpr int kNoDeadline = -1;
constexpr int kLongMs = 3'600'000;

struct tConnectionClose {
  void operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
  }
};
using tConnection = std::unique_ptr<DBusConnection, tConnectionClose>;

struct tContextRelease {
  void operator()(GMainContext* context) const { g_main_context_unref(context); }
};

struct tSourceDestroy {
  void operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
  }
};

struct tPendingRelease {
  void operator()(DBusPendingCall* call) const {
    dbus_pending_call_cancel(call);
    dbus_pending_call_unref(call);
  }
};
using tPending = std::unique_ptr<DBusPendingCall, tPendingRelease>;

tDBusMessage Signal(const char* member = kMember) {
  return tDBusMessage(dbus_message_new_signal(kPath, kInterface, member));
}

/// Makes a message longer than a socket holds, so that it is sent in pieces.
void MakeLong(DBusMessage* message) {
  const std::string text(1'000'000, 'x');
  const char* bytes = text.c_str();
  dbus_message_append_args(message, DBUS_TYPE_STRING, &bytes, DBUS_TYPE_INVALID);
}

/// What a context would sleep on: its descriptors and how long, in milliseconds.
struct tSleep {
  std::vector<short> polled;  // the conditions asked for, of each descriptor but the context's own
  int timeoutMs;
  int descriptors;  // all of them
  int ready;        // how many descriptors would end the sleep at once
};

/// Two connected ends on the test's own thread: `Ours`, which `Context` serves, and `Peer`'s, which
/// is moved on by hand.
class BusSource : public testing::Test {
 protected:
  void SetUp() override {
    const std::string address = "unix:path=" + m_Directory.Path("bus");
    m_pServer = dbus_server_listen(address.c_str(), nullptr);
    ASSERT_NE(m_pServer, nullptr);
    dbus_server_set_new_connection_function(m_pServer, _Accept, this, nullptr);
    dbus_server_set_watch_functions(m_pServer, _KeepWatch, _DropWatch, nullptr, this, nullptr);
    m_Ours.reset(dbus_connection_open_private(address.c_str(), nullptr));
    ASSERT_NE(m_Ours, nullptr);
    dbus_connection_set_exit_on_disconnect(m_Ours.get(), FALSE);
    dbus_connection_add_filter(m_Ours.get(), _Note, this, nullptr);
    ASSERT_TRUE(AttachToMainContext(m_Ours.get(), m_Context.get()));
    dbus_watch_handle(m_pServerWatch, DBUS_WATCH_READABLE);
    ASSERT_TRUE(m_Peer);
    ASSERT_TRUE(Until([&] { return dbus_connection_get_is_authenticated(m_Ours.get()); }));
    ASSERT_TRUE(Until([&] { return dbus_connection_get_is_authenticated(m_Peer.get()); }));
    Settle();
  }

  void TearDown() override {
    m_Ours.reset();
    m_Peer.reset();
    dbus_server_disconnect(m_pServer);
    dbus_server_unref(m_pServer);
  }

  DBusConnection* Ours() { return m_Ours.get(); }
  DBusConnection* Peer() { return m_Peer.get(); }
  GMainContext* Context() { return m_Context.get(); }
  void CloseOurs() { m_Ours.reset(); }
  void CloseThePeer() { m_Peer.reset(); }

  bool Iterate() { return g_main_context_iteration(Context(), FALSE); }

  /// Lets the context handle all that is there. A failure when that never ends.
  void Settle() {
    int left = 1000;
    while (Iterate() && left > 0) --left;
    EXPECT_GT(left, 0);
  }

  /// Moves both ends on until the condition holds.
  template <typename tCondition>
  bool Until(tCondition condition) {
    return Eventually([&] {
      for (int i = 0; i < 100 && !condition(); ++i) {
        Iterate();
        if (m_Peer) dbus_connection_read_write_dispatch(Peer(), 0);
      }
      return condition();
    });
  }

  void PeerSends(tDBusMessage message) {
    dbus_connection_send(Peer(), message.get(), nullptr);
    dbus_connection_flush(Peer());
  }

  tPending CallThePeer(int timeoutMs) {
    const tDBusMessage call(dbus_message_new_method_call(nullptr, kPath, kInterface, kMember));
    DBusPendingCall* pending = nullptr;
    dbus_connection_send_with_reply(Ours(), call.get(), &pending, timeoutMs);
    return tPending(pending);
  }

  tSleep Sleep() {
    EXPECT_TRUE(g_main_context_acquire(Context()));
    int priority = 0;
    g_main_context_prepare(Context(), &priority);
    GPollFD descriptors[16] = {};
    tSleep sleep{};
    const int count = g_main_context_query(Context(), priority, &sleep.timeoutMs, descriptors, 16);
    sleep.descriptors = count;
    int own = -1;
    if (m_Ours) dbus_connection_get_unix_fd(Ours(), &own);
    for (int i = 0; i < count; ++i) {
      if (descriptors[i].fd == own) {
        sleep.polled.push_back(static_cast<short>(descriptors[i].events));
      }
    }
    sleep.ready = g_poll(descriptors, static_cast<guint>(count), 0);
    g_main_context_check(Context(), priority, descriptors, count);
    g_main_context_release(Context());
    return sleep;
  }

  /// The members of the messages that were dispatched, and what tests note in between.
  std::vector<std::string> m_Noted;
  std::vector<tDBusMessage> m_Kept;
  bool m_Keeps = false;
  bool m_Detaches = false;

 private:
  static void _Accept(DBusServer*, DBusConnection* connection, void* self) {
    dbus_connection_ref(connection);
    static_cast<BusSource*>(self)->m_Peer.reset(connection);
  }
  static dbus_bool_t _KeepWatch(DBusWatch* watch, void* self) {
    static_cast<BusSource*>(self)->m_pServerWatch = watch;
    return TRUE;
  }
  static void _DropWatch(DBusWatch*, void*) {}
  static DBusHandlerResult _Note(DBusConnection* connection, DBusMessage* message, void* data) {
    auto* const self = static_cast<BusSource*>(data);
    const char* member = dbus_message_get_member(message);
    self->m_Noted.emplace_back(member != nullptr ? member : "answer");
    if (self->m_Keeps) self->m_Kept.emplace_back(dbus_message_ref(message));
    if (self->m_Detaches) DetachFromMainContext(connection);
    return DBUS_HANDLER_RESULT_HANDLED;
  }

  tTemporaryDirectory m_Directory;
  std::unique_ptr<GMainContext, tContextRelease> m_Context{g_main_context_new()};
  DBusServer* m_pServer = nullptr;
  DBusWatch* m_pServerWatch = nullptr;
  tConnection m_Ours;
  tConnection m_Peer;
};

TEST_F(BusSource, AtRestPollsForInputOnlyAndWithoutAnEnd) {
  const tSleep sleep = Sleep();
  EXPECT_THAT(sleep.polled, ElementsAre(POLLIN));
  EXPECT_EQ(sleep.timeoutMs, kNoDeadline);
  EXPECT_EQ(sleep.ready, 0);
}

TEST_F(BusSource, DispatchesOneMessageBeforeTheOthersTurn) {
  for (const char* member : {"First", "Second", "Third"}) PeerSends(Signal(member));
  const std::unique_ptr<GSource, tSourceDestroy> other(g_idle_source_new());
  g_source_set_priority(other.get(), G_PRIORITY_DEFAULT);
  const auto note = [](gpointer noted) -> gboolean {
    static_cast<std::vector<std::string>*>(noted)->emplace_back("other");
    return G_SOURCE_CONTINUE;
  };
  g_source_set_callback(other.get(), note, &m_Noted, nullptr);
  g_source_attach(other.get(), Context());
  for (int i = 0; i < 4; ++i) Iterate();
  EXPECT_THAT(m_Noted, ElementsAre("other",  // all three were read in the first iteration
                                   "First", "other", "Second", "other", "Third", "other"));
}

TEST_F(BusSource, DispatchesWhatACallLeftBehindWithoutAnythingNewComingIn) {
  PeerSends(Signal());
  dbus_connection_read_write(Ours(), 0);
  ASSERT_EQ(dbus_connection_get_dispatch_status(Ours()), DBUS_DISPATCH_DATA_REMAINS);
  Settle();
  EXPECT_THAT(m_Noted, ElementsAre(kMember));
}

TEST_F(BusSource, SendsOnWhenThePeerReadsOn) {
  const tDBusMessage message = Signal();
  MakeLong(message.get());
  dbus_connection_send(Ours(), message.get(), nullptr);
  EXPECT_TRUE(dbus_connection_has_messages_to_send(Ours()));
  EXPECT_THAT(Sleep().polled, ElementsAre(POLLIN | POLLOUT));
  EXPECT_TRUE(Until([&] { return !dbus_connection_has_messages_to_send(Ours()); }));
  Settle();
  EXPECT_THAT(Sleep().polled, ElementsAre(POLLIN));
}

// ---- Deadlines

TEST_F(BusSource, ACallThatIsNotAnsweredEndsAtItsDeadline) {
  constexpr int kShortMs = 50;
  const gint64 begin = g_get_monotonic_time();
  const tPending late = CallThePeer(kLongMs);
  const tPending soon = CallThePeer(kShortMs);
  const int timeoutMs = Sleep().timeoutMs;
  EXPECT_GE(timeoutMs, 0);
  EXPECT_LE(timeoutMs, kShortMs);
  g_main_context_iteration(Context(), TRUE);  // sleeps until then
  Iterate();                                  // dispatches what comes of it
  ASSERT_TRUE(dbus_pending_call_get_completed(soon.get()));
  EXPECT_GE(g_get_monotonic_time() - begin, kShortMs * 1000);
  const tDBusMessage reply(dbus_pending_call_steal_reply(soon.get()));
  EXPECT_STREQ(dbus_message_get_error_name(reply.get()), DBUS_ERROR_NO_REPLY);
  EXPECT_FALSE(dbus_pending_call_get_completed(late.get()));
  EXPECT_GT(Sleep().timeoutMs, kShortMs);
}

TEST_F(BusSource, ADeadlineCountsFromTheCallAndNotFromTheIteration) {
  constexpr int kPauseMs = 30;
  g_usleep(gulong{kPauseMs} * 1000);  // as in a handler that blocks
  const gint64 begin = g_get_monotonic_time();
  const tPending call = CallThePeer(kPauseMs);
  g_main_context_iteration(Context(), TRUE);
  Iterate();
  ASSERT_TRUE(dbus_pending_call_get_completed(call.get()));
  EXPECT_GE(g_get_monotonic_time() - begin, kPauseMs * 1000);
}

TEST_F(BusSource, AnAnsweredCallLeavesNoDeadline) {
  const tPending call = CallThePeer(kLongMs);
  EXPECT_GT(Sleep().timeoutMs, 0);
  EXPECT_TRUE(Until([&] { return dbus_pending_call_get_completed(call.get()); }));
  Settle();
  EXPECT_EQ(Sleep().timeoutMs, kNoDeadline);
}

TEST_F(BusSource, ACancelledCallLeavesNoDeadline) {
  CallThePeer(kLongMs).reset();
  EXPECT_EQ(Sleep().timeoutMs, kNoDeadline);
}

TEST_F(BusSource, HasRoomForEightDeadlines) {
  std::vector<tPending> calls;
  for (int i = 0; i < 8; ++i) {
    calls.push_back(CallThePeer(kLongMs));
    ASSERT_TRUE(calls.back());
  }
  const tDBusMessage call(dbus_message_new_method_call(nullptr, kPath, kInterface, kMember));
  DBusPendingCall* pending = nullptr;
  EXPECT_FALSE(dbus_connection_send_with_reply(Ours(), call.get(), &pending, kLongMs));
  calls.pop_back();
  EXPECT_TRUE(CallThePeer(kLongMs));
}

TEST_F(BusSource, ACallThatBlocksChangesNothingForTheContext) {
  std::atomic<bool> answered = false;
  std::thread peer([&] {
    while (!answered) dbus_connection_read_write_dispatch(Peer(), 10);
  });
  const tDBusMessage call(dbus_message_new_method_call(nullptr, kPath, kInterface, kMember));
  MakeLong(call.get());
  tDBusError error;
  const tDBusMessage reply(
      dbus_connection_send_with_reply_and_block(Ours(), call.get(), kLongMs, error.Get()));
  answered = true;
  peer.join();
  EXPECT_STREQ(error.Name(), DBUS_ERROR_UNKNOWN_METHOD);  // nobody there takes the call
  const tSleep sleep = Sleep();
  EXPECT_THAT(sleep.polled, ElementsAre(POLLIN));
  EXPECT_EQ(sleep.timeoutMs, kNoDeadline);
  EXPECT_EQ(sleep.ready, 0);  // it was not woken either
}

// ---- The end of a connection, on either side

TEST_F(BusSource, TellsOfTheLossOnceAndRests) {
  CloseThePeer();
  ASSERT_TRUE(Until([&] { return !m_Noted.empty(); }));
  Settle();
  EXPECT_THAT(m_Noted, ElementsAre("Disconnected"));
  const tSleep sleep = Sleep();
  EXPECT_THAT(sleep.polled, IsEmpty());
  EXPECT_EQ(sleep.ready, 0);
}

TEST_F(BusSource, WhatThePeerSaidLastIsDispatchedBeforeTheLossIsTold) {
  PeerSends(Signal());
  CloseThePeer();
  ASSERT_TRUE(Until([&] { return m_Noted.size() >= 2; }));
  EXPECT_THAT(m_Noted, ElementsAre(kMember, "Disconnected"));
}

TEST_F(BusSource, DoesNotLookAtADescriptorThatIsSwitchedOff) {
  m_Keeps = true;
  dbus_connection_set_max_received_size(Ours(), 1);  // a message that is kept is too much
  PeerSends(Signal());
  ASSERT_TRUE(Until([&] { return !m_Noted.empty(); }));
  CloseThePeer();
  const tSleep sleep = Sleep();
  EXPECT_THAT(sleep.polled, IsEmpty());
  EXPECT_EQ(sleep.ready, 0);
  m_Kept.clear();
  ASSERT_TRUE(Until([&] { return m_Noted.size() >= 2; }));
  EXPECT_THAT(m_Noted, ElementsAre(kMember, "Disconnected"));
}

TEST_F(BusSource, DoesNothingOnceDetached) {
  DetachFromMainContext(Ours());
  DetachFromMainContext(Ours());
  PeerSends(Signal());
  Settle();
  EXPECT_THAT(m_Noted, IsEmpty());
  EXPECT_THAT(Sleep().polled, IsEmpty());
  ASSERT_TRUE(AttachToMainContext(Ours(), Context()));
  Settle();
  EXPECT_THAT(m_Noted, ElementsAre(kMember));
}

TEST_F(BusSource, CanBeDetachedByAHandler) {
  m_Detaches = true;
  PeerSends(Signal("First"));
  PeerSends(Signal("Second"));
  Settle();
  EXPECT_THAT(m_Noted, ElementsAre("First"));
}

TEST_F(BusSource, GoesWithItsConnection) {
  ASSERT_EQ(Sleep().descriptors, 2);
  CloseOurs();
  Settle();
  EXPECT_EQ(Sleep().descriptors, 1);
}

// ---- Threads

using BusSourceDeathTest = BusSource;

TEST_F(BusSourceDeathTest, BelongsToOneThread) {
  EXPECT_DEATH(std::thread([&] { CallThePeer(kLongMs); }).join(),
               "voldrake: BusSource:[0-9]+: .*OnItsThread.*: Assertion `.*' failed\\.");
}

}  // namespace
