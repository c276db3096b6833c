#!/usr/bin/env -S python3 -B
"""Starts that fail and starts that succeed: PID file, log and syslog."""

import os
import socket
from pathlib import Path

from common import play
from talpkit import STDOUT, check, check_equal, read_file


def start_without_pid_directory(stage):
    stage.pid_file.parent.rmdir()
    stage.launch()
    _, status = os.waitpid(-1, 0)
    check_equal(os.waitstatus_to_exitcode(status), 1, "exit status of the daemon")
    check_equal(read_file(STDOUT), "Couldn't open pid file.\n", "standard output")
    stage.pid_file.parent.mkdir()


def start_without_configuration(stage):
    Path("/dev/log").unlink(missing_ok=True)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as syslog:
        syslog.bind("/dev/log")
        stage.expect_end(stage.launch_daemon())
        syslog.setblocking(False)
        notice = syslog.recv(200).decode()
    # The priority, user and notice, stands before the time, which is not compared.
    check_equal(
        notice[:4] + notice[4 + len("Nov 22 10:00:00") :],
        f"<13> talp: Unable to start by user {os.getuid()}, because unable to load config, or "
        "unable to parse XML file!",
        "notice to syslog",
    )


def start(stage):
    start_without_pid_directory(stage)
    start_without_configuration(stage)

    stage.write_config(cae=1024)
    stage.expect_end(stage.launch_daemon())
    stage.log.expect(
        "[INF] talp is started",
        "[ERR] CAE interface port number is less than 1025",
        "[INF] talp is stopped with error",
    )
    check(not stage.log.has("["), "the log says more")

    # A stale PID file is longer than what replaces it. A device's name too long for the listing
    # is read as two wrong ones.
    long_name = Path("/dev/ttyUSB100")
    long_name.touch()
    stage.pid_file.write_text("99999999 stale\n")
    stage.write_config()
    first = stage.launch_daemon()
    stage.log.expect(
        "[INF] talp is started",
        "[INF] Initparam Autodiscover: TRUE",
        "[INF] Initparam Enablepoll: FALSE",
        "[INF] Initparam Speed (ThreadDelay): 2525",
        "[INF] CAE interface listening on port 5001",
        "[INF] CAE interface is waiting for incoming connection",
    )
    stage.log.expect(
        "[ERR] unable to  open /dev/ttyUSB10 for hardware communication",
        "[ERR] unable to  open /dev/ for hardware communication",
    )
    long_name.unlink()
    stage.log.expect("[ERR] ttyUSB devices couldn't be found")
    check_equal(read_file(stage.pid_file), str(first), "PID file")

    # A second one takes over the PID file, and finds its ports taken.
    second = stage.launch_daemon()
    stage.log.expect(
        "[INF] talp is started",
        "[ERR] couldn't bind socket forCAE interface",
        "[INF] CAE interface listening on port 5001",
    )
    stage.stop(second)
    stage.client("IO")
    check_equal(read_file(stage.pid_file), str(second), "PID file")


play(start)
