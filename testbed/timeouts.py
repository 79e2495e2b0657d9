"""The one table of time-outs, in seconds.

Every value is a deadline for something that normally comes at once; nothing sleeps that long.
VOLDRAKE_TIME_SCALE stretches the table for slow builds (sanitizers, emulation).
"""

import os

SCALE = float(os.environ.get("VOLDRAKE_TIME_SCALE", "1"))

#: A program of the unit is up and has said so.
START = 10 * SCALE
#: An event follows from what was just done.
EVENT = 5 * SCALE
#: The application is told after it was away: a retry comes after 20 waits of half a second, each
#: of which a busy machine can make longer.
RETRY = 30 * SCALE
#: A call on the bus is given up: after 25 s, by the library's default.
BUS_CALL = 40 * SCALE
#: A program ends after it was told to.
STOP = 8 * SCALE
#: A small helper program runs to its end.
RUN = 20 * SCALE

#: How often something is looked at that cannot announce itself.
POLL = 0.005
