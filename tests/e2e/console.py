#!/usr/bin/env -S python3 -B
"""Byte for byte what a console's user sees, with all pauses at their real length."""

from common import ADAPTER, ALL_CARDS, DISCOVERY
from common import expect_discovery, hardware_found, switch_polling
from talpkit import check, play

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


def hold_session(cae, io, bus):
    cae.ask("DRVVER", "CIA: DRIVER VERSION 1.20", ">")
    cae.send("drvver\r\n")
    cae.expect("CIE: UNKNOWN COMMAND \r\n>\r\n\r")
    bus.order("card 1 02", "card 6 unknown")
    switch_polling(cae, True)
    cae.ask("FORCEDISCOVER", *LIST)
    bus.order("set 3 0 40")
    io.expect("a3b0d40\r\n\r")
    switch_polling(cae, False)
    cae.ask("GETLASTINPST:3=0", "CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">")
    io.expect("a3b0d40\r\n\r")
    cae.ask("SPEED=75", "CIA: SPEED IS SET to 75%", ">")

    bus.order("answer F 2A")
    cae.ask("GETANMASK:F", "CIA: MASK is GOT from card", "AMV:0xF:0x2A", ">")
    bus.expect("rx 04 50 0F 40 01")
    bus.order("fault notq")
    cae.ask("SETMSR1:4=20", "CIE: PARAM WRITE ERROR", ">")
    bus.expect("rx 05 50 04 01 C1 20")


def outlive_late_reply(stage, cae, bus):
    """It arrives on the next link, where no later request takes it for its own."""
    bus.order("fault late=3000 on direct", "answer F 2B")
    cae.ask("REBOOT:5", "CIE: BUS WRITE ERROR", ">")
    stage.log.expect(f"[INF] comm timeout {ADAPTER}", *hardware_found())
    both = {"tx 04 51 05 AB 00", DISCOVERY[0]}
    bus.wait_for(f"{both}", lambda: both.issubset(bus.lines))
    cae.ask("GETANMASK:F", "CIA: MASK is GOT from card", "AMV:0xF:0x2B", ">")


def console(stage):
    bus = stage.bus(*ALL_CARDS)
    stage.start()
    io, cae = stage.client("IO"), stage.client("CAE")
    expect_discovery(cae, bus)
    hold_session(cae, io, bus)
    outlive_late_reply(stage, cae, bus)
    cae.ask("EXIT", "TALP: Bye Bye...")
    stage.log.expect("[INF] CAE interface listening on port 5001")

    # The prompt of the last command waits for the next client, and so does what the IO client gets
    # wrong meanwhile. The banner comes behind both.
    io.send("nonsense\r\na5b0d00\r\n")
    bus.expect("out 5 dout b0=00 b1=FF")
    stage.client("CAE", ">\r\n\rCOE:Illegal command -> nonsense\r\n\r>\r\n\r")
    check(not stage.log.has("[ERR]"), "an error is logged")


play(console, real_time=True)
