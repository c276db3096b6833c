"""A bus with a card of each kind, and what daemon and bus say to each other at first."""

ADAPTER = "/dev/ttyUSB0"
KINDS = ("0=servo", "3=din", "4=motor", "5=dout", "8=keypad", "9=ir", "E=lcd", "F=analog")
ALL_CARDS = tuple(f"--card={kind}" for kind in KINDS)
VERSION = ("--version-text", "2.07")
HANDSHAKE = ("rx 03 40 6F 9A", "tx 05 40 32 2E 30 37")
DISCOVERY = ("rx 01 30", "tx 11 31 05 00 00 04 06 03 00 00 08 0A 00 00 00 00 09 07")


def hardware_found(adapter=ADAPTER):
    return (
        f"[INF] try to catch hardware on {adapter}",
        f"[INF] hardware found on {adapter} version: 2.07",
    )


def reboot(cae, bus):
    """Exchanges come one after the other: this answer shows that the one before is taken in."""
    cae.ask("REBOOT:5", "CIA: Card is REBOOTED", "RBT:0x5:OK", ">")
    bus.expect_next("rx 04 50 05 01 AB", "direct 5 reboot", "tx 04 51 05 AB 00")


def expect_discovery(cae, bus):
    bus.expect_next(*HANDSHAKE, *DISCOVERY)
    reboot(cae, bus)


def switch_polling(cae, on):
    verb = "ENABLE" if on else "DISABLE"
    cae.ask(f"{verb}POLL", f"CIA: GLOBAL POLLING IS {verb}D", ">")


def wait_for_cards(board):
    """Until a daemon that may poll has found its cards, seen on a console that is closed again."""
    cae = board.client("CAE")
    wait_for_list(cae, "DIGITAL INPUT")
    cae.close()


def wait_for_list(cae, text):
    """Until the list of the cards contains the text."""
    cae.send("DISCOVER\r\n")
    while text not in cae.expect_after(">\r\n\r"):
        cae.send("DISCOVER\r\n")
