#!/usr/bin/env python3
"""Copies the inputs of one card to the outputs of another: client.py [HOST [FROM TO]]"""

import re
import socket
import sys
import time

host, source, target = sys.argv[1:] + ["localhost", "3", "5"][len(sys.argv) - 1:]


def serve(talp):
    for line in talp.makefile(encoding="latin-1", newline="\n"):
        line = line.strip()  # a line ends with CR LF CR
        print(line, flush=True)
        change = re.fullmatch("a(.)b(.)d(..)", line)
        if change and change[1] == source:
            value = int(change[3], 16) ^ 0xFF  # an output is on where its bit is 0
            talp.sendall(f"a{target}b{change[2]}d{value:02X}\r\n".encode())


while True:
    try:
        with socket.create_connection((host, 5002)) as talp:
            talp.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
            serve(talp)
    except OSError as error:
        print(error, flush=True)
    time.sleep(5)
