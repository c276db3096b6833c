"""A real broker, its clients, and the bridge."""

import json
import os
import queue
import subprocess
from pathlib import Path

from paho.mqtt import publish
from paho.mqtt.client import Client

from kit.expecting import LineSource, wait_for
from kit.programs import Program
from kit.sandbox import listening_ports, require

__tracebackhide__ = True

HOST = "127.0.0.1"
CONFIG = """listener {port} 127.0.0.1
allow_anonymous {anonymous}
max_queued_messages 0
user root
log_type none
"""


class Watcher(LineSource):
    """A client of the broker. A message is a line "TOPIC PAYLOAD", an empty payload "(null)".

    When this exists it has subscribed. It connects and subscribes again after the broker was away.
    """

    def __init__(self, name, filters, port, auth=None, tls=None):
        super().__init__(name)
        self.messages = queue.SimpleQueue()  # (topic, payload, retained)
        subscribed = queue.SimpleQueue()
        self.client = Client()
        if auth:
            self.client.username_pw_set(**auth)
        if tls:
            self.client.tls_set(**tls)
        self.client.on_connect = lambda *_: self.client.subscribe([(each, 1) for each in filters])
        self.client.on_subscribe = lambda *_: subscribed.put(True)
        self.client.on_message = lambda _, __, message: self.messages.put(message)
        self.client.connect(HOST, port)
        self.client.loop_start()
        wait_for(f"the subscription of {name}", lambda: not subscribed.empty())

    def receive(self):
        text = ""
        while not self.messages.empty():
            message = self.messages.get()
            payload = message.payload.decode("latin-1") or "(null)"
            text += f"{message.topic} {payload}\n"
        return text

    def close(self):
        self.client.disconnect()  # which ends its thread, at once or within a second


class Broker:
    """It forgets everything when it ends.

    Its options are lines of its configuration. Its clients log in with `auth` and `tls`, arguments
    of paho-mqtt; without auth everybody may come.
    """

    def __init__(self, board, *options, port=1883, auth=None, tls=None):
        require()
        self.board = board
        self.port = port
        self.login = {"auth": auth, "tls": tls}
        self.markers = 0
        self.config = Path(f"{board.work}/broker-{port}.conf")
        anonymous = "false" if auth else "true"
        self.config.write_text(CONFIG.format(port=port, anonymous=anonymous) + "\n".join(options))
        self.start()

    def start(self):
        command = ("mosquitto", "-c", self.config)
        self.program = self.board.program("broker", *command, stderr=subprocess.DEVNULL)
        wait_for("the broker", lambda: self.port in listening_ports())

    def stop(self):
        self.program.process.terminate()
        self.program.expect_exit()

    def kill(self):
        self.program.kill()

    def publish(self, topic, payload, retain=False, qos=1):
        publish.single(topic, payload, qos, retain, HOST, self.port, **self.login)

    def publish_lines(self, topic, lines):
        """A message each, in one connection."""
        publish.multiple([(topic, line, 1, False) for line in lines], HOST, self.port, **self.login)

    def subscribe(self, *filters, name="watcher"):
        """A client that sees what is retained, and what is published after this has returned."""
        return self.board.own(Watcher(name, filters, self.port, **self.login))

    def retained(self, topic):
        """What is retained below the topic."""
        self.markers += 1
        marker = f"marker/{self.markers}"
        watcher = Watcher("reader", [topic, marker], self.port, **self.login)
        watcher.client.publish(marker, "here", 1)  # behind what the broker has sent by now
        lines = []
        while (line := watcher.take()) != f"{marker} here":
            lines.append(line)
        watcher.close()
        return dict(line.split(" ", 1) for line in lines)

    def discovered(self):
        return {name: json.loads(text) for name, text in self.retained("homeassistant/#").items()}

    def start_bridge(self, board, *options, node, host=HOST, port=None):
        """From a board. Its log is what it prints."""
        program = str(board.build / "tools/mqtt/talp-mqtt")
        of_broker = ("--broker", host, "--port", str(port or self.port))
        command = (program, *of_broker, "--node", node, *options)
        # The library has no order for its mutexes, which one thread takes.
        environment = os.environ | {"TSAN_OPTIONS": "detect_deadlocks=0"}
        options = {"stderr": subprocess.STDOUT, "env": environment}
        return board.own(Program("bridge", command, **options))
