#!/usr/bin/env -S python3 -B
"""Three boards at one broker that wants certificates and passwords."""

import subprocess
from pathlib import Path

from common import start_board
from talpkit import check_equal
from talpmqtt import Broker, play, start_bridge

SECRETS = Path("/run/secrets")
PORT = 8883


def run(*command):
    subprocess.run(command, check=True, timeout=20, capture_output=True)


def make_secrets():
    """A certificate that signs itself and stands for broker and clients, and two passwords."""
    SECRETS.mkdir(exist_ok=True)
    subject = ("-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost")
    files = ("-keyout", f"{SECRETS}/key", "-out", f"{SECRETS}/cert")
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", *subject, *files)
    (SECRETS / "boards").write_text("board:secret word\nperson:other\n", encoding="ascii")
    run("mosquitto_passwd", "-U", f"{SECRETS}/boards")
    (SECRETS / "password").write_text("secret word\n", encoding="ascii")
    (SECRETS / "wrong").write_text("guessed\n", encoding="ascii")


def write_options(path, password):
    path.write_text(
        f"# As a service would have them.\ntls-ca = {SECRETS}/cert\ntls-cert = {SECRETS}/cert\n"
        f"tls-key = {SECRETS}/key\nusername = board\npassword-file = {SECRETS}/{password}\n"
        'home-assistant = ""\n',
        encoding="ascii",
    )
    return ("--config", str(path))


def mqtt_boards(stage):
    make_secrets()
    broker = Broker(
        stage,
        f"password_file {SECRETS}/boards",
        f"cafile {SECRETS}/cert",
        f"certfile {SECRETS}/cert",
        f"keyfile {SECRETS}/key",
        "require_certificate true",
        port=PORT,
        login=("-u", "person", "-P", "other", "-h", "localhost", "--cafile", f"{SECRETS}/cert")
        + ("--cert", f"{SECRETS}/cert", "--key", f"{SECRETS}/key"),
    )
    subscriber = broker.subscribe("talp/#", "homeassistant/#")
    wrong = write_options(Path("/run/wrong.conf"), "wrong")
    intruder = start_bridge(stage, *wrong, "--io-port", "1", "--cae-port", "0", node="a")
    intruder.expect(f"broker localhost:{PORT}: Not authorized")
    intruder.close()

    options = write_options(Path("/run/talp-mqtt.conf"), "password")
    boards = {"a": stage, "b": stage.add_board("b", 5011), "c": stage.add_board("c", 5021)}
    buses = {}
    for name, board in boards.items():
        buses[name], _ = start_board(board, "--card=3=din", "--card=5=dout")
        start_bridge(board, *options, node=name)
    for name in boards:
        subscriber.expect(f"talp/{name}/card/5/kind 16 channel DIGITAL OUTPUT")
    for value, (name, bus) in enumerate(buses.items(), 1):
        bus.order(f"set 3 0 {value:02X}")
        subscriber.expect(f"talp/{name}/card/3/0 {value}")
        broker.publish(f"talp/{name}/card/5/1/set", str(value))
        bus.expect(f"out 5 dout b0=FF b1={value:02X}")
    values = {topic[5:6]: value for topic, value in broker.retained("talp/+/card/5/1").items()}
    check_equal(values, {"a": "1", "b": "2", "c": "3"}, "each board's own output")
    check_equal(broker.documents(), {}, "documents that were switched off")


play(mqtt_boards)
