"""What the IO client and the cards say to each other, and what a monitor sees of it.

Console and IO have four different separators, each of which has its place.
"""

import re

import pytest

from kit.cards import expect_discovery, switch_polling

CONFIG = {"cae_in": "\\n", "cae_end": "~", "io_in": "|;", "io_end": "!\\r\\n\\r"}


@pytest.fixture(scope="module", autouse=True)
def discovered(cae, card_bus):
    expect_discovery(cae, card_bus)


def expect_inputs(clients, *lines):
    for client in clients:
        client.expect_lines(*lines)


def test_lines_of_one_read_become_a_frame_each_with_all_blocks(io, bus):
    io.send("a5b1dFB|;a5b0d0F|;")
    bus.expect_next("rx 05 10 05 02 FF FB", "out 5 dout b0=FF b1=FB", "tx 02 41 05")
    bus.expect_next("rx 05 10 05 02 0F FB", "out 5 dout b0=0F b1=FB", "tx 02 41 05")


def test_a_line_for_an_address_without_a_card_sends_nothing(io, bus):
    io.send("a1b0d01|;a0b4d40|;")
    bus.expect_next("rx 09 10 00 06 80 80 80 80 40 80", "out 0 servo 80 80 80 80 40 80")
    bus.expect_next("tx 02 41 00")


def test_the_last_line_of_a_read_needs_no_separator(io, bus):
    io.send("a4b0d7F")
    bus.expect_next("rx 07 10 04 04 7F 00 00 00", "out 4 motor 7F 00 00 00", "tx 02 41 04")


def test_display_commands_become_frames(io, bus):
    io.send("aElCL|;aElPAp0301tTail of\x7fthe cat|;")
    bus.expect_next("rx 04 10 0E 01 00", "lcd E clear", "tx 02 41 0E")
    bus.expect_next("rx 16 10 0E 13 09 03 01 54 61 69 6C 20 6F 66 7F 74 68 65 20 63 61 74 00")
    bus.expect("lcd E row 1 |   Tail of.the cat  |")
    bus.expect("tx 02 41 0E")


@pytest.mark.parametrize("typed, illegal", (("EXIT", "EXIT"), ("EXIT\r\n", "EXIT\r\n"),
                                            ("EXIT|;bad\n", "EXIT bad\n")))
def test_exit_is_the_word_and_its_separator_alone(cae, io, mon, typed, illegal):
    io.send(typed)
    for command in illegal.split(" "):
        cae.expect_lines(f"COE:Illegal command -> {command}", ">")
    mon.expect(typed + "\r")


def test_monitor_sees_what_is_typed_up_to_a_nul(io, mon, bus):
    io.send("a5b0d00\0a5b0d11|;")
    mon.expect("a5b0d00\r")
    bus.expect(re.compile("out 5 dout b0=00 .*"))
    bus.expect_next("tx 02 41 05")


def test_a_monitor_that_types_drives_no_card(cae, mon, bus):
    mon.send("a5b0d55|;")
    cae.ask("REBOOT:5", "CIA: Card is REBOOTED", "RBT:0x5:OK", ">")
    bus.expect_next("rx 04 50 05 01 AB", "direct 5 reboot", "tx 04 51 05 AB 00")


def test_input_changes_reach_io_and_monitor(cae, io, mon, bus):
    # Six answers of the analogue card are summed, the seventh gives the average.
    bus.command("set 3 1 40", "set F 0 FF", "set F 3 80")
    switch_polling(cae, True)
    bus.expect_next("rx 03 20 03 02", "tx 04 21 03 00 40", "rx 03 20 08 01", "tx 03 21 08 00")
    bus.expect_next("rx 03 20 0F 06", "tx 08 21 0F FF 00 00 80 00 00", "rx 03 20 03 02")
    expect_inputs((io, mon), "a3b1d40", "aFb0dFF", "aFb3d80")
    switch_polling(cae, False)


def test_a_cycle_takes_one_line_of_each_sort(cae, io, mon, bus):
    # While a console command waits for its card, two input lines and an IO line come in.
    bus.command("set 3 0 11", "set 3 1 22")
    switch_polling(cae, True)
    expect_inputs((io, mon), "a3b0d11", "a3b1d22")
    cae.ask("REBOOT:5")
    bus.expect("direct 5 reboot")
    io.send("a5b0d00|;")
    bus.command("set 3 0 33", "set 3 1 44")
    bus.expect("tx 04 21 03 33 44")
    mon.expect_lines("a3b0d33")
    mon.expect("a5b0d00|;\r")
    mon.expect_lines("a3b1d44")
    io.expect_lines("a3b0d33", "a3b1d44")
    cae.expect_lines("CIA: Card is REBOOTED", "RBT:0x5:OK", ">")
    switch_polling(cae, False)


def test_a_direct_answer_tells_the_last_changes_once_more(cae, io, mon, bus):
    # One good round of polls, then errors only.
    bus.command("set 3 0 81", "fault long 3 on poll", "fault error=4E forever on poll")
    switch_polling(cae, True)
    expect_inputs((io, mon), "a3b0d81")
    switch_polling(cae, False)
    cae.ask("REBOOT:3", "CIA: Card is REBOOTED", "RBT:0x3:OK", ">")
    expect_inputs((io, mon), "a3b0d81")
    bus.command("fault off")


def test_console_answers_end_with_the_separator_of_the_console(cae):
    cae.ask("SPEED=75", "CIA: SPEED IS SET to 75%", ">")
    cae.ask("GETMSR1:5", "CIE: THIS COMMAND IS VALID ON DC MOTOR CONTROLLER CARD ONLY", ">")
    cae.ask("EXIT|;", "CIE: UNKNOWN COMMAND ~>")


def test_exit_is_answered_with_the_separator_of_io(io):
    io.ask("EXIT", "TALP: Bye Bye...")
    io.expect_end()
