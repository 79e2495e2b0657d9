#pragma once

#include <dbus/dbus.h>

#include "Source.h"

// A bus that is made of bytes: it stands in for the bus library's connection in a program that
// links FakeBus.cpp and IdleConnection.cpp, while messages are the library's own.

/// The bytes that replies are made of until the next call; null: no call is answered.
void SetReplies(Source* source);

/// Appends arguments of any types, as the bytes say, a few levels deep at most.
void AppendArguments(DBusMessage* message, Source& source);

/// A text that the bus carries, often one that the daemon looks for.
std::string BusText(Source& source);
