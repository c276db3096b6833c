"""Whatever others publish or answer, the bridge stays small, goes on, and ends when told to."""

import contextlib
import re
import socket
import threading
import time

import pytest

from kit.expecting import read_file, wait_for
from kit.relay import FakeTalp, Relay

CONFIG = {"poll": True}
TOPIC = "talp/b/"  # of the bridge's node
# With the ports there is no log to be watched, by which the cards are ready after three seconds.
OPTIONS = ("--io-port=5002", "--cae-port=5001", "--home-assistant", "")
KINDS = ["EMPTY"] * 15 + ["16 channel DIGITAL INPUT"]
LISTED = [f"DTI:0x{address:X}:{kind}" for address, kind in enumerate(KINDS)]
MIB = 1 << 20


@pytest.fixture(scope="module")
def broker(board, make_broker):
    """It drops what a client does not take in time, as mosquitto does unless told otherwise."""
    return make_broker(board, "max_queued_messages 1000")


@pytest.fixture
def bridge(board, broker, started):
    bridge = broker.start_bridge(board, *OPTIONS, node="b")
    broker.subscribe(TOPIC + "status").expect(TOPIC + "status online")
    yield bridge
    check_memory(bridge)
    bridge.close()


def memory(bridge):
    """What it takes in KiB: VmSize and, at most so far, VmHWM."""
    status = read_file(f"/proc/{bridge.process.pid}/status")
    return {name: int(size) for name, size in re.findall(r"(Vm\w+):\s+(\d+) kB", status)}


def is_sanitized(bridge):
    """Then it takes far more by itself, and is slow."""
    return memory(bridge)["VmSize"] > 1 << 30


def check_memory(bridge):
    if bridge.process.returncode is None and not is_sanitized(bridge):
        assert memory(bridge)["VmHWM"] * 1024 < 32 * MIB


@pytest.fixture
def talp():
    """IO port and console, played by the case."""
    io = FakeTalp(6002, "TALP IO interface is ready")
    console = FakeTalp(6001, "TALP CAE interface is ready")
    with contextlib.closing(io), contextlib.closing(console):
        yield io, console


@pytest.fixture
def fake_bridge(board, broker, talp):
    """Of the node "fake". The IO port has greeted it."""
    options = ("--io-port", "6002", "--cae-port", "6001", "--home-assistant", "")
    bridge = broker.start_bridge(board, *options, node="fake")
    io, _ = talp
    io.accept()
    io.greet()
    yield bridge
    check_memory(bridge)
    bridge.close()


def test_retained_messages_of_any_size_and_number_do_not_fill_the_memory(broker, board, started):
    broker.publish(TOPIC + "card/5/1/set", 30 * MIB * "x", retain=True)
    broker.publish(TOPIC + "card/5/big", 30 * MIB * "x", retain=True)
    for number in range(600):
        broker.publish(f"{TOPIC}card/{number}{65000 * 'x'}/kind", "1", retain=True)
    watcher = broker.subscribe(TOPIC + "card/3/kind")
    bridge = broker.start_bridge(board, *OPTIONS, node="b")
    watcher.expect(TOPIC + "card/3/kind 16 channel DIGITAL INPUT")
    check_memory(bridge)
    bridge.close()
    for topic in "set", "big":
        broker.publish(f"{TOPIC}card/5/{'1/' if topic == 'set' else ''}{topic}", "", retain=True)
    assert all(len(name) < 100 for name in broker.retained(TOPIC + "card/#"))


@pytest.mark.parametrize("topic, refusal", (
    ("card/5/1/set", "too many lines wait for the IO port"),
    ("card/5/1/2/set", "neither ON nor OFF"),
))
def test_a_client_that_floods_does_not_keep_inputs_from_their_topics(
    broker, bridge, bus, topic, refusal
):
    watcher, errors = broker.subscribe(TOPIC + "card/3/0"), broker.subscribe(TOPIC + "error")
    name = (TOPIC + topic).encode()
    packet = bytes((0x30, len(name) + 3, 0, len(name))) + name + b"9"
    flooding = True
    pause = 1 if is_sanitized(bridge) else 0.05  # or the broker queues without end

    def flood(publisher):
        with contextlib.suppress(OSError):
            while flooding:
                publisher.sendall(1000 * packet)
                time.sleep(pause)

    with socket.create_connection(("127.0.0.1", broker.port)) as publisher:
        publisher.sendall(b"\x10\x0d\x00\x04MQTT\x04\x02\x00\x3c\x00\x01f")
        thread = threading.Thread(target=flood, args=[publisher])
        thread.start()
        for value in "01", "02", "03":
            bus.command(f"set 3 0 {value}")
            watcher.expect(f"{TOPIC}card/3/0 {int(value)}")
        errors.expect(f"{TOPIC}error {TOPIC}{topic} '9': {refusal}")
        check_memory(bridge)
        if topic == "card/5/1/set":
            bridge.close()  # in the flood
        flooding = False
        thread.join()


def test_commands_go_out_while_the_broker_acknowledges_nothing(board, broker, started, bus):
    silent = lambda from_client, packet: b"" if packet[0] == 0x40 and not from_client else packet
    relay = board.own(Relay(broker.port, silent))
    # It watches the log, so that its status is among the few messages that go out at first.
    bridge = broker.start_bridge(board, *OPTIONS[2:], node="late", port=relay.port)
    broker.subscribe("talp/late/status").expect("talp/late/status online")
    for _ in range(4):  # each command tells nine states
        broker.publish_lines("talp/late/card/5/0/set", 20 * ("0", "255"))
        bus.expect(re.compile("out 5 dout b0=00 .*"))
    for value in 1, 2, 3:
        broker.publish("talp/late/card/4/0/set", str(value))
        bus.expect(f"out 4 motor 0{value} 00 00 00")
    check_memory(bridge)
    bridge.close()


def test_a_command_never_goes_to_another_connection_than_it_came_for(broker, talp, fake_bridge):
    io, _ = talp
    watcher = broker.subscribe("talp/fake/#")
    watcher.expect("talp/fake/status online")
    broker.publish_lines("talp/fake/io/set", [f"a4b0d{n:02X}" for n in range(200)])
    heard = io.hear()
    io.hang_up()
    watcher.expect(re.compile("talp/fake/error .*: the IO port is not connected"))
    watcher.expect("talp/fake/status offline")
    io.accept()
    broker.publish("talp/fake/io/set", "a4b0d01")
    watcher.expect("talp/fake/error talp/fake/io/set 'a4b0d01': the IO port is not connected")
    io.greet()
    watcher.expect("talp/fake/status online")
    broker.publish("talp/fake/io/set", "a4b0dFF")
    assert heard.startswith("a4b0d00\r\n")
    assert io.hear() == "a4b0dFF\r\n"


def test_a_list_of_cards_that_is_not_whole_is_asked_for_again(broker, talp, fake_bridge):
    _, console = talp
    watcher = broker.subscribe("talp/fake/card/#")
    for answer in (
        [*LISTED, "DTI:0xF:EMPTY"],
        LISTED[:9] + LISTED[10:] + LISTED[:1],
        5000 * LISTED,
    ):
        answer_discover(console)
        with contextlib.suppress(ConnectionError):
            console.say("DISCOVER LIST:", *answer, ">")
        assert console.hear() == ""
        ask_for_inputs(console)  # a good visit, after which pauses are short again
        broker.publish("talp/fake/discover/set", "")
    answer_discover(console, "DISCOVER LIST:", *LISTED[:3])  # and the end of the connection
    ask_for_inputs(console)
    watcher.expect("talp/fake/card/F/kind 16 channel DIGITAL INPUT")
    assert broker.retained("talp/fake/card/#") == {"talp/fake/card/F/kind": KINDS[15]}


def answer_discover(console, *lines):
    console.accept()
    console.greet()
    assert console.hear() == "DISCOVER\r\n"
    console.say(*lines)


def ask_for_inputs(console, kinds=tuple(LISTED), polled="ENABLED", blocks=("F=0", "F=1")):
    """A whole visit."""
    answer_discover(console, "COE:Illegal command -> x", ">", "DISCOVER LIST:", *kinds, ">")
    assert console.hear() == "POLLSTATE\r\n"
    console.say(f"CIA: GLOBAL POLLING IS {polled}", "PTI:0xF:ON", ">")
    for block in blocks:
        assert console.hear() == f"GETLASTINPST:{block}\r\n"
        console.say("CIA: LAST INPUT STATE SENT ON IO INTERFACE", ">")
    assert console.hear() == ""  # the place belongs to people


def test_lines_that_come_while_topics_are_read_back_do_not_stop_those_behind(
    broker, talp, fake_bridge
):
    io, _ = talp
    watcher = broker.subscribe("talp/fake/#")
    fake_bridge.expect(f"broker 127.0.0.1:{broker.port}: connected")
    io.say(*2000 * ["a8b0d01"])
    watcher.expect("talp/fake/status online")
    io.say("a8b0d02")
    watcher.expect("talp/fake/card/8/0 2")


def test_all_inputs_of_a_full_bus_are_asked_for_in_one_visit(talp, fake_bridge):
    _, console = talp
    kinds = [f"DTI:0x{address:X}:6 channel ANALOGUE INPUT" for address in range(16)]
    blocks = [f"{address:X}={block}" for address in range(16) for block in range(6)]
    ask_for_inputs(console, kinds, blocks=blocks)


def test_the_cards_are_asked_for_again_when_an_empty_address_speaks(broker, talp, fake_bridge):
    io, console = talp
    ask_for_inputs(console)
    io.say("a3b0d01")
    ask_for_inputs(console)


def test_inputs_that_may_never_have_been_read_are_not_told(broker, talp, fake_bridge):
    io, console = talp
    watcher = broker.subscribe("talp/fake/card/#")
    ask_for_inputs(console, polled="DISABLED")
    io.say("aFb0d00", "aFb1d07")
    watcher.expect("talp/fake/card/F/1 7")
    assert "talp/fake/card/F/0" not in broker.retained("talp/fake/card/#")


@pytest.fixture
def remembered(broker):
    for name, payload in (("kind", KINDS[15]), ("0", "5"), ("1", "6")):
        broker.publish(f"talp/fake/card/F/{name}", payload, retain=True)


def test_a_retained_input_that_talp_does_not_confirm_loses_its_topic(
    broker, talp, remembered, fake_bridge
):
    io, console = talp
    watcher = broker.subscribe("talp/fake/#")
    ask_for_inputs(console)
    watcher.expect("talp/fake/status online")
    io.say("aFb1d06")
    watcher.expect("talp/fake/card/F/0 (null)")
    assert broker.retained("talp/fake/card/F/+")["talp/fake/card/F/1"] == "6"


def test_cards_that_talp_has_not_found_yet_are_no_reason_to_forget_them(broker, talp, fake_bridge):
    io, console = talp
    watcher = broker.subscribe("talp/fake/#")
    ask_for_inputs(console)
    watcher.expect("talp/fake/status online")
    broker.publish("talp/fake/discover/set", "")
    empty = [f"DTI:0x{address:X}:EMPTY" for address in range(16)]
    answer_discover(console, "DISCOVER LIST:", *empty, ">")
    watcher.expect("talp/fake/status offline")
    broker.publish("talp/fake/io/set", "a4b0d01")
    watcher.expect(re.compile(".*: talp has not found any card"))
    ask_for_inputs(console)
    watcher.expect("talp/fake/status online")
    assert broker.retained("talp/fake/card/F/kind") == {"talp/fake/card/F/kind": KINDS[15]}


def test_a_console_that_never_ends_its_list_is_left_and_does_not_fill_the_memory(talp, fake_bridge):
    _, console = talp
    answer_discover(console, "DISCOVER LIST:", *LISTED[:-1])

    def left():
        with contextlib.suppress(OSError):
            return console.client.sendall(65536 * b"x")
        return True

    wait_for("the end of the visit", left)
    check_memory(fake_bridge)
    ask_for_inputs(console)
