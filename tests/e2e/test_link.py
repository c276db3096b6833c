"""Lost links: silent, corrupt and late replies, adapters that come and go."""

import pytest

from kit.cards import ADAPTER, HANDSHAKE, VERSION, hardware_found

SECOND = "/dev/ttyUSB1"
TIMEOUT = f"[INF] comm timeout {SECOND}"
SILENT_TRIED = (f"[INF] try to catch hardware on {ADAPTER}", f"[INF] comm timeout {ADAPTER}")
POLL = " 20 02 06"
ANSWER = "tx 08 21 02 00 00 00 00 00 00"
DISCOVERY = ("rx 01 30", "tx 11 31 00 00 07" + 13 * " 00")


class Polls:
    """Every reconnect discovers anew, and each discovery makes the poll frame longer."""

    def __init__(self):
        self.count = 1

    def frame(self):
        return f"rx {3 * self.count:02X}" + self.count * POLL

    def longer(self):
        self.count += 1
        return self.frame()


@pytest.fixture(scope="module")
def silent(board):
    bus = board.bus()
    bus.command("fault lost forever")
    return bus


@pytest.fixture(scope="module")
def card_bus(board, silent):
    return board.bus(*VERSION, "--frames", "--card=2=analog", link=SECOND)


@pytest.fixture(scope="module")
def polls(board, silent, card_bus):
    """Of two adapters the first is silent; the second has been found and is polled."""
    board.start(poll=True)
    board.log.expect(*SILENT_TRIED)
    board.log.expect(*hardware_found(SECOND))
    made = Polls()
    card_bus.expect_next(*HANDSHAKE, *DISCOVERY, made.frame())
    return made


def test_a_poll_queued_at_a_lost_reply_is_the_first_frame_on_the_new_link(board, polls, bus):
    queued = polls.frame()
    bus.command("fault lost on poll")
    board.log.expect(TIMEOUT)
    board.log.expect(*SILENT_TRIED)
    board.log.expect(*hardware_found(SECOND))
    bus.expect(HANDSHAKE[0])
    bus.expect_next(HANDSHAKE[1], queued, ANSWER, *DISCOVERY, polls.longer())


def test_a_reply_that_promises_too_much_is_none(board, polls, silent, bus):
    silent.command("hangup")  # the first adapter is gone now
    bus.command("fault overlong=132 on poll")
    board.log.expect(TIMEOUT)
    board.log.expect(*hardware_found(SECOND))
    bus.expect(polls.longer())
    silent.command("return")


@pytest.mark.parametrize(
    "fault, answer", (("error=4E", "tx 05 4E 32 2E 30 37"), ("cut=0", "tx 00"))
)
def test_any_answer_to_the_handshake_is_taken_without_a_word(board, polls, bus, fault, answer):
    bus.command(f"fault {fault} on handshake", "fault short on poll")
    board.log.expect(TIMEOUT, *SILENT_TRIED, f"[INF] try to catch hardware on {SECOND}")
    bus.expect(answer)
    bus.expect(polls.longer())
    assert not board.log.has("hardware found")


def test_an_adapter_may_come_back_under_another_number_and_names_are_tried_in_order(
    board, polls, silent, bus
):
    silent.command("hangup")
    bus.command("hangup")
    board.log.expect(TIMEOUT)
    board.log.expect("[ERR] ttyUSB devices couldn't be found")
    bus.command("return /dev/ttyUSB10")
    board.log.expect(*hardware_found("/dev/ttyUSB10"))
    bus.expect(polls.longer())
    silent.command("return /dev/ttyUSB2")  # behind ttyUSB10
    bus.command("fault lost on poll")
    board.log.expect("[INF] comm timeout /dev/ttyUSB10", *hardware_found("/dev/ttyUSB10"))
    assert not board.log.has("/dev/ttyUSB2")
    bus.expect(polls.longer())
    silent.command("hangup")
    bus.command("hangup")
    board.log.expect("[INF] comm timeout /dev/ttyUSB10")
    bus.command(f"return {SECOND}")
    board.log.expect(*hardware_found(SECOND))
    bus.expect(polls.longer())
    silent.command("return")
