"""Ends by signals, with clients that read and one that does not, and starts after them."""

import os
import signal
from pathlib import Path

import pytest

from kit.board import NAMES
from kit.cards import HANDSHAKE, expect_discovery, reboot
from kit.sandbox import needs_namespaces


@pytest.fixture
def pid(board, bus):
    """A daemon that inherits blocked signals, and a case of its own may end it."""
    signal.pthread_sigmask(signal.SIG_BLOCK, (signal.SIGINT, signal.SIGTERM))
    yield board.start()
    signal.pthread_sigmask(signal.SIG_UNBLOCK, (signal.SIGINT, signal.SIGTERM))


def test_sigint_ends_it_and_its_clients(board, pid, bus):
    clients = [board.client(name) for name in NAMES]
    expect_discovery(clients[0], bus)
    board.stop(pid, signal.SIGINT)
    for client in clients:
        client.expect_end()


def test_a_client_that_never_reads_holds_up_its_own_interface_only(board, bus):
    # The first line, with a separator larger than what the connection buffers, blocks the task.
    needs_namespaces("/proc/sys/net/ipv4/tcp_wmem")
    for buffer in "tcp_wmem", "tcp_rmem":
        Path(f"/proc/sys/net/ipv4/{buffer}").write_text("4096 4096 4096")
    pid = board.start(io_end=(1 << 18) * "-")
    board.client("IO")
    cae = board.client("CAE")
    expect_discovery(cae, bus)
    cae.ask("GETLASTINPST:3=0", "CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">")
    cae.ask("EXIT", "TALP: Bye Bye...")
    cae.expect_end()
    board.stop(pid)


def test_without_discovery_the_first_frame_is_that_of_the_console(board, bus):
    pid = board.start(discover=False)
    cae = board.client("CAE")
    bus.expect_next(*HANDSHAKE)
    reboot(cae, bus)
    board.stop(pid)
    assert not board.log.has("socket accept error")  # which its tasks, ended in turn, would log


def test_sighup_ends_it_without_a_word(board, bus):
    pid = board.start()
    os.kill(pid, signal.SIGHUP)
    board.expect_end(pid, -signal.SIGHUP)
    assert not board.log.has("stopped")
