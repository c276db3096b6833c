#!/usr/bin/env -S python3 -B
"""What clients and cards say to each other, and how one client follows another."""

from common import ALL_CARDS, expect_discovery, hardware_found, switch_polling
from talpkit import check, check_equal, play, read_file, wait_for


def drive_outputs(io, bus):
    """IO lines become frames. Nothing is polled, so that the wire shows nothing else."""
    io.send("a5b1dFB\r\na5b0d0F\r\n")
    bus.expect_next("rx 05 10 05 02 FF FB", "out 5 dout b0=FF b1=FB", "tx 02 41 05")
    bus.expect_next("rx 05 10 05 02 0F FB", "out 5 dout b0=0F b1=FB", "tx 02 41 05")
    io.send("a1b0d01\r\na0b4d40\r\n")  # no card at 1
    bus.expect_next("rx 09 10 00 06 80 80 80 80 40 80", "out 0 servo 80 80 80 80 40 80")
    bus.expect_next("tx 02 41 00")
    io.send("a4b0d7F")  # without a separator
    bus.expect_next("rx 07 10 04 04 7F 00 00 00", "out 4 motor 7F 00 00 00", "tx 02 41 04")
    io.send("aElCL\r\naElPAp0301tTail of the cat\r\n")
    bus.expect_next("rx 04 10 0E 01 00", "lcd E clear", "tx 02 41 0E")
    bus.expect_next("rx 16 10 0E 13 09 03 01 54 61 69 6C 20 6F 66 20 74 68 65 20 63 61 74 00")
    bus.expect("lcd E row 1 |   Tail of the cat  |")
    bus.expect("tx 02 41 0E")


def watch_typing(cae, io, mon, bus):
    """A monitor sees what is typed as it is typed, up to a NUL."""
    io.send("EXIT")  # without its separator
    cae.expect("COE:Illegal command -> EXIT\r\n\r>\r\n\r")
    mon.expect("EXIT\r")
    io.send("a5b0d00\0a5b0d11\r\n")
    mon.expect("a5b0d00\r")
    bus.expect("out 5 dout b0=00 b1=FB")
    bus.expect_next("tx 02 41 05")


def expect_inputs(clients, *lines):
    for client in clients:
        client.expect("".join(f"{line}\r\n\r" for line in lines))


def poll_inputs(cae, clients, bus):
    # Six answers of the analogue card are summed, the seventh gives the average.
    bus.order("set 3 1 40", "set F 0 FF", "set F 3 80")
    switch_polling(cae, True)
    bus.expect_next("rx 03 20 03 02", "tx 04 21 03 00 40", "rx 03 20 08 01", "tx 03 21 08 00")
    bus.expect_next("rx 03 20 0F 06", "tx 08 21 0F FF 00 00 80 00 00", "rx 03 20 03 02")
    expect_inputs(clients, "a3b1d40", "aFb0dFF", "aFb3d80")
    switch_polling(cae, False)

    # A direct answer tells the last changes once more: one good round of polls, then errors only.
    bus.order("set 3 0 81", "fault long 3 on poll", "fault error=4E forever on poll")
    switch_polling(cae, True)
    expect_inputs(clients, "a3b0d81")
    switch_polling(cae, False)
    cae.ask("REBOOT:3", "CIA: Card is REBOOTED", "RBT:0x3:OK", ">")
    expect_inputs(clients, "a3b0d81")
    bus.order("fault off")


def expect_keepalive(stage):
    """The system probes each connection of the daemon within 60 seconds of silence."""

    def timers():
        rows = [row.split() for row in read_file("/proc/net/tcp").splitlines()]
        ports = [f":{port:04X}" for port in stage.ports.values()]
        established = [row for row in rows if row[1][-5:] in ports and row[3] == "01"]
        return [tuple(int(part, 16) for part in row[5].split(":")) for row in established]

    of_keepalive, longest = 2, 6000  # ticks of 10 ms
    armed = lambda: [kind == of_keepalive and left <= longest for kind, left in timers()]
    wait_for("keepalive timers", lambda: armed() == [True] * 3, None, timers)


def change_clients(stage, cae, io, mon, bus):
    check_equal((stage.pauses(2), stage.pauses(3)), (0, 3), "pauses so far")
    io.send("EXIT\r\n")
    io.expect("TALP: Bye Bye...\r\n\r")
    io.expect_end()
    stage.log.expect("[INF] connection is closed by command on IO interface")

    # Without an IO client the monitor gets nothing either. A console answer shows that the master
    # has been through the line of before.
    bus.order("set 3 0 40")
    switch_polling(cae, True)
    bus.expect("tx 04 21 03 40 40")
    bus.expect("rx 03 20 03 02")
    switch_polling(cae, False)

    # An interface listens again after two pauses, and takes the next client after one more.
    stage.log.expect("[INF] IO interface listening on port 5002")
    check_equal(stage.pauses(2), 2, "pauses of a closed interface")
    clients = stage.client("IO"), mon
    check_equal(stage.pauses(3), 4, "pauses before a client is accepted")
    bus.order("set 8 0 2A")
    switch_polling(cae, True)
    expect_inputs(clients, "a8b0d2A")
    switch_polling(cae, False)
    mon.close()
    stage.log.expect("[INF] connection is closed by client on MON interface")


def bus(stage):
    card_bus = stage.bus(*ALL_CARDS)
    stage.start()
    stage.log.expect(*hardware_found())
    cae, io = stage.client("CAE"), stage.client("IO")
    expect_discovery(cae, card_bus)
    drive_outputs(io, card_bus)
    mon = stage.client("MON")
    watch_typing(cae, io, mon, card_bus)
    poll_inputs(cae, (io, mon), card_bus)
    expect_keepalive(stage)
    change_clients(stage, cae, io, mon, card_bus)
    check(not stage.log.has("[ERR]"), "an error is logged")


play(bus)
