"""The examples for a client's author: the Python client, and Node-RED's settings."""

import json
import re
import signal

import pytest

from kit.sandbox import TOP

CARDS = ("--card=3=din", "--card=5=dout")
CONFIG = {"poll": True}
GREETING = "TALP IO interface is ready"


def plain(text):
    """A text as Node-RED takes it from a setting or a function."""
    return text.replace("\\r", "\r").replace("\\n", "\n")


@pytest.fixture
def node_red():
    flow = (TOP / "examples/node-red.json").read_text()
    return {node["type"]: node for node in json.loads(flow)}


def test_the_python_client_switches_an_output_and_comes_back_after_a_restart(board, daemon, bus):
    client = board.program("client.py", TOP / "examples/client.py", status=-signal.SIGTERM)
    client.expect_next(GREETING)
    bus.command("set 3 0 40")
    client.expect_next("a3b0d40")
    bus.expect("out 5 dout b0=BF b1=FF")
    board.stop(daemon)
    bus.command("set 3 0 00")  # nothing that the client would answer
    board.start(poll=True)
    client.expect(GREETING)
    client.close()


def test_node_red_has_one_connection_for_both_directions(node_red):
    assert node_red["tcp out"]["beserver"] == "reply"
    assert (node_red["tcp in"]["server"], node_red["tcp in"]["port"]) == ("client", "5002")


def test_node_red_ends_lines_as_talp_does(board, daemon, bus, node_red):
    end = plain(node_red["tcp in"]["newline"])
    io = board.patient_client("IO")
    for value in "41", "00":
        bus.command(f"set 3 0 {value}")
        io.expect(f"a3b0d{value}{end}")
    code = node_red["function"]["func"]
    appended = re.fullmatch(r"msg\.payload \+= '(.*)';\nreturn msg;", code)
    io.send(node_red["inject"]["payload"] + plain(appended[1]))
    bus.expect("out 5 dout b0=FF b1=FB")
