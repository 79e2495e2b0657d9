"""Faults from below: each system call of the daemon in a story fails once, or is its last.

`stories` has what happens to a unit, `unit` is the unit, `recording` what each thread of the daemon
calls meanwhile, `errors` how each of these calls can fail. `trial` plays a story with one such
fault and compares what came of it with what comes without; `agreements` has the losses that are
part of the daemon's contract. `program` plays them all and shows the table. `haldunit` is the same
for the hardware service over the kernel's devices.
"""
