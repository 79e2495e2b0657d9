"""The one table of deadlines, in seconds, scaled for software emulation.

Every value is an upper limit after which something is taken to hang; nothing sleeps that long.
VOLDRAKE_TIME_SCALE stretches the table further.
"""

import os

_SCALE = 10 * float(os.environ.get("VOLDRAKE_TIME_SCALE", "1"))

#: The emulator has opened its control socket.
EMULATOR = 5 * _SCALE
#: A machine has booted as far as taking commands.
BOOT = 60 * _SCALE
#: Everything that starts at boot has been started; without a cable the network is waited for.
STARTED = 75 * _SCALE
#: The emulator has carried out a command.
CONTROL = 5 * _SCALE
#: A small command has run on a unit.
COMMAND = 15 * _SCALE
#: What follows from an act has come about on both units: mounts, links, exports, messages.
SURFACE = 30 * _SCALE
#: A service has been started again.
RESTART = 30 * _SCALE
#: A machine has shut down and is off.
SHUTDOWN = 45 * _SCALE

#: How often something is looked at that cannot announce itself.
POLL = 0.5
