"""After a restart or a loss the bridge's topics are true, and no output has changed unasked."""

import re

import pytest

from kit.cards import ADAPTER, hardware_found
from kit.expecting import read_file, wait_for

CONFIG = {"poll": True}
TOPIC = "talp/b/"  # of the bridge's node
CARD = TOPIC + "card/"
LOST = (f"[INF] comm timeout {ADAPTER}", "[ERR] ttyUSB devices couldn't be found")
REFUSED = re.compile(".*error .*: the card bus is not connected")
# With the ports there is no log to be watched, by which the cards are ready after three seconds.
PORTS = ("--io-port=5002", "--cae-port=5001")


@pytest.fixture(scope="module")
def started(board, started, card_bus):
    """Inputs are active before a bridge looks, and somebody has been told so."""
    io = board.client("IO")
    card_bus.command("set 3 0 41", "set 8 0 1B", "set F 3 80")
    io.expect_after("aFb3d80")  # the last of the three
    io.close()


@pytest.fixture
def bridges():
    made = []
    yield made
    for bridge in made:
        bridge.close()


@pytest.fixture
def start(board, broker, started, bridges):
    """Starts a bridge in place of the one before. It is online and has left the console."""
    visits = lambda: read_file(board.log_file).count("closed by client on CAE")

    def start(*options):
        for bridge in bridges:
            bridge.close()
        watcher = broker.subscribe(TOPIC + "#")
        watcher.expect(TOPIC + "status offline") if bridges else None
        before = visits()
        bridges[:] = [broker.start_bridge(board, "--home-assistant", "", *options, node="b")]
        watcher.expect(TOPIC + "status online")
        wait_for("the end of its visit", lambda: visits() > before)
        if not options:
            watcher.expect(TOPIC + "io aFb5d00")  # the last of the input states that it asks for
        watcher.lines.clear()
        return watcher

    return start


@pytest.fixture
def watcher(start):
    return start()


def states(broker):
    topics = broker.retained(CARD + "#")
    return {name[len(CARD) :]: text for name, text in topics.items() if "kind" not in name}


def outputs(bus):
    """What frames have shown of the outputs since the last call."""
    bus.command()
    shown = [line for line in bus.lines if line.startswith("out")]
    bus.lines.clear()
    return shown


def command(broker, bus, topic, payload, shown):
    broker.publish(CARD + topic + "/set", payload)
    bus.expect(shown)


def pull(board, bus, watcher):
    bus.command("hangup")
    board.log.expect(*LOST)
    watcher.expect(TOPIC + "status offline")


def plug_in(board, bus, watcher):
    bus.command("return")
    board.log.expect(*hardware_found())
    watcher.expect(TOPIC + "status online")
    watcher.expect(TOPIC + "io aFb5d00")


def test_inputs_that_were_active_before_are_told_at_once(broker, start):
    start(*PORTS)
    wait_for("the last of the inputs", lambda: "F/5" in states(broker))
    held = states(broker)
    assert (held["3/0"], held["3/0/6"], held["3/0/5"]) == ("65", "ON", "OFF")
    assert (held["3/1"], held["F/3"], held["F/0"]) == ("0", "128", "0")
    assert "8/0" not in held  # nobody can ask for the state of a keypad


def test_a_bridge_that_restarts_leaves_the_other_outputs_as_they_are(broker, bus, start):
    watcher = start(*PORTS)
    for topic, payload in (("5/1/0", "ON"), ("5/1/2", "ON"), ("0/4", "16"), ("4/0", "9")):
        broker.publish(CARD + topic + "/set", payload)
        watcher.expect(f"{CARD}{topic} {payload}")
    before = states(broker)
    shown = {"out 5 dout b0=FF b1=FA", "out 0 servo 80 80 80 80 10 80", "out 4 motor 09 00 00 00"}
    bus.wait_for("the outputs", lambda: shown <= set(bus.lines))
    outputs(bus)
    second = start()
    watcher.expect(TOPIC + "status online")
    told = [line for line in watcher.lines if "/card/" in line]
    assert told == []  # what did not change is not told again
    assert states(broker) == {name: text for name, text in before.items() if name != "4/0"}
    # A motor is never driven again, the others have not moved.
    assert set(outputs(bus)) == {"out 5 dout b0=FF b1=FA", "out 0 servo 80 80 80 80 10 80"}
    command(broker, bus, "5/1/5", "ON", "out 5 dout b0=FF b1=DA")
    second.expect(CARD + "5/1 218")


def test_a_bridge_that_is_killed_leaves_the_status_offline(board, broker, started):
    watcher = broker.subscribe(TOPIC + "status")
    bridge = broker.start_bridge(board, "--home-assistant", "", *PORTS, node="b")
    watcher.expect(TOPIC + "status online")
    bridge.kill()
    watcher.expect(TOPIC + "status offline")


def test_without_an_adapter_nothing_is_sent_neither_now_nor_later(board, broker, bus, watcher):
    command(broker, bus, "4/0", "5", "out 4 motor 05 00 00 00")
    pull(board, bus, watcher)
    assert broker.retained(TOPIC + "bus") == {TOPIC + "bus": "offline"}
    outputs(bus)
    for topic, payload in (("5/1/0", "OFF"), ("4/0", "9")):
        broker.publish(CARD + topic + "/set", payload)
        watcher.expect(REFUSED)
    assert "4/0" not in states(broker)
    bus.command("set 3 0 40")
    plug_in(board, bus, watcher)
    assert not [line for line in outputs(bus) if line.startswith("out 4")]
    assert states(broker)["3/0"] == "64"
    assert broker.retained(TOPIC + "bus") == {TOPIC + "bus": "online"}


def test_the_first_command_after_a_rediscovery_changes_one_output(board, broker, bus, watcher):
    broker.publish(CARD + "5/0/set", "0")
    command(broker, bus, "5/1", "0", "out 5 dout b0=00 b1=00")
    pull(board, bus, watcher)
    watcher.lines.clear()
    plug_in(board, bus, watcher)
    outputs(bus)
    command(broker, bus, "5/1/5", "OFF", re.compile("out 5 .*"))
    bus.command()
    assert not [line for line in bus.lines if line.startswith("out")]
    assert bus.skipped
    watcher.expect(CARD + "5/1 32")
    assert states(broker)["5/0"] == "0"


def test_a_restarted_daemon_gets_the_outputs_again(board, broker, bus, watcher):
    command(broker, bus, "5/0", "15", re.compile("out 5 dout b0=0F .*"))
    board.kill(board.daemons[0])
    watcher.expect(TOPIC + "status offline")
    outputs(bus)
    bus.command("set 3 1 03")
    board.start(poll=True)
    watcher.expect(TOPIC + "status online")
    bus.expect(re.compile("out 5 dout b0=0F .*"))
    wait_for("what has changed meanwhile", lambda: states(broker)["3/1"] == "3")
    command(broker, bus, "5/1/7", "ON", re.compile("out 5 dout b0=0F b1=[2-7].*"))


def test_with_restore_off_outputs_are_not_known_after_a_restart(broker, bus, start):
    watcher = start(*PORTS)
    command(broker, bus, "5/0", "240", re.compile("out 5 dout b0=F0 .*"))
    watcher.expect(CARD + "5/0 240")
    start("--restore", "false", *PORTS)
    assert [name for name in states(broker) if name[0] in "045"] == []
    assert outputs(bus) == []


def test_retained_topics_that_are_not_the_nodes_own_are_removed_and_never_believed(broker, start):
    start("--restore", "false", *PORTS)  # forgets the outputs
    foreign = {
        "3/0": "240", "3/0/0": "ON",  # contradicts the block
        "5/1": "0x10", "5/7": "1", "5/1/9": "ON", "0/2": 65 * "1", "4/1": "7", "A/0": "1",
        "A/kind": "16 channel DIGITAL OUTPUT", "nothing": "x", "5/kind/x": "y",
        60000 * "z" + "/kind": "1", "": "1", "5/": "1",
    }  # fmt: skip
    errors = broker.subscribe(TOPIC + "error")
    for topic, payload in foreign.items():
        broker.publish(CARD + topic, payload, retain=True)
    broker.publish(CARD + "0/3", "77", retain=True)  # as the node itself would have
    broker.publish(CARD + "5/0", "240", retain=True)
    broker.publish(CARD + "5/0/0", "OFF", retain=True)  # older: the node was killed
    broker.publish(CARD + "4/0/set", "3", retain=True)
    errors.expect(re.compile(".*'3': it is retained, and would run again.*"))
    start(*PORTS)
    wait_for("the input", lambda: states(broker).get("3/0") not in (None, "240"))
    held = broker.retained(CARD + "#")
    assert not {CARD + topic for topic in foreign if not topic.startswith("3/")} & set(held)
    assert (held[CARD + "0/3"], held[CARD + "5/0"], held[CARD + "5/0/0"]) == ("77", "240", "ON")
    assert CARD + "4/0/set" not in held


def test_a_log_that_is_rotated_or_comes_later_is_still_watched(board, bus, start):
    log, rotated = board.work / "talp.log", board.work / "talp.log.1"
    watcher = start()
    log.rename(rotated)
    bus.command("hangup")
    watcher.expect(TOPIC + "bus offline")
    bus.command("return")
    wait_for("the adapter", lambda: "hardware found" in read_file(log))
    with rotated.open("a", encoding="latin-1") as file:
        file.write(log.read_text(encoding="latin-1"))
    log.unlink()
    watcher = start()  # the end of the rotated log tells
    assert "bus online" in watcher.recent[-1] + "".join(watcher.recent)
    bus.command("hangup")
    watcher.expect(TOPIC + "bus offline")
    bus.command("return")
    wait_for("the adapter", lambda: "hardware found" in read_file(log))
    with rotated.open("a", encoding="latin-1") as file:
        file.write(log.read_text(encoding="latin-1"))
    rotated.rename(log)  # where the board's own reader has it open
    for _ in range(2):
        board.log.expect(LOST[0], *hardware_found())


NOT_WATCHED = "bus: not watched, so the status is that of the IO port: "


def test_without_the_log_the_status_is_that_of_the_io_port(board, broker, started):
    bridge = broker.start_bridge(board, *PORTS, node="other")
    bridge.expect(NOT_WATCHED + "both ports are given, so its log is not known")
    broker.subscribe("talp/other/#").expect("talp/other/status online")
    assert broker.retained("talp/other/bus") == {}
    bridge.close()


def test_the_log_of_a_talp_elsewhere_is_not_watched(board, broker, started):
    bridge = broker.start_bridge(board, "--talp=::2", node="other")
    bridge.expect(NOT_WATCHED + "talp runs on another machine")
    bridge.close()
