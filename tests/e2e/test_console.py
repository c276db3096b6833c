"""Byte for byte what a console's user sees, with all pauses at their real length."""

import re

import pytest

from kit.cards import ADAPTER, DISCOVERY, expect_discovery, hardware_found, switch_polling
from kit.expecting import read_file

BOARD = {"real_time": True}
LIST = (
    "FORCED DISCOVER LIST:",
    "DTI:0x0:6 channel RC SERVO CONTROLLER",
    "DTI:0x1:UNIDENTIFIED",
    "DTI:0x2:EMPTY",
    "DTI:0x3:16 channel DIGITAL INPUT",
    "DTI:0x4:3 channel DC MOTOR CONTROLLER",
    "DTI:0x5:16 channel DIGITAL OUTPUT",
    "DTI:0x6:CARD?",
    "DTI:0x7:EMPTY",
    "DTI:0x8:KEYMX and ROTE CONTROLLER",
    "DTI:0x9:IR REMOTE CONTROLLER",
    *(f"DTI:0x{address}:EMPTY" for address in "ABCD"),
    "DTI:0xE:ALPHANUMERIC LCD CONTROLLER",
    "DTI:0xF:6 channel ANALOGUE INPUT",
    ">",
)


@pytest.fixture(scope="module", autouse=True)
def discovered(io, cae, card_bus):
    expect_discovery(cae, card_bus)


def test_drvver_tells_the_version_and_case_counts(board, cae):
    cache = read_file(board.build / "CMakeCache.txt")
    version = re.search("^CMAKE_PROJECT_VERSION:.*=(.*)", cache, re.MULTILINE)[1]
    cae.ask("DRVVER", f"CIA: DRIVER VERSION {version}", ">")
    cae.send("drvver\r\n")
    cae.expect("CIE: UNKNOWN COMMAND \r\n>\r\n\r")


def test_forcediscover_lists_what_is_plugged_in_now(cae, bus):
    bus.command("card 1 02", "card 6 unknown")
    switch_polling(cae, True)
    cae.ask("FORCEDISCOVER", *LIST)
    switch_polling(cae, False)
    bus.command("card 1 none", "card 6 none")


def test_a_card_that_refuses_fails_the_command(cae, bus):
    bus.command("fault notq")
    cae.ask("SETMSR1:4=20", "CIE: PARAM WRITE ERROR", ">")
    bus.expect("rx 05 50 04 01 C1 20")


def test_a_late_reply_is_not_taken_for_the_next_one(board, cae, bus):
    """It arrives on the next link, where no later request takes it for its own."""
    bus.command("fault late=3000 on direct", "answer F 2B")
    cae.ask("REBOOT:5", "CIE: BUS WRITE ERROR", ">")
    board.log.expect(f"[INF] comm timeout {ADAPTER}", *hardware_found())
    both = {"tx 04 51 05 AB 00", DISCOVERY[0]}
    bus.wait_for(f"{both}", lambda: both.issubset(bus.lines))
    cae.ask("GETANMASK:F", "CIA: MASK is GOT from card", "AMV:0xF:0x2B", ">")


def test_what_was_left_over_greets_the_next_console_before_the_banner(board, io, cae, bus):
    board.log.pull()
    board.log.lines.clear()
    cae.ask("EXIT", "TALP: Bye Bye...")
    board.log.expect("[INF] CAE interface listening on port 5001")
    io.send("nonsense\r\na5b0d00\r\n")
    bus.expect("out 5 dout b0=00 b1=FF")
    board.client("CAE", ">\r\n\rCOE:Illegal command -> nonsense\r\n\r>\r\n\r")
    assert not board.log.has("[ERR]")
