"""Runs a real broker, its command line clients and the bridge beside what talpkit runs."""

import json
import shutil
import subprocess
import sys
from pathlib import Path

import talpkit
from talpkit import LIMIT, listening_ports, wait_for

NEEDED = ("mosquitto", "mosquitto_passwd", "mosquitto_pub", "mosquitto_sub", "openssl")
CONFIG = """listener {port} 127.0.0.1
allow_anonymous {anonymous}
max_queued_messages 0
user root
log_type none
"""


def play(scenario):
    """Like talpkit's, but skipped where a program is missing."""
    if missing := [name for name in NEEDED if not shutil.which(name)]:
        print(f"skipped: not installed: {' '.join(missing)}")
        sys.exit(77)
    talpkit.play(scenario)


class Broker:
    """It forgets everything when it ends.

    Its options are lines of its configuration. Its clients log in by the options given for them;
    without any everybody may come.
    """

    def __init__(self, stage, *options, port=1883, login=()):
        self.stage = stage
        self.port = port
        self.markers = 0
        self.login = ("-p", str(port), "-q", "1", *login)
        self.config = Path(f"/run/broker-{port}.conf")
        anonymous = "false" if login else "true"
        self.config.write_text(CONFIG.format(port=port, anonymous=anonymous) + "\n".join(options))
        self.start()

    def start(self):
        command = ("mosquitto", "-c", self.config)
        self.program = self.stage.program("broker", *command, stderr=subprocess.DEVNULL)
        wait_for("the broker", lambda: self.port in listening_ports())

    def stop(self):
        self.program.process.terminate()
        self.program.expect_exit()

    def publish(self, topic, payload, *options):
        command = ("mosquitto_pub", *self.login, "-t", topic, "-m", payload, *options)
        subprocess.run(command, check=True, timeout=LIMIT)

    def publish_lines(self, topic, lines):
        command = ("mosquitto_pub", *self.login, "-t", topic, "-l")
        subprocess.run(command, check=True, timeout=LIMIT, input="\n".join(lines), text=True)

    # The broker's clients may hang when a signal asks them to end, and are killed.

    def publisher(self, topic):
        """A program that publishes each line typed to it."""
        command = ("mosquitto_pub", *self.login, "-t", topic, "-l")
        return self.stage.program("publisher", *command, status=None)

    def subscribe(self, *filters, shown=("-v",)):
        """A program that prints "TOPIC PAYLOAD" of what is published after this has returned.

        With nothing to be shown it prints the payload only.
        """
        self.markers += 1
        marker = f"ready/{self.markers}"
        options = [part for name in (marker, *filters) for part in ("-t", name)]
        command = ("mosquitto_sub", *self.login, *shown, *options)
        program = self.stage.program("watcher", *command, status=None)
        self.publish(marker, marker, "-r")
        program.expect(f"{marker} {marker}" if shown else marker)
        return program

    def retained(self, topic):
        """What is retained below the topic."""
        command = ("mosquitto_sub", *self.login, "-v", "-t", topic, "--retained-only", "-W", "1")
        done = subprocess.run(command, timeout=LIMIT, capture_output=True, text=True)
        return dict(line.split(" ", 1) for line in done.stdout.splitlines())

    def documents(self):
        return {name: json.loads(text) for name, text in self.retained("homeassistant/#").items()}


def start_bridge(stage, *options, node):
    """Prints its log."""
    program = str(stage.build / "tools/mqtt/talp-mqtt")
    command = stage.on_board(program, "--node", node, *options)
    return stage.program("bridge", *command, stderr=subprocess.STDOUT)
