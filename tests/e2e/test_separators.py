"""Four different separators, each in its place, and what other levels leave of the log."""

import re

import pytest

from kit.board import NAMES
from kit.expecting import read_file

CONFIG = {"cae_in": "\\n", "cae_end": "~\\r\\n\\r", "io_in": "|;", "io_end": "!"}


@pytest.fixture
def ask(cae):
    def asked(line, *answers):
        cae.send(f"{line}\n")
        cae.expect("".join(f"{answer}~\r\n\r\r" for answer in answers))

    return asked


def test_console_lines_and_answers_end_with_those_of_the_console(ask):
    ask("DRVVER", "CIA: DRIVER VERSION 1.20", ">")
    ask("SPEED=50", "CIA: SPEED IS SET to 50%", ">")
    ask("GETMSR1:5", "CIE: THIS COMMAND IS VALID ON DC MOTOR CONTROLLER CARD ONLY", ">")
    ask("REBOOT:5", "CIA: Card is REBOOTED", "RBT:0x5:OK", ">")


def test_io_lines_are_cut_at_that_of_io_and_reported_with_that_of_the_console(ask, cae, io, bus):
    io.send("a5b1dFB|;a5b0d0F|;bad\r\n")
    bus.expect("out 5 dout b0=FF b1=FB")
    bus.expect("out 5 dout b0=0F b1=FB")
    cae.expect("COE:Illegal command -> bad\r\n~\r\n\r\r>~\r\n\r\r")


def test_input_lines_end_with_that_of_io_for_the_monitor_too(ask, io, mon, bus):
    bus.order("set 3 0 40")
    ask("ENABLEPOLL", "CIA: GLOBAL POLLING IS ENABLED", ">")
    io.expect("a3b0d40!\r")
    mon.expect("a3b0d40!\r")
    ask("DISABLEPOLL", "CIA: GLOBAL POLLING IS DISABLED", ">")


def test_a_monitor_that_types_drives_no_card(ask, mon, bus):
    mon.send("a5b0d55|;")
    ask("REBOOT:5", "CIA: Card is REBOOTED", "RBT:0x5:OK", ">")
    before = list(iter(bus.take, "direct 5 reboot"))
    assert not any("out 5" in line for line in before)


def test_exit_is_the_word_and_its_separator_alone(board, cae, io, bus):
    io.send("EXIT|;a5b0d33|;")
    bus.expect(re.compile("out 5 dout b0=33 b1=F."))
    cae.expect("COE:Illegal command -> EXIT~\r\n\r\r>~\r\n\r\r")
    io.send("EXIT|;")
    io.expect("TALP: Bye Bye...!\r")
    io.expect_end()


@pytest.mark.parametrize("level", (0, 2))
def test_a_level_above_that_of_the_lines_keeps_all_of_them_out(board, level):
    while board.daemons:
        board.stop(board.daemons[0])
    before = read_file(board.log_file)
    board.write_config(level=level)
    pid = board.launch_daemon()
    for name in NAMES:
        board.patient_client(name).close()
    assert (read_file(board.log_file) == before) == (level == 2)
    board.kill(pid)
