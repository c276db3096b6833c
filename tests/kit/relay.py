"""A server between a program and the one that it should talk to, and one in place of talp."""

import contextlib
import socket
import threading

from kit.expecting import LIMIT

__tracebackhide__ = True


def read_packet(connection):
    """The next MQTT packet, or nothing at the end."""
    packet = connection.recv(2, socket.MSG_WAITALL)
    while len(packet) >= 2 and packet[-1] & 0x80:
        packet += connection.recv(1)
    size = sum((byte & 0x7F) << 7 * i for i, byte in enumerate(packet[1:]))
    return packet + connection.recv(size, socket.MSG_WAITALL) if len(packet) >= 2 else b""


class Relay:
    """Carries MQTT packets between the clients of a port of its own and the broker at another one.

    `edit` takes whether a packet comes from the client, and the packet, and returns what goes on:
    the packet or nothing; or raises EOFError(answer) to send that and end the connection.
    """

    def __init__(self, broker_port, edit):
        self.edit = edit
        self.broker_port = broker_port
        self.server = socket.create_server(("127.0.0.1", 0))
        self.port = self.server.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def close(self):
        self.server.shutdown(socket.SHUT_RDWR)
        self.server.close()

    def serve(self):
        with contextlib.suppress(OSError):
            while True:
                client, _ = self.server.accept()
                broker = socket.create_connection(("127.0.0.1", self.broker_port))
                for ends in (client, broker, True), (broker, client, False):
                    threading.Thread(target=self.carry, args=ends, daemon=True).start()

    def carry(self, source, target, from_client):
        with contextlib.suppress(OSError):
            while packet := read_packet(source):
                try:
                    target.sendall(self.edit(from_client, packet))
                except EOFError as refusal:
                    source.sendall(refusal.args[0])
                    break
            for end in source, target:
                end.shutdown(socket.SHUT_RDWR)


class FakeTalp:
    """A port of talp, served by the test. It accepts one client after the other."""

    def __init__(self, port, greeting):
        self.greeting = greeting
        self.server = socket.create_server(("127.0.0.1", port))
        self.server.settimeout(LIMIT)
        self.client = None

    def accept(self):
        """The next client is there, and not greeted yet."""
        self.hang_up()
        self.client, _ = self.server.accept()
        self.client.settimeout(LIMIT)

    def greet(self):
        self.say(self.greeting)

    def say(self, *lines):
        self.client.sendall("".join(f"{line}\r\n\r" for line in lines).encode())

    def hear(self):
        """What the client sends next; empty when it leaves."""
        try:
            return self.client.recv(65536).decode()
        except ConnectionResetError:
            return ""

    def hang_up(self):
        if self.client:
            self.client.close()
        self.client = None

    def close(self):
        self.hang_up()
        self.server.close()
