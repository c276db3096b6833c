"""What a broker's clients and the cards of one board say to each other through the bridge."""

import collections
import json
import re
import signal
import subprocess

import pytest

from kit.cards import DISCOVERY, switch_polling
from kit.expecting import wait_for
from kit.relay import FakeTalp

TOPIC = "talp/b/"  # of the bridge's node
BROKEN = re.compile("broker 127.0.0.1:1883: (?!connected).*")
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


def test_no_line_is_cut_in_two_however_many_come(broker, bus):
    texts = [f"{number:02} {28 * 'x'}" for number in range(40)]
    broker.publish_lines(TOPIC + "card/E/lcd/set", [json.dumps({"text": text}) for text in texts])
    for text in texts:
        bus.expect(f'lcd E text 0,0 "{text}"')


def test_every_line_of_a_fast_talp_comes_in_order(board, broker):
    watcher = broker.subscribe("talp/fast/#")
    talp = board.own(FakeTalp(6002, "TALP IO interface is ready"))
    options = ("--io-port=6002", "--cae-port=0", "--home-assistant", "")
    bridge = broker.start_bridge(board, *options, node="fast")
    talp.accept()
    talp.greet()
    watcher.expect("talp/fast/status online")
    lines = [f"a{n % 16:X}b{n // 16 % 2}d{n // 32 % 256:02X}" for n in range(8192)]
    talp.say(*lines)
    for line in lines:
        watcher.expect(f"talp/fast/io {line}")
        watcher.expect_next(f"talp/fast/card/{line[1]}/{line[3]} {int(line[5:], 16)}")
    # Nobody has told the kind of the card, nor what its other outputs are.
    broker.publish("talp/fast/card/5/2/1/set", "ON")
    watcher.expect(re.compile("talp/fast/error .*are not known; send the block"))
    # The last will is not needed: the bridge says itself that it goes.
    bridge.close()
    watcher.expect("talp/fast/status offline")


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
    bus.command("set 3 0 41", "set 8 0 1B", "set F 3 80")
    poll(board, True)
    watcher.expect(TOPIC + "io a3b0d41")
    bits = [f"{TOPIC}card/3/0/{bit} {'ON' if bit in (0, 6) else 'OFF'}" for bit in range(8)]
    watcher.expect_next(TOPIC + "card/3/0 65", *bits)
    watcher.expect_next(TOPIC + "io a8b0d1B", TOPIC + "card/8/0 27")
    watcher.expect(TOPIC + "card/F/3 128")
    bus.command("set 3 0 40")
    watcher.expect(TOPIC + "io a3b0d40")
    watcher.expect_next(TOPIC + "card/3/0 64", TOPIC + "card/3/0/0 OFF")
    poll(board, False)


def test_home_assistant_gets_a_device_for_the_board_and_each_card(broker, watcher):
    devices = {name.split("/")[2]: entry for name, entry in broker.discovered().items()}
    assert sorted(devices) == ["talp_b", *(f"talp_b_{digit}" for digit in "03458EF")]
    parts = [part for entry in devices.values() for part in entry["components"].values()]
    counts = collections.Counter(part["platform"] for part in parts)
    assert counts == {"binary_sensor": 17, "switch": 16, "sensor": 7, "number": 10, "text": 1}
    assert len({part["unique_id"] for part in parts}) == 51
    board = devices.pop("talp_b")
    assert board["components"]["connection"]["state_topic"] == TOPIC + "status"
    for name, entry in devices.items():
        about = entry["device"]
        assert (about["via_device"], about["name"]) == ("talp_b", f"b card {name[-1]}")
        assert entry["availability_topic"] == TOPIC + "status"
        assert set(entry) == {"device", "origin", "components", "availability_topic"}


def test_entities_keep_their_ids_and_have_short_names(broker):
    devices = broker.discovered()
    for card, key, name, identity in (
        ("5", "1_2", "Output 1.2", "talp_b_card5_1_2"),
        ("3", "0_3", "Input 0.3", "talp_b_card3_0_3"),
        ("0", "4", "Servo 4", "talp_b_card0_4"),
        ("4", "2", "Motor 2", "talp_b_card4_2"),
        ("4", "3", "Control", "talp_b_card4_3"),
        ("8", "0", "Keys", "talp_b_card8_0"),
        ("F", "2", "Channel 2", "talp_b_cardF_2"),
    ):
        part = devices[f"homeassistant/device/talp_b_{card}/config"]["components"][key]
        assert (part["name"], part["unique_id"]) == (name, identity)
        assert part.get("state_class") == ("measurement" if card == "F" else None)


def test_the_topics_of_each_entity_do_what_home_assistant_would_do_with_them(broker, watcher):
    devices = broker.discovered().values()
    parts = [part for entry in devices for part in entry["components"].values()]
    for part in parts:
        if part["platform"] in ("switch", "number"):
            values = ("0", "255") if part["platform"] == "number" else ("OFF", "ON")
            broker.publish_lines(part["command_topic"], values)
            watcher.expect(f"{part['state_topic']} {values[1]}")
    states = {part.get("state_topic") for part in parts}
    assert {f"{TOPIC}card/{part}" for part in ("3/0/6", "8/0", "F/3")} <= states
    text = next(part for part in parts if part["platform"] == "text")
    rendered = text["command_template"].replace("{{ value | tojson }}", '"Hello"')
    assert json.loads(rendered) == {"clear": True, "text": "Hello"}


def test_a_broker_that_restarts_or_falls_silent_has_true_topics_afterwards(board, broker, bridge, bus):
    poll(board, True)
    held = lambda: broker.retained(TOPIC + "card/#")
    before, discovered = held(), broker.discovered()
    broker.stop()
    bridge.expect(BROKEN)
    bus.command("set 3 0 41")  # its line comes while the broker is away
    broker.start()
    changed = before | {TOPIC + "card/3/0": "65", TOPIC + "card/3/0/0": "ON"}
    wait_for("what was told before and came meanwhile", lambda: held() == changed)
    assert broker.discovered() == discovered
    broker.program.process.send_signal(signal.SIGSTOP)
    bridge.expect(BROKEN)
    bus.command("set 3 0 40")
    broker.program.process.send_signal(signal.SIGCONT)
    wait_for("what came meanwhile", lambda: held().get(TOPIC + "card/3/0") == "64")
    poll(board, False)


def test_a_card_that_is_gone_leaves_no_topic_and_no_device(board, broker, watcher, bus):
    broker.publish_lines(TOPIC + "card/5/1/7/set", ("ON", "OFF"))
    watcher.expect(TOPIC + "card/5/1/7 OFF")
    bus.command("card 5 none", "card 3 keypad")
    cae = board.patient_client("CAE")
    cae.ask("FORCEDISCOVER", "FORCED DISCOVER LIST:")
    cae.close()
    broker.publish(TOPIC + "discover/set", "")
    watcher.expect(TOPIC + "card/3/kind KEYMX and ROTE CONTROLLER")
    watcher.expect(TOPIC + "card/5/1/7 (null)")
    watcher.expect(TOPIC + "card/5/kind (null)")
    assert broker.retained(TOPIC + "card/5/#") == {}
    devices = broker.discovered()
    assert "homeassistant/device/talp_b_5/config" not in devices
    assert list(devices["homeassistant/device/talp_b_3/config"]["components"]) == ["0"]


def test_a_taken_port_is_told_and_waited_for(board, broker, bridge):
    second = broker.start_bridge(board, "--home-assistant", "", node="second")
    second.expect(re.compile("IO port .*: no greeting, so another client is being served; waiting"))
    status = "talp/second/status"
    assert broker.retained(status) == {status: "offline"}
    bridge.close()
    broker.subscribe(status).expect(f"{status} online")
    second.close()


def expect_refused_start(board, *options, named):
    command = [board.build / "tools/mqtt/talp-mqtt", *options]
    done = subprocess.run(command, timeout=20, capture_output=True, text=True, check=False)
    assert done.returncode == 2, options
    assert re.fullmatch(f"talp-mqtt: .*{re.escape(named)}.*\n", done.stderr), options


def test_wrong_options_are_named(board):
    bad = board.work / "bad.conf"
    bad.write_text("no-such = 1\n")
    expect_refused_start(board, "--no-such", named="--no-such")
    for node in "a+b", "b/card", "", "card", 300 * "b":
        expect_refused_start(board, "--node", node, named="--node")
    expect_refused_start(board, "--mqtt", "4", named="--mqtt")
    expect_refused_start(board, "--password-file", "/etc/passwd", named="--password-file")
    expect_refused_start(board, "--config", bad, named="no-such")


def test_without_the_configuration_of_the_daemon_ports_are_needed(board):
    board.config_file.unlink()
    expect_refused_start(board, named="talpconf.xml")
