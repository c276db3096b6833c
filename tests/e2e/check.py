#!/usr/bin/env -S python3 -B
"""What talp-check says of the real daemon: hindered, healthy, dead."""

import os
import re
import shutil
import socket
import subprocess

from common import ADAPTER, hardware_found
from talpkit import LIMIT, NAMES, check, check_equal, play, read_file

LOG_FILE = "/var/log/talp.log"
PID_FILE = "/var/run/talp/talp.pid"
TIME = "[-0-9]+ [:0-9]+ "
LISTENING = [f"ok: {name} on port {port} listens" for port, name in enumerate(NAMES, 5001)]
NO_ADAPTER = (
    "/dev/ttyUSB\\*: warning: there is no adapter; plug it in, .*",
    f"{LOG_FILE}: warning: {TIME}.*ttyUSB devices couldn't be found; plug .*",
)


def look(stage, status, *findings, strict=True):
    """The findings are expressions, one for each line."""
    command = [stage.build / "tools/check/talp-check", "running", "--wait=0"]
    command += ["--strict"] if strict else []
    run = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=LIMIT, check=False)
    lines = run.stdout.splitlines()
    for line, finding in zip(lines, findings):
        check(re.fullmatch(finding, line), f"wanted {finding!r}\ncame instead: {run.stdout}")
    check_equal((run.returncode, len(lines)), (status, len(findings)), f"in {run.stdout}")


def find_taken_port(stage):
    with socket.create_server(("", stage.ports["IO"])):
        stage.write_config()
        pid = stage.launch_daemon()
        stage.log.expect("[INF] MON interface listening on port 5003")
        stage.log.expect("[ERR] ttyUSB devices couldn't be found")
        look(
            stage,
            1,
            f"{PID_FILE}: ok: talp runs as process {pid}",
            LISTENING[0],
            rf"error: IO on port 5002 .*taken by process {os.getpid()} \(python3\); end that or .*",
            LISTENING[2],
            "error: talp listens on port [0-9]+, which /etc/talp/talpconf.xml does not name; .*",
            *NO_ADAPTER,
            strict=False,
        )
    stage.stop(pid)
    stage.log.lines.clear()  # it has looked for an adapter more than once
    look(stage, 1, f"{PID_FILE}: error: process {pid} has ended; the end of {LOG_FILE} .*")


def find_no_adapter(stage):
    """Then the same with one, and a client."""
    pid = stage.start()
    runs = f"{PID_FILE}: ok: talp runs as process {pid}"
    stage.log.expect("[ERR] ttyUSB devices couldn't be found")
    look(stage, 1, runs, *LISTENING, *NO_ADAPTER)

    stage.bus("--version-text", "2.07")
    stage.log.expect(*hardware_found())
    stage.client("CAE")
    has_client = "ok: CAE on port 5001 has a client"
    healthy = (runs, has_client, *LISTENING[1:], f"{ADAPTER}: ok: talp has this adapter open")
    look(stage, 0, *healthy, f"{LOG_FILE}: ok: {TIME}.*hardware found on {ADAPTER} version: 2.07")
    # What was logged before the last start says nothing.
    with open(LOG_FILE, "a", encoding="ascii") as log:
        log.write("2000-01-01 00:00:00 [INF] talp is started\n")
    look(stage, 0, *healthy)
    stage.stop(pid)


def find_forbidden_adapter(stage):
    """The daemon runs as a user who may not open the simulated adapter."""
    if int(read_file("/proc/self/uid_map").split()[2]) == 1:
        print("an adapter without rights: skipped, there is one user only in this sandbox")
        return
    programs = []  # where every user may run them: the daemon, perhaps behind an emulator
    for path in stage.daemon:
        os.makedirs(f"/run/program{len(programs)}", exist_ok=True)
        programs.append(shutil.copy(path, f"/run/program{len(programs)}/talp"))
    nobody = 65534
    for path in stage.log_file, stage.pid_file:
        os.chown(path, nobody, nobody)
    identity = (f"--reuid={nobody}", f"--regid={nobody}", "--clear-groups")
    stage.daemon = ["setpriv", *identity, *programs]
    pid = stage.start()
    stage.log.expect(f"[ERR] unable to  open {ADAPTER} for hardware communication")
    look(
        stage,
        1,
        f"{PID_FILE}: ok: talp runs as process {pid}",
        *LISTENING,
        f"{ADAPTER}: warning: talp's user may not use this adapter; .*",
        f"{LOG_FILE}: warning: {TIME}.*unable to  open {ADAPTER} .*; see that .*",
    )


def talp_check(stage):
    stage.write_config()
    look(stage, 1, f"{PID_FILE}: error: talp has not been started.*")
    find_taken_port(stage)
    find_no_adapter(stage)
    find_forbidden_adapter(stage)


play(talp_check)
