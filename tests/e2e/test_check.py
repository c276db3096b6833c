"""What talp-check says of the real daemon: hindered, healthy, dead."""

import os
import re
import shutil
import socket
import subprocess

import pytest

from kit.board import NAMES
from kit.cards import ADAPTER, VERSION, hardware_found
from kit.expecting import LIMIT, read_file

PID_FILE = "/var/run/talp/talp.pid"
LOG_FILE = "/var/log/talp/talp.log"
BOARD = {"log_file": LOG_FILE}
TIME = "[-0-9]+ [:0-9]+ "
LISTENING = [f"ok: {name} on port {port} listens" for port, name in enumerate(NAMES, 5001)]
NO_ADAPTER = (
    "/dev/ttyUSB\\*: warning: there is no adapter; plug it in, .*",
    f"{LOG_FILE}: warning: {TIME}.*ttyUSB devices couldn't be found; plug .*",
)


@pytest.fixture
def look(board):
    def found(status, *findings, strict=True):
        """The findings are expressions, one for each line."""
        command = [board.build / "tools/check/talp-check", "running", "--wait=0"]
        command += ["--strict"] if strict else []
        run = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=LIMIT, check=False)
        lines = run.stdout.splitlines()
        for line, finding in zip(lines, findings):
            assert re.fullmatch(finding, line), f"wanted {finding!r}\ncame instead: {run.stdout}"
        assert (run.returncode, len(lines)) == (status, len(findings)), run.stdout

    return found


def runs(pid):
    return f"{PID_FILE}: ok: talp runs as process {pid}"


def test_a_daemon_that_was_never_started(board, look):
    board.write_config()
    look(1, f"{PID_FILE}: error: talp has not been started.*")


def test_a_taken_port_and_who_has_it_then_the_end(board, look, log):
    with socket.create_server(("", board.ports["IO"])):
        board.write_config()
        pid = board.launch_daemon()
        log.expect("[INF] MON interface listening on port 5003")
        log.expect("[ERR] ttyUSB devices couldn't be found")
        look(
            1,
            runs(pid),
            LISTENING[0],
            rf"error: IO on port 5002 .*taken by process {os.getpid()} \(.*\); end that or .*",
            LISTENING[2],
            "error: talp listens on port [0-9]+, which /etc/talp/talpconf.xml does not name; .*",
            *NO_ADAPTER,
            strict=False,
        )
    board.stop(pid)
    look(1, f"{PID_FILE}: error: process {pid} has ended; the end of {LOG_FILE} .*")


def test_no_adapter_then_one_and_a_client(board, look, log):
    pid = board.start()
    log.expect("[ERR] ttyUSB devices couldn't be found")
    look(1, runs(pid), *LISTENING, *NO_ADAPTER)

    bus = board.bus(*VERSION)
    log.expect(*hardware_found())
    board.client("CAE")
    has_client = "ok: CAE on port 5001 has a client"
    healthy = (runs(pid), has_client, *LISTENING[1:], f"{ADAPTER}: ok: talp has this adapter open")
    look(0, *healthy, f"{LOG_FILE}: ok: {TIME}.*hardware found on {ADAPTER} version: 2.07")
    # What was logged before the last start says nothing.
    with open(LOG_FILE, "a", encoding="ascii") as file:
        file.write("2000-01-01 00:00:00 [INF] talp is started\n")
    look(0, *healthy)
    os.utime(board.config_file, (2000000000, 2000000000))
    changed = f"{board.config_file}: warning: changed after talp was started; .*"
    look(1, healthy[0], changed, *healthy[1:])
    board.stop(pid)
    bus.close()


def may_inspect_others():
    """Which takes CAP_SYS_PTRACE, capability 19 of linux/capability.h."""
    effective = re.search(r"^CapEff:\s*(\w+)", read_file("/proc/self/status"), re.MULTILINE)[1]
    return int(effective, 16) >> 19 & 1


def test_an_adapter_that_its_user_may_not_open(board, look, log, monkeypatch):
    if int(read_file("/proc/self/uid_map").split()[2]) == 1:
        pytest.skip("there is one user only in this sandbox")
    programs = []  # where every user may run them: the daemon, perhaps behind an emulator
    for path in board.daemon:
        os.makedirs(f"{board.work}/program{len(programs)}", exist_ok=True)
        programs.append(shutil.copy(path, f"{board.work}/program{len(programs)}/talp"))
    nobody = 65534
    board.pid_file.touch()
    for path in board.log_file, board.pid_file:
        os.chown(path, nobody, nobody)
    identity = (f"--reuid={nobody}", f"--regid={nobody}", "--clear-groups")
    monkeypatch.setattr(board, "daemon", ["setpriv", *identity, *programs])
    monkeypatch.setattr(board, "preload", "")  # setpriv may be of another architecture
    bus = board.bus()
    pid = board.start()
    log.expect(f"[ERR] unable to  open {ADAPTER} for hardware communication")
    if not may_inspect_others():
        look(1, runs(pid), f"error: process {pid} belongs to another user; .* CAP_SYS_PTRACE .*")
        pytest.skip("what talp-check says of the adapter needs namespaces, or CAP_SYS_PTRACE")
    look(
        1,
        runs(pid),
        *LISTENING,
        f"{ADAPTER}: warning: talp's user may not use this adapter; .*",
        f"{LOG_FILE}: warning: {TIME}.*unable to  open {ADAPTER} .*; see that .*",
    )
    board.stop(pid)
    bus.close()
