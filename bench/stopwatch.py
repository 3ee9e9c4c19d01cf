# SPDX-License-Identifier: MIT
"""stopwatch.py OPTIONS PROGRAM [ARGUMENT...]: runs a program and prints its events.

Each event is a line "NANOSECONDS EVENT". The time is that of the steady clock, which all lab hosts share. The events
`start` and `exit STATUS` are always printed. OPTIONS is one word of these characters, or - for none. Do not combine l
with a.

0, 1  Run the program and its children only on the CPU with this number, so each host can have its own.
l     Print `line TEXT` for each line on the program's standard output, which otherwise is /dev/null.
a     Print `accepting` as soon as the program sleeps in accept(2)."""

import os
import signal
import sys
import time

options, program = sys.argv[1], sys.argv[2:]
reader, writer = os.pipe()
nothing = os.open("/dev/null", os.O_RDWR)
streams = [(os.POSIX_SPAWN_DUP2, nothing, 0), (os.POSIX_SPAWN_DUP2, writer if "l" in options else nothing, 1)]
all_cpus = os.sched_getaffinity(0)


def report(event, flush=False):
    print(time.monotonic_ns(), event, flush=flush)


report("start")
os.sched_setaffinity(0, {int(cpu) for cpu in "01" if cpu in options} or all_cpus)
# Python ignores SIGPIPE, and the program would inherit that.
child = os.posix_spawnp(program[0], program, os.environ, file_actions=streams, setsigdef=[signal.SIGPIPE])
os.sched_setaffinity(0, all_cpus)
os.close(writer)
while "l" in options and (text := os.read(reader, 65536)):
    for line in text.decode().splitlines():
        report(f"line {line}")
while "a" in options and os.waitid(os.P_PID, child, os.WEXITED | os.WNOHANG | os.WNOWAIT) is None:
    with open(f"/proc/{child}/wchan") as function:
        if function.read() == "inet_csk_accept":
            report("accepting", flush=True)
            break
    time.sleep(20e-6)
status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
report(f"exit {status if status >= 0 else 128 - status}")
