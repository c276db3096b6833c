"""Brokers of other kinds, at several addresses, and with many boards."""

import contextlib
import json
import re
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest

from kit.cards import KINDS
from kit.expecting import read_file, wait_for
from kit.relay import FakeTalp, Relay
from kit.sandbox import needs_namespaces

CONFIG = {"poll": True}
TOPIC = "talp/b/"  # of the bridge's node
NO_HOME = ("--home-assistant", "")
NO_TALP = ("--io-port=1", "--cae-port=0", *NO_HOME)  # of a bridge that is not to do much
# With the ports there is no log to be watched, by which the cards are ready after three seconds.
PORTS = ("--io-port=5002", "--cae-port=5001")
PORT = 8883
FIVE = 5  # protocol level in CONNECT
PUBACK = 0x40
GREETING = "TALP IO interface is ready"
REASON = b"\x20\x02\x00\x01"


@pytest.fixture
def relay_without_5(board, broker):
    """Makes a relay that answers so to MQTT 5, and counts how often."""

    def made(answer):
        def edit(from_client, packet):
            if from_client and packet[0] == 0x10 and packet[packet.index(b"MQTT") + 4] == FIVE:
                relay.refused += 1
                raise EOFError(answer)
            return packet

        relay = board.own(Relay(broker.port, edit))
        relay.refused = 0
        return relay

    return made


@pytest.mark.parametrize("answer", (REASON, b""), ids=("with a reason", "without a word"))
def test_a_broker_that_refuses_mqtt_5_is_spoken_to_by_3_1_1(
    board, broker, started, relay_without_5, bus, answer
):
    port = relay_without_5(answer).port
    watcher = broker.subscribe(TOPIC + "#")
    bridge = broker.start_bridge(board, *PORTS, *NO_HOME, node="b", port=port)
    bridge.expect(f"broker 127.0.0.1:{port}: connected by MQTT 3.1.1")
    watcher.expect(TOPIC + "status online")
    wait_for("the kind of the card", lambda: broker.retained(TOPIC + "card/5/kind"))
    broker.publish(TOPIC + "card/5/1/2/set", "ON")
    bus.expect("out 5 dout b0=FF b1=FB")
    watcher.expect(TOPIC + "card/5/1 251")
    # Its own messages are no commands, and nothing is refused.
    broker.publish(TOPIC + "card/5/1/2/set", "OFF")
    watcher.expect(TOPIC + "card/5/1 255")
    assert not [line for line in watcher.skipped if "error" in line]
    bridge.close()


def test_a_retained_command_is_refused_at_the_connect_by_3_1_1(board, broker, started, bus):
    broker.publish(TOPIC + "card/4/0/set", "9", retain=True)
    errors, status = broker.subscribe(TOPIC + "error"), broker.subscribe(TOPIC + "status")
    bridge = broker.start_bridge(board, "--mqtt=3.1.1", *PORTS, *NO_HOME, node="b")
    errors.expect(re.compile(".*error .*'9': it is retained, and would run again.*"))
    status.expect(TOPIC + "status online")
    broker.publish(TOPIC + "card/4/1/set", "7")
    bus.expect("out 4 motor 00 07 00 00")
    bridge.close()


def test_mqtt_5_alone_may_be_asked_for(board, broker, relay_without_5):
    relay = relay_without_5(REASON)
    bridge = broker.start_bridge(board, *NO_TALP, "--mqtt=5", node="five", port=relay.port)
    bridge.expect(re.compile(f"broker 127.0.0.1:{relay.port}: (Unsupp.* Protocol|Unknown error).*"))
    wait_for("two more attempts", lambda: relay.refused > 2)
    bridge.pull()
    assert not [line for line in bridge.lines if "connected" in line]
    bridge.close()


def test_a_broker_that_refuses_is_not_asked_without_a_pause(board, broker):
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
        bridge = broker.start_bridge(board, *NO_TALP, node="b", port=port)
        server.settimeout(4)  # pauses of half a second at least, twice as long each time
        attempts = 0
        end = time.monotonic() + 4
        while time.monotonic() < end:
            with contextlib.suppress(TimeoutError):
                server.accept()[0].close()
                attempts += 1
        assert 0 < attempts < 10
        bridge.close()


def test_a_broker_that_refuses_a_message_is_told_of(board, broker):
    def refuse(from_client, packet):
        is_answer = not from_client and packet[0] == PUBACK
        return bytes((PUBACK, 3)) + packet[2:4] + b"\x87" if is_answer else packet

    port = board.own(Relay(broker.port, refuse)).port
    bridge = broker.start_bridge(board, *NO_TALP, node="b", port=port)
    bridge.expect(f"broker 127.0.0.1:{port}: the broker refuses a message: Not authorized")
    bridge.close()


def test_a_message_that_is_too_long_for_the_broker_is_told_of(board, make_broker, started):
    other = make_broker(board, "max_packet_size 1000", port=1886)
    bridge = other.start_bridge(board, node="b")
    bridge.expect(re.compile(".*: homeassistant/device/.*: longer than the broker takes"))
    bridge.close()
    other.stop()


def test_the_access_list_of_the_manual_is_enough_and_keeps_a_board_to_its_node(
    board, make_broker, started, bus
):
    manual = Path(__file__).parents[2] / "man/talp-mqtt.8"
    *rules, device = re.search(r"user attic\n[^.]*", manual.read_text())[0].splitlines()
    devices = [device.replace("attic_5", f"attic_{kind[0]}") for kind in KINDS]
    file = board.work / "rules"
    file.write_text("\n".join(["topic readwrite #", *rules, *devices]))
    other = make_broker(board, f"acl_file {file}", port=1886)
    bridge = other.start_bridge(board, "--username=attic", node="attic")
    bridge.expect("broker 127.0.0.1:1886: connected")
    watcher = other.subscribe("talp/attic/#")
    watcher.expect("talp/attic/status online")
    other.publish("talp/attic/card/4/0/set", "9")
    bus.expect(re.compile("out 4 motor 09 .*"))
    wait_for("the devices", lambda: len(other.discovered()) == 8)
    bridge.pull()
    assert not [line for line in bridge.lines if line.startswith("broker")]
    bridge.close()
    stranger = other.start_bridge(board, *NO_TALP, "--username=attic", node="cellar")
    stranger.expect(re.compile("broker 127.0.0.1:1886: (?!connected).*"))
    assert other.retained("talp/cellar/#") == {}
    stranger.close()
    other.stop()


def test_nodes_that_differ_in_a_sign_only_have_client_ids_of_their_own(board, broker):
    names = "b-1", "b_1", "b.1"
    bridges = [broker.start_bridge(board, *NO_TALP, node=name) for name in names]
    for name, bridge in zip(names, bridges):
        bridge.expect("broker 127.0.0.1:1883: connected")
        broker.subscribe(f"talp/{name}/status").expect(f"talp/{name}/status offline")
    for bridge in bridges:
        bridge.pull()
        assert not [line for line in bridge.lines if line.startswith("broker")]
        bridge.close()


def test_old_messages_to_home_assistant_are_migrated_and_removed(board, broker, started):
    config = "homeassistant/{}/config".format
    old = config("switch/talp_b/card5_1_2"), config("sensor/talp_b/card1_0")
    others = config("switch/other/card5_1_2"), config("switch/talp_b/x")
    for topic in old + others:
        broker.publish(topic, '{"name": "of an earlier release"}', retain=True)
    watcher = broker.subscribe("homeassistant/#")
    bridge = broker.start_bridge(board, *PORTS, node="b")
    for topic in sorted(old):
        watcher.expect(topic + ' {"migrate_discovery": true}')
    device = watcher.expect(re.compile("homeassistant/device/talp_b_5/config {.*}"))
    entity = json.loads(device.split(" ", 1)[1])["components"]["1_2"]
    assert entity["unique_id"] == "talp_b_card5_1_2"
    for topic in sorted(old):
        watcher.expect(topic + " (null)")
    held = broker.retained("homeassistant/#")
    assert not set(old) & set(held)
    assert set(others) < set(held)
    bridge.close()


def test_an_output_that_nobody_knows_any_more_is_unknown_to_home_assistant(board, broker, started):
    bridge = broker.start_bridge(board, *PORTS, node="b")
    watcher = broker.subscribe(TOPIC + "#")
    watcher.expect(TOPIC + "status online")
    broker.publish(TOPIC + "card/4/0/set", "9")
    watcher.expect(TOPIC + "card/4/0 9")
    board.kill(board.daemons[0])
    board.start(poll=True)
    watcher.expect(TOPIC + "card/4/0 None")
    watcher.expect_next(TOPIC + "card/4/0 (null)")
    bridge.close()


@pytest.mark.parametrize("number", (signal.SIGTERM, signal.SIGINT, signal.SIGHUP))
def test_a_signal_ends_it_well(board, broker, number):
    bridge = broker.start_bridge(board, *NO_TALP, node="b")
    bridge.expect("broker 127.0.0.1:1883: connected")
    bridge.process.send_signal(number)
    bridge.expect_exit()


def test_a_signal_ends_it_well_from_its_first_moment_on(board, broker):
    for _ in range(10):
        bridge = broker.start_bridge(board, *NO_TALP, node="b")
        blocked = lambda: int(re.search(r"SigBlk:\s(\w+)", read_file(status))[1], 16)
        status = f"/proc/{bridge.process.pid}/status"
        while not blocked() & 1 << signal.SIGTERM - 1:
            pass
        bridge.close()


@pytest.fixture
def hosts(board):
    """Has a name mean these addresses, for programs of the sandbox started afterwards."""
    needs_namespaces("an /etc/hosts of its own")
    file = board.work / "hosts"

    def hosts(name, *addresses):
        file.write_text("".join(f"{address} {name}\n" for address in addresses))
        subprocess.run(("mount", "--no-mtab", "--bind", file, "/etc/hosts"), check=True)

    yield hosts
    subprocess.run(("umount", "/etc/hosts"), check=False)


def run(*command):
    subprocess.run(command, check=True, timeout=20, capture_output=True)


def certificate(board, name, kind="DNS"):
    """One that signs itself."""
    path = board.work / name
    path.mkdir()
    subject = ("-subj", f"/CN={name}", "-addext", f"subjectAltName={kind}:{name}")
    files = ("-keyout", f"{path}/key", "-out", f"{path}/cert")
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", *subject, *files)
    return path


@pytest.mark.parametrize("addresses", (("::1", "127.0.0.1"), ("127.0.0.2", "127.0.0.1")))
def test_all_addresses_of_the_broker_are_tried(board, broker, hosts, addresses):
    hosts("house.test", *addresses)
    bridge = broker.start_bridge(board, *NO_TALP, node="b", host="house.test")
    bridge.expect("broker house.test:1883: connected (127.0.0.1)")
    bridge.close()
    broker.stop()
    bridge = broker.start_bridge(board, *NO_TALP, node="b", host="house.test")
    tried = bridge.expect(re.compile("broker house.test:1883: Connection refused .*"))
    assert all(address in tried for address in addresses)
    broker.start()
    bridge.close()


def test_an_address_that_never_answers_is_given_up_for_the_next_one(board, broker, hosts):
    hosts("house.test", "::1", "127.0.0.1")
    with socket.create_server(("::1", 1883), family=socket.AF_INET6, backlog=0) as full:
        waiting = [socket.socket(socket.AF_INET6) for _ in range(3)]
        for each in waiting:
            each.setblocking(False)
            each.connect_ex(full.getsockname())
        bridge = broker.start_bridge(board, *NO_TALP, node="b", host="house.test")
        bridge.expect("broker house.test:1883: connected (127.0.0.1)")
        bridge.close()
        for each in waiting:
            each.close()


def test_all_addresses_of_talp_are_tried(board, broker, started, hosts):
    hosts("talp.test", "::1", "127.0.0.2", "127.0.0.1")
    watcher = broker.subscribe("talp/far/status")
    bridge = broker.start_bridge(board, "--talp", "talp.test", *NO_HOME, node="far")
    bridge.expect("IO port talp.test:5002: Connection refused (::1)")
    watcher.expect("talp/far/status online")
    bridge.close()


def test_with_tls_the_certificate_is_compared_with_the_name(board, make_broker, hosts):
    own, other = certificate(board, "house.test"), certificate(board, "other.test")
    hosts("house.test", "::1", "127.0.0.1")
    tls = {"ca_certs": f"{own}/cert"}
    options = f"certfile {own}/cert", f"keyfile {own}/key"
    broker = make_broker(board, *options, port=PORT, tls=tls)
    ca = f"--tls-ca={own}/cert"
    bridge = broker.start_bridge(board, *NO_TALP, ca, node="b", host="house.test")
    bridge.expect(f"broker house.test:{PORT}: connected (127.0.0.1)")
    bridge.close()
    for host, trusted in (("127.0.0.1", own), ("house.test", other)):
        ca = f"--tls-ca={trusted}/cert"
        bridge = broker.start_bridge(board, *NO_TALP, ca, node="b", host=host)
        refused = bridge.expect(re.compile(f"broker {host}:{PORT}: .*"))
        assert "connected" not in refused
        bridge.close()


@pytest.fixture(scope="module")
def secured(board, make_broker):
    """A broker that wants certificates and passwords, and the options of a service for it."""
    path = certificate(board, "127.0.0.1", "IP")
    (path / "users").write_text("board:secret word\nperson:other\n")
    run("mosquitto_passwd", "-U", path / "users")
    cert, key = f"{path}/cert", f"{path}/key"
    broker = make_broker(
        board,
        *(f"password_file {path}/users", f"cafile {cert}", f"certfile {cert}", f"keyfile {key}"),
        "require_certificate true",
        port=PORT + 1,
        auth={"username": "person", "password": "other"},
        tls={"ca_certs": cert, "certfile": cert, "keyfile": key},
    )

    def options(password):
        (path / "password").write_text(password + "\n")
        (path / "conf").write_text(
            f"# For a service.\ntls-ca = {cert}\ntls-cert = {cert}\ntls-key = {key}\n"
            f'username = board\npassword-file = {path}/password\nhome-assistant = ""\n'
        )
        return "--config", str(path / "conf"), "--cae-port=0"

    return broker, options


def test_a_wrong_password_is_told(board, secured):
    broker, options = secured
    intruder = broker.start_bridge(board, *options("guessed"), "--io-port=1", node="a")
    intruder.expect(f"broker 127.0.0.1:{broker.port}: Not authorized")
    intruder.close()


def test_each_board_has_its_own_topics(board, secured):
    broker, options = secured
    watcher = broker.subscribe("talp/#")
    talps = {name: board.own(FakeTalp(port, GREETING)) for port, name in enumerate("abc", 6002)}
    for name, talp in talps.items():
        port = talp.server.getsockname()[1]
        broker.start_bridge(board, *options("secret word"), f"--io-port={port}", node=name)
        talp.accept()
        talp.greet()
        watcher.expect(f"talp/{name}/status online")
    for value, (name, talp) in enumerate(talps.items(), 1):
        talp.say(f"a3b0d{value:02X}")
        watcher.expect(f"talp/{name}/card/3/0 {value}")
        broker.publish(f"talp/{name}/io/set", f"a5b1d{value:02X}")
        assert talp.hear() == f"a5b1d{value:02X}\r\n"
        watcher.expect(f"talp/{name}/card/5/1 {value}")
    assert broker.discovered() == {}  # they were switched off


def test_a_name_that_is_being_looked_up_does_not_delay_the_end(board, broker):
    """Its name server does not answer."""
    needs_namespaces("an /etc/resolv.conf of its own")
    servers = board.work / "resolv.conf"
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.1", 53))
        silent.settimeout(20)
        servers.write_text("nameserver 127.0.0.1\n")
        subprocess.run(("mount", "--no-mtab", "--bind", servers, "/etc/resolv.conf"), check=True)
        bridge = broker.start_bridge(board, "--talp=far.test", *NO_TALP, node="b", host="far.test")
        silent.recv(512)
        bridge.process.send_signal(signal.SIGTERM)
        bridge.process.wait(4)  # seconds; a lookup takes more than that
        assert bridge.process.returncode == 0
        subprocess.run(("umount", "/etc/resolv.conf"), check=True)
