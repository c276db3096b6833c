"""The bridge survives its broker, its daemon and what strangers publish."""

import re
import signal
import socket

import pytest

from kit.cards import ADAPTER, KINDS, hardware_found, wait_for_cards
from kit.expecting import wait_for

CONFIG = {"poll": True}
TOPIC = "talp/b/"  # of the bridge's node
FULL = re.compile("IO port .*: no greeting, so another client is being served; waiting")
GREETED = "IO port 127.0.0.1:5002: connected"
BROKEN = re.compile("broker 127.0.0.1:1883: (?!connected).*")
BACK = "broker 127.0.0.1:1883: connected"
TOPICS = len(KINDS) + 2 * 9 + 6 + 9  # kinds, two blocks and their bits, channels, an output block
LINES = [f"a{n % 16:X}b{n // 16 % 2}d{n // 32 % 256:02X}" for n in range(8192)]


@pytest.fixture(scope="module")
def started(board, daemon):
    wait_for_cards(board)


def wait_for_kinds(broker):
    listed = lambda: len(broker.retained(TOPIC + "card/+/kind")) == len(KINDS)
    wait_for("the kinds of the cards", listed)


@pytest.fixture(scope="module")
def bridge(board, broker, started):
    """Somebody else holds the port: it is said, and the place is taken when it is free."""
    other = board.client("IO")
    bridge = broker.start_bridge(board, node="b")
    bridge.expect(FULL)
    assert broker.retained(TOPIC + "status") == {TOPIC + "status": "offline"}
    other.close()
    bridge.expect(GREETED)
    wait_for_kinds(broker)
    return bridge


@pytest.fixture
def watcher(broker):
    return broker.subscribe(TOPIC + "#")


def test_every_line_of_a_fast_talp_comes_in_order(board, broker):
    with socket.create_server(("127.0.0.1", 6002)) as server:
        watcher = broker.subscribe("talp/fast/#")
        options = ("--io-port", "6002", "--cae-port", "0", "--home-assistant", "")
        bridge = broker.start_bridge(board, *options, node="fast")
        talp, _ = server.accept()
        with talp:
            talp.sendall(b"TALP IO interface is ready\r\n\r")
            watcher.expect("talp/fast/status online")
            talp.sendall("".join(f"{line}\r\n\r" for line in LINES).encode())
            for line in LINES:
                watcher.expect(f"talp/fast/io {line}")
                value = int(line[5:], 16)
                watcher.expect_next(f"talp/fast/card/{line[1]}/{line[3]} {value}")
            # Nobody has told the kind of the card, nor what its other outputs are.
            broker.publish("talp/fast/card/5/2/1/set", "ON")
            watcher.expect(re.compile("talp/fast/error .*are not known; send the block"))
            # The last will is not needed: the bridge says itself that it goes.
            bridge.close()
            watcher.expect("talp/fast/status offline")


def retained(broker):
    """Of the board, without lines of the IO port that come just now."""
    topics = broker.retained(TOPIC + "#")
    return {name: text for name, text in topics.items() if name != TOPIC + "io"}


def test_a_broker_that_restarts_is_told_all_again(broker, bridge, bus):
    broker.publish(TOPIC + "card/5/1/set", "251")
    bus.expect("out 5 dout b0=FF b1=FB")
    told = lambda: len(broker.retained(TOPIC + "card/#")) == TOPICS
    wait_for("all topics of the cards", told)
    before, discovered = retained(broker), broker.discovered()
    assert before[TOPIC + "status"] == "online"
    assert len(discovered) == 8
    broker.stop()
    bridge.expect(BROKEN)
    bus.command("set 3 0 40")  # its line comes while the broker is away
    broker.start()
    bridge.expect(BACK)
    changed = before | {TOPIC + "card/3/0": "64", TOPIC + "card/3/0/6": "ON"}
    wait_for("what was told before and came meanwhile", lambda: retained(broker) == changed)
    assert broker.discovered() == discovered


def test_a_silent_broker_is_given_up_and_holds_what_is_true_later(broker, bridge, watcher, bus):
    broker.program.process.send_signal(signal.SIGSTOP)
    bridge.expect(BROKEN)
    bus.command("set 3 0 41")
    broker.program.process.send_signal(signal.SIGCONT)
    bridge.expect(BACK)
    watcher.expect(TOPIC + "card/3/0 65")


def test_an_adapter_that_comes_back_goes_on(board, bridge, watcher, bus):
    bus.command("hangup")
    board.log.expect(f"[INF] comm timeout {ADAPTER}", "[ERR] ttyUSB devices couldn't be found")
    bus.command("return")
    board.log.expect(*hardware_found())
    bus.command("set 3 0 42")
    watcher.expect(TOPIC + "card/3/0 66")


def test_after_a_restart_of_the_daemon_inputs_are_asked_for_and_motors_not_known(
    board, broker, bridge, watcher, bus
):
    watcher.expect(TOPIC + "status online")
    broker.publish(TOPIC + "card/4/3/set", "9")
    watcher.expect(TOPIC + "card/4/3 9")
    board.stop(board.daemons[0])
    watcher.expect(TOPIC + "card/4/3 (null)")
    watcher.expect(TOPIC + "status offline")
    broker.publish(TOPIC + "card/4/0/set", "255")
    refusal = f"{TOPIC}error {TOPIC}card/4/0/set '255': the IO port is not connected.*"
    watcher.expect(re.compile(refusal))
    bus.command("set 3 1 01", "set 3 0 00")
    board.start(poll=True)
    bridge.expect(GREETED)
    watcher.expect(TOPIC + "status online")
    changed = {TOPIC + "card/3/0": "0", TOPIC + "card/3/1": "1"}
    wait_for("the inputs", lambda: broker.retained(TOPIC + "card/3/+").items() >= changed.items())
    broker.publish(TOPIC + "card/4/3/set", "9")
    bus.expect("out 4 motor 00 00 00 09")


def test_a_flood_is_sent_or_refused_and_the_bridge_goes_on(broker, bridge, watcher, bus):
    wait_for_kinds(broker)
    rest = 65535 - len(TOPIC + "/set")
    for topic in (TOPIC + rest * "x" + "/set", TOPIC + rest * "x", TOPIC + 150 * "/" + "set"):
        broker.publish(topic, "1")
    lines = ('{"text":' + 2000 * "[", "\0\1\377", 9000 * "9")
    broker.publish_lines(TOPIC + "card/E/lcd/set", lines)
    # More than the IO port is given in time, and every one is either sent or refused.
    broker.publish_lines(TOPIC + "card/5/0/set", [str(n % 256) for n in range(4000)])
    broker.publish(TOPIC + "io/set", "a4b0d0A")
    line = watcher.expect(re.compile(TOPIC + "(card/4/0 10|error .*io/set.*many lines wait.*)"))
    shown = "out 5 dout b0=.*" if "error" in line else "out 4 motor 0A 00 00 .*"
    bus.expect(re.compile(shown))
