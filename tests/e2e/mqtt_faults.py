#!/usr/bin/env -S python3 -B
"""The bridge survives its broker, its daemon and what strangers publish."""

import re
import signal
import socket

from common import ADAPTER, ALL_CARDS, KINDS, TOPIC
from common import expect_refusal, hardware_found, start_board
from talpkit import check, check_equal, wait_for
from talpmqtt import Broker, play, start_bridge

FULL = re.compile("IO port .*: no greeting, so another client is being served; waiting")
GREETED = "IO port 127.0.0.1:5002: connected"
BROKEN = re.compile("broker localhost:1883: (?!connected).*")
BACK = "broker localhost:1883: connected"
LINES = [f"a{n % 16:X}b{n // 16 % 2}d{n // 32 % 256:02X}" for n in range(8192)]


def play_full(stage, broker):
    """Somebody else holds the port: it is said, and the place is taken when it is free."""
    other = stage.client("IO")
    talp_mqtt = start_bridge(stage, node="b")
    talp_mqtt.expect(FULL)
    check_equal(broker.retained(TOPIC + "status"), {TOPIC + "status": "offline"}, "status")
    other.close()
    talp_mqtt.expect(GREETED)
    return talp_mqtt


def disturb_broker(broker, talp_mqtt, bus):
    broker.publish(TOPIC + "card/5/1/set", "251")
    bus.expect("out 5 dout b0=FF b1=FB")
    listed = lambda: len(broker.retained(TOPIC + "card/+/kind")) == len(KINDS)
    wait_for("the kinds of the cards", listed)
    before = broker.retained(TOPIC + "#")
    check_equal(before[TOPIC + "status"], "online", "status")
    documents = broker.documents()
    broker.stop()
    talp_mqtt.expect(BROKEN)
    bus.order("set 3 0 40")  # its line comes while the broker is away
    broker.start()
    talp_mqtt.expect(BACK)
    subscriber = broker.subscribe(TOPIC + "#")
    missed = lambda: broker.retained(TOPIC + "card/3/0") == {TOPIC + "card/3/0": "64"}
    wait_for("the value that came meanwhile", missed)
    after = broker.retained(TOPIC + "#")
    check_equal({name: after.get(name) for name in before}, before, "retained again")
    check(broker.documents() == documents and len(documents) == 49, "not all documents again")

    # A broker that is silent is given up. What it holds is true when it wakes.
    broker.program.process.send_signal(signal.SIGSTOP)
    talp_mqtt.expect(BROKEN)
    bus.order("set 3 0 41")
    broker.program.process.send_signal(signal.SIGCONT)
    talp_mqtt.expect(BACK)
    subscriber.expect(TOPIC + "card/3/0 65")
    return subscriber


def disturb_talp(stage, pid, broker, talp_mqtt, subscriber, bus):
    bus.order("hangup")
    stage.log.expect(f"[INF] comm timeout {ADAPTER}", "[ERR] ttyUSB devices couldn't be found")
    bus.order("return")
    stage.log.expect(*hardware_found())
    bus.order("set 3 0 42")
    subscriber.expect(TOPIC + "card/3/0 66")

    stage.stop(pid)
    subscriber.expect(TOPIC + "status offline")
    broker.publish(TOPIC + "card/4/0/set", "255")
    expect_refusal(subscriber, "card/4/0/set", "255", "the IO port is not connected")
    stage.start(poll=True)
    talp_mqtt.expect(GREETED)
    subscriber.expect(TOPIC + "status online")
    # Nobody knows what became of outputs and inputs meanwhile.
    values = [name for name in broker.retained(TOPIC + "card/#") if not name.endswith("/kind")]
    check_equal(values, [], "values of the time before")
    bus.order("set 3 1 01")
    subscriber.expect(TOPIC + "card/3/1 1")

    def driven():
        """Refused until the console, which may be asked before a discovery, has listed the card."""
        broker.publish(TOPIC + "card/4/3/set", "9")
        bus.pull()
        return "out 4 motor 00 00 00 09" in bus.lines

    wait_for("a frame for the motor", driven)


def flood(broker, talp_mqtt, subscriber, bus):
    rest = 65535 - len(TOPIC + "/set")
    for topic in (TOPIC + rest * "x" + "/set", TOPIC + rest * "x", TOPIC + 150 * "/" + "set"):
        broker.publish(topic, "1")
    lines = ('{"text":' + 2000 * "[", "\0\1\377", 9000 * "9")
    broker.publish_lines(TOPIC + "card/E/lcd/set", lines)
    # More than the IO port is given in time, and every one is either sent or refused.
    broker.publish_lines(TOPIC + "card/5/0/set", [str(n % 256) for n in range(4000)])
    broker.publish(TOPIC + "io/set", "a4b0d0A")
    line = subscriber.expect(re.compile(TOPIC + "(card/4/0 10|error .*io/set.*many lines wait.*)"))
    if "error" in line:
        bus.expect(re.compile("out 5 dout b0=.*"))
    else:
        bus.expect("out 4 motor 0A 00 00 09")


def keep_up(stage, broker):
    """Another talp sends line after line: all of them come, in their order."""
    with socket.create_server(("127.0.0.1", 6002)) as server:
        subscriber = broker.subscribe("talp/fast/#")
        talp_mqtt = start_bridge(stage, "--io-port", "6002", "--cae-port", "0", node="fast")
        talp, _ = server.accept()
        with talp:
            talp.sendall(b"TALP IO interface is ready\r\n\r")
            subscriber.expect("talp/fast/status online")
            talp.sendall("".join(f"{line}\r\n\r" for line in LINES).encode())
            for line in LINES:
                subscriber.expect(f"talp/fast/io {line}")
                value = int(line[5:], 16)
                subscriber.expect_next(f"talp/fast/card/{line[1]}/{line[3]} {value}")
            # The last will is not needed: the bridge says itself that it goes.
            talp_mqtt.close()
            subscriber.expect("talp/fast/status offline")


def mqtt_faults(stage):
    broker = Broker(stage)
    keep_up(stage, broker)
    bus, pid = start_board(stage, *(option for option in ALL_CARDS if option != "--frames"))
    talp_mqtt = play_full(stage, broker)
    subscriber = disturb_broker(broker, talp_mqtt, bus)
    disturb_talp(stage, pid, broker, talp_mqtt, subscriber, bus)
    flood(broker, talp_mqtt, subscriber, bus)


play(mqtt_faults)
