#!/usr/bin/env -S python3 -B
"""Lost links: silent, spoilt and late replies, adapters that come and go."""

from common import ADAPTER, HANDSHAKE, hardware_found
from talpkit import check, play

SECOND = "/dev/ttyUSB1"
TIMEOUT = f"[INF] comm timeout {SECOND}"
POLL = " 20 02 06"
ANSWER = "tx 08 21 02 00 00 00 00 00 00"
DISCOVERY = ("rx 01 30", "tx 11 31 00 00 07" + 13 * " 00")


def link(stage):
    # Of two adapters the first is silent.
    silent = stage.bus()
    silent.order("fault lost forever")
    bus = stage.bus("--version-text", "2.07", "--frames", "--card=2=analog", link=SECOND)
    silent_tried = (f"[INF] try to catch hardware on {ADAPTER}", f"[INF] comm timeout {ADAPTER}")
    stage.start(poll=True)
    stage.log.expect(*silent_tried)
    stage.log.expect(*hardware_found(SECOND))
    bus.expect_next(*HANDSHAKE, *DISCOVERY, "rx 03" + POLL)

    # The poll that was queued when the link was lost is the first frame on the new one. Every
    # reconnect discovers anew, and each discovery makes the poll frame longer.
    bus.order("fault lost on poll")
    stage.log.expect(TIMEOUT)
    stage.log.expect(*silent_tried)
    stage.log.expect(*hardware_found(SECOND))
    bus.expect(HANDSHAKE[0])
    bus.expect_next(HANDSHAKE[1], "rx 03" + POLL, ANSWER, *DISCOVERY, "rx 06" + 2 * POLL)

    # A reply that promises too much is none. The first adapter is gone now.
    silent.order("hangup")
    bus.order("fault overlong=132 on poll")
    stage.log.expect(TIMEOUT)
    stage.log.expect(*hardware_found(SECOND))
    bus.expect("rx 09" + 3 * POLL)

    # Whatever answers the handshake with an error code is taken as well, without a word.
    bus.order("fault error=4E on handshake", "fault short on poll")
    stage.log.expect(TIMEOUT, f"[INF] try to catch hardware on {SECOND}")
    bus.expect("tx 05 4E 32 2E 30 37")
    bus.expect("rx 0C" + 4 * POLL)
    check(not stage.log.has("hardware found"), "the error is logged as hardware")

    bus.order("hangup")
    stage.log.expect(TIMEOUT)
    stage.log.expect("[ERR] ttyUSB devices couldn't be found")
    bus.order("return /dev/ttyUSB7")
    stage.log.expect(*hardware_found("/dev/ttyUSB7"))
    bus.expect("rx 0F" + 5 * POLL)


play(link)
