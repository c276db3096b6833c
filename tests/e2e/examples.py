#!/usr/bin/env -S python3 -B
"""The examples for a client's author: the Python client, and Node-RED's settings."""

import json
import re
import signal
from pathlib import Path

from common import hardware_found
from talpkit import check_equal, play

ROOT = Path(__file__).resolve().parents[2]
GREETING = "TALP IO interface is ready"


def plain(text):
    """A text as Node-RED takes it from a setting or a function."""
    return text.replace("\\r", "\r").replace("\\n", "\n")


def node_red():
    flow = (ROOT / "examples/node-red.json").read_text()
    return {node["type"]: node for node in json.loads(flow)}


def examples(stage):
    bus = stage.bus("--version-text", "2.07", "--card=3=din", "--card=5=dout")
    daemon = stage.start(poll=True)
    client = stage.program("client.py", ROOT / "examples/client.py", status=-signal.SIGTERM)
    client.expect_next(GREETING)
    stage.log.expect(*hardware_found())
    bus.order("set 3 0 40")
    client.expect_next("a3b0d40")
    bus.expect_next("out 5 dout b0=BF b1=FF")

    # It comes back to a daemon that was started again.
    stage.stop(daemon, signal.SIGTERM)
    bus.order("set 3 0 00")  # nothing that the client would answer
    stage.start(poll=True)
    client.expect(GREETING)
    client.close()

    # One connection carries both directions: the node that sends answers on that of the other.
    nodes = node_red()
    check_equal(nodes["tcp out"]["beserver"], "reply", "tcp out")
    check_equal((nodes["tcp in"]["server"], nodes["tcp in"]["port"]), ("client", "5002"), "tcp in")
    end = plain(nodes["tcp in"]["newline"])
    io = stage.patient_client("IO")
    for value in "41", "00":
        bus.order(f"set 3 0 {value}")
        io.expect(f"a3b0d{value}{end}")
    appended = re.fullmatch(r"msg\.payload \+= '(.*)';\nreturn msg;", nodes["function"]["func"])
    io.send(nodes["inject"]["payload"] + plain(appended[1]))
    bus.expect("out 5 dout b0=FF b1=FB")


play(examples)
