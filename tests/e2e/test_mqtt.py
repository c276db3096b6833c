"""What a broker's clients and the cards of one board say to each other through the bridge."""

import collections
import json
import re
import subprocess

import pytest

from kit.cards import DISCOVERY, switch_polling

TOPIC = "talp/b/"  # of the bridge's node
TEXT = {"clear": True, "light": True, "cursor": False, "text": "Hi", "column": 3, "line": 1}
CLEAR_LIGHT_CURSOR_OFF = ("rx 04 10 0E 01 00", "rx 04 10 0E 01 01", "rx 04 10 0E 01 04")
# Topic and payload, the frames on the wire, and the messages that tell.
COMMANDS = (
    ("card/5/1/set", "251", ("rx 05 10 05 02 FF FB",), ("card/5/1 251", "card/5/1/2 ON")),
    ("card/5/1/3/set", "ON", ("rx 05 10 05 02 FF F3",), ("card/5/1 243", "card/5/1/3 ON")),
    ("card/5/1/2/set", "OFF", ("rx 05 10 05 02 FF F7",), ("card/5/1 247", "card/5/1/2 OFF")),
    ("io/set", "a5b0d00", ("rx 05 10 05 02 00 F7",), ("card/5/0 0", "card/5/0/0 ON")),
    ("card/0/4/set", "16", ("rx 09 10 00 06 80 80 80 80 10 80",), ("card/0/4 16",)),
    ("card/9/ir/set", "4f4B", ("rx 06 10 09 03 02 4F 4B",), ()),
    (
        "card/E/lcd/set",
        json.dumps(TEXT),
        (*CLEAR_LIGHT_CURSOR_OFF, "rx 09 10 0E 06 09 03 01 48 69 00"),
        (),
    ),
)
NOTHING = "talp has nothing to send to a card for it"
REFUSED = (
    ("card/5/1/set", "256", "not a number from 0 to 255"),
    ("card/5/1/set", "2 ", "not a number from 0 to 255"),
    ("card/3/0/set", "1", "no such output block there"),
    ("card/5/2/set", "1", "no such output block there"),
    ("card/0/0/1/set", "ON", "no digital output there"),
    ("card/5/0/1/set", "on", "neither ON nor OFF"),
    ("card/5/lcd/set", '{"clear":true}', NOTHING),
    ("card/E/lcd/set", 200 * "[", "[json.exception.parse_error.101]"),
    ("card/E/lcd/set", '{"clear":1}', "[json.exception.type_error.302]"),
    ("card/E/lcd/set", '["clear"]', "not a JSON object"),
    ("card/E/lcd/set", '{"clear":false}', "it asks for nothing"),
    ("card/E/lcd/set", '{"light":true,"off":true}', "unknown key"),
    ("card/E/lcd/set", '{"text":"x","line":256}', "column and line are numbers from 0 to 255"),
    ("card/9/ir/set", "4F4", "not bytes of two hexadecimal digits each"),
    ("card/9/ir/set", 35 * "4F", NOTHING),
    ("io/set", "EXIT", NOTHING),
    ("card/5/9/set", "1", "unknown topic"),
)


@pytest.fixture(scope="module")
def watcher(broker):
    """Of a broker that holds topics of an earlier run."""
    for topic in ("card/1/kind", "card/1/0", "card/2/0/1"):
        broker.publish(TOPIC + topic, "of an earlier run", retain=True)
    config = "homeassistant/switch/talp_b/card1_0/config"
    broker.publish(config, "of an earlier run", retain=True)
    return broker.subscribe(TOPIC + "#")


@pytest.fixture(scope="module", autouse=True)
def bridge(board, broker, watcher, daemon, card_bus):
    """It is connected and has told the kinds of the cards."""
    card_bus.expect(DISCOVERY[1])
    bridge = broker.start_bridge(board, node="b")
    watcher.expect(TOPIC + "status online")
    watcher.expect(TOPIC + "card/3/kind 16 channel DIGITAL INPUT")
    watcher.expect(TOPIC + "card/1/kind (null)")
    return bridge


def test_topics_of_cards_of_an_earlier_run_are_cleared(broker):
    kinds = broker.retained(TOPIC + "card/#")
    assert sorted(kinds) == sorted(f"{TOPIC}card/{digit}/kind" for digit in "034589EF")


def test_messages_become_frames_and_the_new_states_are_told(broker, watcher, bus):
    broker.publish(TOPIC + "io/set", "a5b0dFF")  # as the rows below want it
    for topic, payload, frames, messages in COMMANDS:
        broker.publish(TOPIC + topic, payload)
        for message in messages:
            watcher.expect(TOPIC + message)
        for frame in frames:
            bus.expect(frame)
            bus.expect(re.compile("tx 02 41 0."))
    assert broker.retained(TOPIC + "card/0/4") == {TOPIC + "card/0/4": "16"}


def expect_refusal(watcher, topic, payload, reason):
    wanted = f"{TOPIC}error {TOPIC}{topic} '{payload}': {reason}"
    watcher.expect(re.compile(re.escape(wanted) + ".*"))


def test_what_makes_no_sense_is_refused_with_a_reason_and_sends_nothing(broker, watcher, bus):
    for topic, payload, reason in REFUSED:
        broker.publish(TOPIC + topic, payload)
        expect_refusal(watcher, topic, payload, reason)
    broker.publish(TOPIC + "io/set", "a5b0d00\r\na5b1d00")
    expect_refusal(watcher, "io/set", "a5b0d00??a5b1d00", "it holds a line end")
    broker.publish(TOPIC + "card/5/0/set", "1", retain=True)
    retained = "it is retained, and would run again at every connect"
    expect_refusal(watcher, "card/5/0/set", "1", retained)
    broker.publish(TOPIC + "card/5/0/set", "", retain=True)
    broker.publish(TOPIC + "io/set", "a4b0d01")
    bus.expect_next("rx 07 10 04 04 01 00 00 00", "out 4 motor 01 00 00 00", "tx 02 41 04")


def poll(board, on):
    cae = board.patient_client("CAE")
    switch_polling(cae, on)
    cae.close()


def test_input_changes_are_told_by_block_and_by_bit(board, watcher, bus):
    bus.order("set 3 0 41", "set 8 0 1B", "set F 3 80")
    poll(board, True)
    watcher.expect(TOPIC + "io a3b0d41")
    bits = [f"{TOPIC}card/3/0/{bit} {'ON' if bit in (0, 6) else 'OFF'}" for bit in range(8)]
    watcher.expect_next(TOPIC + "card/3/0 65", *bits)
    watcher.expect_next(TOPIC + "io a8b0d1B", TOPIC + "card/8/0 27")
    watcher.expect(TOPIC + "card/F/3 128")
    bus.order("set 3 0 40")
    watcher.expect(TOPIC + "io a3b0d40")
    watcher.expect_next(TOPIC + "card/3/0 64", TOPIC + "card/3/0/0 OFF")
    poll(board, False)


def test_the_topics_of_each_document_do_what_home_assistant_would_do_with_them(broker, watcher):
    documents = broker.documents()
    counts = collections.Counter(name.split("/")[1] for name in documents)
    assert counts == {"binary_sensor": 16, "switch": 16, "sensor": 7, "number": 10}
    assert len({entry["unique_id"] for entry in documents.values()}) == 49
    for name, entry in documents.items():
        of_all = entry["availability_topic"], entry["device"]["identifiers"]
        assert of_all == (TOPIC + "status", ["talp_b"]), name
        if "command_topic" in entry:
            values = ("0", "255") if "/number/" in name else ("OFF", "ON")
            broker.publish_lines(entry["command_topic"], values)
            watcher.expect(f"{entry['state_topic']} {values[1]}")
    states = {entry["state_topic"] for entry in documents.values()}
    assert {f"{TOPIC}card/{part}" for part in ("3/0/6", "8/0", "F/3")} <= states
    home = broker.subscribe("homeassistant/#")
    broker.publish("homeassistant/status", "online")
    home.expect("homeassistant/status online")
    for name in sorted(documents):
        home.expect(re.compile(re.escape(name) + " {.*}"))


def test_a_card_that_is_gone_leaves_no_topic_and_no_document(board, broker, watcher, bus):
    broker.publish_lines(TOPIC + "card/5/1/7/set", ("ON", "OFF"))
    watcher.expect(TOPIC + "card/5/1/7 OFF")
    bus.order("card 5 none", "card 3 keypad")
    cae = board.patient_client("CAE")
    cae.ask("FORCEDISCOVER", "FORCED DISCOVER LIST:")
    cae.close()
    broker.publish(TOPIC + "discover/set", "")
    watcher.expect(TOPIC + "card/3/kind KEYMX and ROTE CONTROLLER")
    watcher.expect(TOPIC + "card/5/1/7 (null)")
    watcher.expect(TOPIC + "card/5/kind (null)")
    assert broker.retained(TOPIC + "card/5/#") == {}
    left = [name for name in broker.documents() if "card5" in name or "card3_0_" in name]
    assert left == []


def test_wrong_options_are_named(board):
    bad = board.work / "bad.conf"
    bad.write_text("no-such = 1\n")
    for options, reason in (
        (("--no-such",), ".*"),
        (("--node", "a+b"), ".*"),
        (("--password-file", "/etc/passwd"), ".*"),
        (("--config", bad), ".*"),
    ):
        command = [board.build / "tools/mqtt/talp-mqtt", *options]
        done = subprocess.run(command, timeout=20, capture_output=True, text=True, check=False)
        assert done.returncode == 2, options
        assert re.fullmatch(f"talp-mqtt: {reason}\n", done.stderr), options


def test_without_the_configuration_of_the_daemon_ports_are_needed(board):
    board.config_file.unlink()
    command = [board.build / "tools/mqtt/talp-mqtt"]
    done = subprocess.run(command, timeout=20, capture_output=True, text=True, check=False)
    assert (done.returncode, "talpconf.xml" in done.stderr) == (2, True), done.stderr
