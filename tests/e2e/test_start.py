"""Starts that fail and starts that succeed: PID file, log and syslog."""

import os
import socket
from pathlib import Path

import pytest

from kit.board import NAMES
from kit.expecting import read_file
from kit.sandbox import needs_namespaces


def test_without_the_directory_of_the_pid_file_it_ends_with_1(board):
    board.pid_file.parent.rmdir()
    try:
        board.launch()
        _, status = os.waitpid(-1, 0)
    finally:
        board.pid_file.parent.mkdir()
    assert os.waitstatus_to_exitcode(status) == 1
    assert read_file(board.stdout) == "Couldn't open pid file.\n"


def test_without_a_configuration_syslog_is_told(board):
    if Path("/dev/log").exists():
        needs_namespaces("/dev/log")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as syslog:
        syslog.bind("/dev/log")
        board.expect_end(board.launch_daemon())
        syslog.setblocking(False)
        notice = syslog.recv(200).decode()
    Path("/dev/log").unlink()
    # The priority, user and notice, stands before the time, which is not compared.
    assert notice[:4] + notice[4 + len("Nov 22 10:00:00") :] == (
        f"<13> talp: Unable to start by user {os.getuid()}, because unable to load config, or "
        "unable to parse XML file!"
    )


def test_a_port_below_1025_is_refused(board, log):
    board.write_config(cae=1024)
    board.expect_end(board.launch_daemon())
    log.expect(
        "[INF] talp is started",
        "[ERR] CAE interface port number is less than 1025",
        "[INF] talp is stopped with error",
    )
    assert not log.has("[")


def test_the_start_is_logged_with_its_parameters(board, log):
    board.write_config()
    pid = board.launch_daemon()
    log.expect(
        "[INF] talp is started",
        "[INF] Initparam Autodiscover: TRUE",
        "[INF] Initparam Enablepoll: FALSE",
        "[INF] Initparam Speed (ThreadDelay): 2525",
        "[INF] CAE interface listening on port 5001",
        "[INF] CAE interface is waiting for incoming connection",
    )
    log.expect("[INF] MON interface listening on port 5003")
    board.stop(pid)


@pytest.mark.parametrize("level", (0, 2))
def test_a_level_above_that_of_the_lines_keeps_all_of_them_out(board, log, level):
    before = read_file(board.log_file)
    board.write_config(level=level)
    pid = board.launch_daemon()
    for name in NAMES:
        board.patient_client(name).close()
    assert (read_file(board.log_file) == before) == (level == 2)
    board.kill(pid)


def test_a_name_too_long_for_the_listing_is_read_as_two_wrong_ones(board, log):
    long_name = Path("/dev/ttyUSB100")
    long_name.touch()
    pid = board.start()
    log.expect(
        "[ERR] unable to  open /dev/ttyUSB10 for hardware communication",
        "[ERR] unable to  open /dev/ for hardware communication",
    )
    long_name.unlink()
    log.expect("[ERR] ttyUSB devices couldn't be found")
    board.stop(pid)


def test_a_stale_pid_file_is_replaced_and_a_second_daemon_finds_its_ports_taken(board, log):
    board.pid_file.write_text("99999999 stale\n")
    first = board.start()
    assert read_file(board.pid_file) == str(first)
    second = board.launch_daemon()
    log.expect(
        "[INF] talp is started",
        "[ERR] couldn't bind socket forCAE interface",
        "[INF] CAE interface listening on port 5001",
    )
    board.stop(second)
    board.client("IO").close()
    assert read_file(board.pid_file) == str(second)
    board.stop(first)
