#pragma once

#include <dbus/dbus.h>
#include <glib.h>

/// Has a main context serve a connection of the bus library: its descriptor, its deadlines and the
/// messages that have come in. One source of default priority does all of it. An iteration of the
/// context dispatches at most one message, the first that waits, and then gives every other source
/// its turn before the next.
///
/// Ownership: the connection holds the source, and drops it with its end or in
/// `DetachFromMainContext`. The caller's reference to the connection is not taken.
///
/// Threads: the connection belongs to the thread that attaches it, which also iterates the context:
/// calls may be made, and handlers run, on that thread alone. Another thread that changes what the
/// connection waits for aborts the process. So nothing ever has to wake the context.
///
/// Failures: none, except that the bus library learns that memory is short when the connection
/// waits for more than eight descriptors or for the answers of more than eight calls at a time. The
/// daemon's has one descriptor, and since each call blocks until it is answered, one deadline.
///
/// `context` is the default one when null. False when the bus library has no memory left; the
/// connection is not attached then. Requires: not attached yet.
[[nodiscard]] bool AttachToMainContext(DBusConnection* connection, GMainContext* context = nullptr);

/// Undoes it: the context does not touch the connection any more. May be called from a handler of
/// the connection's messages. Does nothing when the connection is not attached.
void DetachFromMainContext(DBusConnection* connection);
