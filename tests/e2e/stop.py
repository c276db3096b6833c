#!/usr/bin/env -S python3 -B
"""Ends by signals, with clients that read and one that does not, and starts after them."""

import os
import signal
from pathlib import Path

from common import ALL_CARDS, HANDSHAKE, expect_discovery, reboot
from talpkit import NAMES, check, play, read_file


def check_closed_on_exec(pid):
    """Descriptors above the standard ones would be inherited by an executed program."""
    files = [file for file in Path(f"/proc/{pid}/fdinfo").iterdir() if int(file.name) > 2]
    flags = [int(read_file(file).split()[3], 8) for file in files]  # pos: ... flags: ...
    check(all(each & os.O_CLOEXEC for each in flags), f"flags of descriptors: {flags}")
    check(len(flags) >= 7, "fewer than three listeners, three clients, the tty")


def stop(stage):
    bus = stage.bus(*ALL_CARDS)
    # The daemon inherits which signals are blocked.
    signal.pthread_sigmask(signal.SIG_BLOCK, (signal.SIGINT, signal.SIGTERM))
    pid = stage.start()
    signal.pthread_sigmask(signal.SIG_UNBLOCK, (signal.SIGINT, signal.SIGTERM))
    clients = [stage.client(name) for name in NAMES]
    expect_discovery(clients[0], bus)
    check_closed_on_exec(pid)
    stage.stop(pid, signal.SIGINT)
    for client in clients:
        client.expect_end()

    # An IO client that never reads holds up its own interface and nothing else: the first line,
    # with a separator larger than what the connection buffers, blocks the task in its write.
    for buffer in "tcp_wmem", "tcp_rmem":
        Path(f"/proc/sys/net/ipv4/{buffer}").write_text("4096 4096 4096")
    pid = stage.start(io_end=(1 << 18) * "-")
    stage.client("IO")
    cae = stage.client("CAE")
    expect_discovery(cae, bus)
    cae.ask("GETLASTINPST:3=0", "CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">")
    cae.ask("EXIT", "TALP: Bye Bye...")
    cae.expect_end()
    stage.stop(pid)

    # Without discovery the first frame behind the handshake is the console's.
    pid = stage.start(discover=False)
    cae = stage.client("CAE")
    bus.expect_next(*HANDSHAKE)
    reboot(cae, bus)
    os.kill(pid, signal.SIGHUP)
    stage.expect_end(pid, -signal.SIGHUP)
    check(not stage.log.has("stopped"), "the daemon logs an end that nobody asked for")


play(stop)
