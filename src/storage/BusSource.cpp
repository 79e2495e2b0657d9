// The source that stands for a connection in its main context.
//
// The bus library announces each descriptor and each deadline when it comes, when it goes and
// when it is switched on or off. A call that blocks makes and drops a deadline and switches the
// descriptor several times before the context gets to see anything, so that all of this is only
// written down. What the context has to poll, and for how long, is made out when it is about to.

#include "storage/BusSource.h"

#include <pthread.h>

#include <algorithm>
#include <array>

#include "frame/Assert.h"

namespace {

constexpr gint64 kNever = G_MAXINT64;
constexpr gint64 kMicrosecondsPerMs = 1000;
constexpr size_t kRoom = 8;

/// What the context says of a descriptor, and the bus library's word for it.
constexpr struct {
  GIOCondition seen;
  unsigned flag;
} kConditions[] = {{G_IO_IN, DBUS_WATCH_READABLE},
                   {G_IO_OUT, DBUS_WATCH_WRITABLE},
                   {G_IO_ERR, DBUS_WATCH_ERROR},
                   {G_IO_HUP, DBUS_WATCH_HANGUP}};

/// One direction of a descriptor.
struct tWatch {
  DBusWatch* watch;  // null in a free place
  gpointer polled;   // the context's handle for it; null while it is not polled
};

/// A call's time-out.
struct tDeadline {
  DBusTimeout* timeout;  // null in a free place
  gint64 at;             // microseconds of the monotonic clock; kNever while it is switched off
};

/// Made of zeros by g_source_new. The places never move, so that handlers may take and free them
/// while the source walks over them.
struct tBusSource : GSource {
  DBusConnection* connection;
  pthread_t thread;
  std::array<tWatch, kRoom> watches;
  std::array<tDeadline, kRoom> deadlines;
};

tBusSource& Self(GSource* source) {
  return *static_cast<tBusSource*>(source);
}

/// The source behind a callback of the bus library.
tBusSource& OnItsThread(void* data) {
  tBusSource& self = *static_cast<tBusSource*>(data);
  VOLDRAKE_ASSERT(pthread_equal(self.thread, pthread_self()));
  return self;
}

// ---- What the bus library announces

dbus_bool_t AddWatch(DBusWatch* watch, void* data) {
  auto& watches = OnItsThread(data).watches;
  const auto place = std::ranges::find(watches, nullptr, &tWatch::watch);
  if (place == watches.end()) return FALSE;
  *place = {watch, nullptr};
  return TRUE;
}

void StopPolling(tBusSource& self, tWatch& watch) {
  if (watch.polled != nullptr) g_source_remove_unix_fd(&self, watch.polled);
  watch.polled = nullptr;
}

void RemoveWatch(DBusWatch* watch, void* data) {
  tBusSource& self = OnItsThread(data);
  const auto place = std::ranges::find(self.watches, watch, &tWatch::watch);
  if (place == self.watches.end()) return;
  StopPolling(self, *place);
  *place = {};
}

void ToggleWatch(DBusWatch*, void* data) {
  OnItsThread(data);
}

/// From now on, since the interval may be another one than before.
gint64 NextTime(DBusTimeout* timeout) {
  if (!dbus_timeout_get_enabled(timeout)) return kNever;
  return g_get_monotonic_time() + dbus_timeout_get_interval(timeout) * kMicrosecondsPerMs;
}

dbus_bool_t AddTimeout(DBusTimeout* timeout, void* data) {
  auto& deadlines = OnItsThread(data).deadlines;
  const auto place = std::ranges::find(deadlines, nullptr, &tDeadline::timeout);
  if (place == deadlines.end()) return FALSE;
  *place = {timeout, NextTime(timeout)};
  return TRUE;
}

void RemoveTimeout(DBusTimeout* timeout, void* data) {
  auto& deadlines = OnItsThread(data).deadlines;
  const auto place = std::ranges::find(deadlines, timeout, &tDeadline::timeout);
  if (place != deadlines.end()) *place = {};
}

void ToggleTimeout(DBusTimeout* timeout, void* data) {
  auto& deadlines = OnItsThread(data).deadlines;
  const auto place = std::ranges::find(deadlines, timeout, &tDeadline::timeout);
  if (place != deadlines.end()) place->at = NextTime(timeout);
}

/// There is a message to send or to dispatch. The context does not sleep while its own thread says
/// so.
void WakeUp(void* data) {
  OnItsThread(data);
}

// ---- What the main context asks

gint64 NextDeadline(const tBusSource& self) {
  gint64 next = kNever;
  for (const tDeadline& deadline : self.deadlines) {
    if (deadline.timeout != nullptr) next = std::min(next, deadline.at);
  }
  return next;
}

bool HasMessage(const tBusSource& self) {
  return dbus_connection_get_dispatch_status(self.connection) == DBUS_DISPATCH_DATA_REMAINS;
}

/// A watch that is switched off is taken out of the poll, which would return at once, again and
/// again, when the other end hangs up meanwhile.
void SetPolling(tBusSource& self, tWatch& watch) {
  const bool wanted = dbus_watch_get_enabled(watch.watch);
  if (!wanted) {
    StopPolling(self, watch);
  } else if (watch.polled == nullptr) {
    const bool writes = (dbus_watch_get_flags(watch.watch) & DBUS_WATCH_WRITABLE) != 0;
    watch.polled = g_source_add_unix_fd(&self, dbus_watch_get_unix_fd(watch.watch),
                                        writes ? G_IO_OUT : G_IO_IN);
  }
}

gboolean Prepare(GSource* source, gint* timeoutMs) {
  tBusSource& self = Self(source);
  for (tWatch& watch : self.watches) {
    if (watch.watch != nullptr) SetPolling(self, watch);
  }
  *timeoutMs = -1;
  const gint64 next = NextDeadline(self);
  if (next != kNever) {
    const gint64 left = std::max<gint64>(next - g_source_get_time(source), 0);
    *timeoutMs = static_cast<gint>((left + kMicrosecondsPerMs - 1) / kMicrosecondsPerMs);
  }
  return *timeoutMs == 0 || HasMessage(self);
}

/// The context itself looks at the descriptors, and no message comes in while it polls them.
gboolean Check(GSource* source) {
  return NextDeadline(Self(source)) <= g_source_get_time(source);
}

// ---- What the main context has done

void HandleWatch(tBusSource& self, const tWatch& watch) {
  if (watch.polled == nullptr || !dbus_watch_get_enabled(watch.watch)) return;
  const GIOCondition seen = g_source_query_unix_fd(&self, watch.polled);
  unsigned flags = 0;
  for (const auto& condition : kConditions) {
    if ((seen & condition.seen) != 0) flags |= condition.flag;
  }
  if (flags != 0) dbus_watch_handle(watch.watch, flags);
}

/// A time-out comes again after each interval, until the bus library takes it away.
void HandleDeadline(tDeadline& deadline, gint64 now) {
  if (deadline.timeout == nullptr || deadline.at > now) return;
  deadline.at = NextTime(deadline.timeout);
  dbus_timeout_handle(deadline.timeout);
}

gboolean Dispatch(GSource* source, GSourceFunc, gpointer) {
  tBusSource& self = Self(source);
  DBusConnection* const connection = dbus_connection_ref(self.connection);
  if (HasMessage(self)) dbus_connection_dispatch(connection);
  for (const tWatch& watch : self.watches) HandleWatch(self, watch);
  const gint64 now = g_source_get_time(source);
  for (tDeadline& deadline : self.deadlines) HandleDeadline(deadline, now);
  dbus_connection_unref(connection);
  return G_SOURCE_CONTINUE;
}

GSourceFuncs gBusSourceFunctions = {Prepare, Check, Dispatch, nullptr, nullptr, nullptr};

/// What the bus library does with each of its three references to the source.
void Release(void* data) {
  GSource* const source = static_cast<tBusSource*>(data);
  g_source_destroy(source);
  g_source_unref(source);
}

}  // namespace

bool AttachToMainContext(DBusConnection* connection, GMainContext* context) {
  GSource* const source = g_source_new(&gBusSourceFunctions, sizeof(tBusSource));
  tBusSource* const self = &Self(source);
  self->connection = connection;
  self->thread = pthread_self();
  // Or the context takes the descriptors out of its poll for each dispatch and back in, and both
  // wake it.
  g_source_set_can_recurse(source, TRUE);
  if (!dbus_connection_set_watch_functions(connection, AddWatch, RemoveWatch, ToggleWatch, self,
                                           Release)) {
    Release(self);
    return false;
  }
  g_source_ref(source);
  if (!dbus_connection_set_timeout_functions(connection, AddTimeout, RemoveTimeout, ToggleTimeout,
                                             self, Release)) {
    Release(self);
    DetachFromMainContext(connection);
    return false;
  }
  g_source_ref(source);
  dbus_connection_set_wakeup_main_function(connection, WakeUp, self, Release);
  g_source_attach(source, context);
  return true;
}

void DetachFromMainContext(DBusConnection* connection) {
  dbus_connection_set_wakeup_main_function(connection, nullptr, nullptr, nullptr);
  // Taking functions away needs no memory.
  dbus_connection_set_timeout_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
  dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
}
