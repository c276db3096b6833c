"""Three boards at one broker that wants certificates and passwords."""

import subprocess

import pytest

from kit.cards import wait_for_cards
from kit.sandbox import needs_namespaces

PORT = 8883


def run(*command):
    subprocess.run(command, check=True, timeout=20, capture_output=True)


@pytest.fixture(scope="module")
def secrets(board):
    """A certificate that signs itself and stands for broker and clients, and two passwords."""
    path = board.work / "secrets"
    path.mkdir()
    subject = ("-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1")
    files = ("-keyout", f"{path}/key", "-out", f"{path}/cert")
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", *subject, *files)
    (path / "boards").write_text("board:secret word\nperson:other\n", encoding="ascii")
    run("mosquitto_passwd", "-U", f"{path}/boards")
    (path / "password").write_text("secret word\n", encoding="ascii")
    (path / "wrong").write_text("guessed\n", encoding="ascii")
    return path


@pytest.fixture(scope="module")
def broker(board, make_broker, secrets):
    return make_broker(
        board,
        f"password_file {secrets}/boards",
        f"cafile {secrets}/cert",
        f"certfile {secrets}/cert",
        f"keyfile {secrets}/key",
        "require_certificate true",
        port=PORT,
        auth={"username": "person", "password": "other"},
        tls={"ca_certs": f"{secrets}/cert", "certfile": f"{secrets}/cert",
             "keyfile": f"{secrets}/key"},
    )


@pytest.fixture
def options(board, secrets):
    """Those of a service, in a file."""

    def written(password):
        path = board.work / f"{password}.conf"
        path.write_text(
            f"# As a service would have them.\ntls-ca = {secrets}/cert\ntls-cert = {secrets}/cert\n"
            f"tls-key = {secrets}/key\nusername = board\npassword-file = {secrets}/{password}\n"
            'home-assistant = ""\n',
            encoding="ascii",
        )
        return ("--config", str(path))

    return written


def test_a_wrong_password_is_told(board, broker, options):
    arguments = (*options("wrong"), "--io-port", "1", "--cae-port", "0")
    intruder = broker.start_bridge(board, *arguments, node="a")
    intruder.expect(f"broker 127.0.0.1:{PORT}: Not authorized")
    intruder.close()


def test_each_board_has_its_own_topics(board, broker, options):
    needs_namespaces("three boards, each at the fixed paths")
    watcher = broker.subscribe("talp/#", "homeassistant/#")
    boards = {"a": board, "b": board.add_board("b", 5011), "c": board.add_board("c", 5021)}
    buses = {}
    for name, each in boards.items():
        buses[name] = each.bus("--card=3=din", "--card=5=dout")
        each.start(poll=True)
        wait_for_cards(each)
        broker.start_bridge(each, *options("password"), node=name)
    for name in boards:
        watcher.expect(f"talp/{name}/card/5/kind 16 channel DIGITAL OUTPUT")
    for value, (name, bus) in enumerate(buses.items(), 1):
        bus.command(f"set 3 0 {value:02X}")
        watcher.expect(f"talp/{name}/card/3/0 {value}")
        broker.publish(f"talp/{name}/card/5/1/set", str(value))
        bus.expect(f"out 5 dout b0=FF b1={value:02X}")
    values = {topic[5:6]: value for topic, value in broker.retained("talp/+/card/5/1").items()}
    assert values == {"a": "1", "b": "2", "c": "3"}
    assert broker.discovered() == {}  # they were switched off
