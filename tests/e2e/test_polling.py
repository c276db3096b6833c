"""In which order the bus is served, and what is polled."""

import os

import pytest

from kit.cards import ADAPTER, HANDSHAKE, hardware_found, switch_polling, wait_for_list
from kit.expecting import wait_for

CARDS = tuple(f"--card={kind}" for kind in ("0=servo", "3=din", "5=dout", "8=keypad", "F=analog"))
TIMEOUT = f"[INF] comm timeout {ADAPTER}"
DIN, KEYPAD, ANALOG = "20 03 02", "20 08 01", "20 0F 06"


def polls(*frames):
    return [f"rx {len(frame.split()):02X} {frame}" for frame in frames]


def requests(bus, count):
    """The next frames of the daemon."""
    frames = []
    while len(frames) < count:
        line = bus.take()
        if line.startswith("rx "):
            frames.append(line)
    return frames


@pytest.fixture(autouse=True)
def pid(board, card_bus):
    """A daemon for each case: what it has discovered makes its poll frames longer."""
    pid = board.start()
    board.log.expect(*hardware_found())
    card_bus.expect("rx 01 30")
    yield pid
    board.log.pull()
    board.stop(pid)


@pytest.fixture
def cae(board, pid):
    cae = board.client("CAE")
    wait_for_list(cae, "DIGITAL INPUT")
    return cae


def test_a_lost_reply_ends_the_walk_and_the_other_queues_are_served_first_on_the_new_link(
    board, cae, bus
):
    bus.command("fault lost on poll")
    switch_polling(cae, True)
    board.log.expect(TIMEOUT, *hardware_found())
    bus.expect(HANDSHAKE[0])
    # Polls are queued after the lost reply, too, so two cards have one more than the first.
    first = polls(DIN, KEYPAD, ANALOG)
    doubled = polls(DIN + " " + DIN, KEYPAD, ANALOG)
    assert requests(bus, 8) == [*first, "rx 01 30", *doubled, doubled[0]]
    switch_polling(cae, False)


def test_an_error_reply_does_not_end_the_walk(cae, bus):
    bus.command("fault error=4E on poll")
    switch_polling(cae, True)
    assert requests(bus, 6) == 2 * polls(DIN, KEYPAD, ANALOG)
    switch_polling(cae, False)


def test_requests_wait_in_the_queue_of_their_card_and_the_console_behind_them(board, cae, bus):
    io = board.client("IO")
    bus.command("hangup")
    io.send("a5b0d01\r\n")  # finds that the adapter is gone
    board.log.expect(TIMEOUT)
    board.log.expect("[ERR] ttyUSB devices couldn't be found")
    io.send("a5b0d02\r\na0b4d10\r\n")
    cae.ask("REBOOT:F", "CIE: BUS WRITE ERROR", ">")
    bus.command("return")
    board.log.expect(*hardware_found())
    servo, output = "rx 09 10 00 06 80 80 80 80 10 80", "rx 05 10 05 02 02 FF"
    assert requests(bus, 5)[1:] == [servo, output, "rx 04 50 0F 01 AB", "rx 01 30"]


def test_poll_off_stops_polling_that_card(cae, bus):
    cae.ask("POLLOFF:8", "CIA: POLLOFF is OK at address 8", ">")
    switch_polling(cae, True)
    assert requests(bus, 4) == 2 * polls(DIN, ANALOG)
    cae.ask("POLLON:8", "CIA: POLLON is OK at address 8", ">")
    bus.expect(polls(KEYPAD)[0])
    switch_polling(cae, False)


def test_a_card_that_an_output_card_has_replaced_is_polled_no_more(board, cae, bus):
    bus.command("card 8 dout", "hangup", "return")
    cae.ask("REBOOT:5", "CIE: BUS WRITE ERROR", ">")
    board.log.expect(TIMEOUT, *hardware_found())
    wait_for_list(cae, "DTI:0x8:16 channel DIGITAL OUTPUT")
    bus.expect("rx 01 30")
    switch_polling(cae, True)
    doubled = [frame + " " + frame for frame in (DIN, ANALOG)]
    assert requests(bus, 4) == 2 * polls(*doubled)
    switch_polling(cae, False)
    bus.command("card 8 keypad")


def test_an_answer_for_an_address_that_no_card_can_have_is_dropped(board, cae, bus):
    io = board.client("IO")
    bus.command("set 3 0 41", "fault misaddressed=F0 on poll", "fault misaddressed=F0 on direct")
    cae.ask("REBOOT:5", "CIE: BUS WRITE ERROR", ">")
    switch_polling(cae, True)
    io.expect("a3b0d41\r\n\r")
    switch_polling(cae, False)
    bus.command("set 3 0 00")


def test_a_long_stray_reply_is_dropped_before_the_next_request(board, cae, bus):
    bus.command("fault late=100 on direct", "fault late=3000 on discovery")
    switch_polling(cae, False)
    cae.send("FORCEDISCOVER\r\n")
    cae.expect_after(">\r\n\r")
    board.log.expect(TIMEOUT, *hardware_found())
    bus.expect("tx 11 31 05 00 00 04 00 03 00 00 08 00 00 00 00 00 00 07")
    cae.ask("REBOOT:5", "CIA: Card is REBOOTED", "RBT:0x5:OK", ">")


def test_a_bus_that_does_not_answer_leaves_no_adapter_open(board, pid, cae, bus):
    opened = lambda: [file for file in os.listdir(f"/proc/{pid}/fd") if is_adapter(pid, file)]
    assert len(opened()) == 1
    bus.command("fault lost forever")
    cae.ask("REBOOT:5", "CIE: BUS WRITE ERROR", ">")
    board.log.expect(TIMEOUT, TIMEOUT)
    wait_for("the adapter's end", lambda: not opened(), None, opened)
    bus.command("fault off")
    board.log.expect(*hardware_found())


def is_adapter(pid, file):
    try:
        return "/pts/" in os.readlink(f"/proc/{pid}/fd/{file}")
    except FileNotFoundError:
        return False
