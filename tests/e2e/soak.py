#!/usr/bin/python3 -B
"""What years bring, in minutes; scripts/soak runs it.

Rounds of trouble, each followed by a calm one in which every line has to arrive. In the last
quarter all rounds are calm, and the daemon's memory must not grow with what flows. The choices
of a round follow from the seed; when they meet the daemon depends on the machine.
"""

import collections
import contextlib
import json
import os
import random
import resource
import signal
import socket
import statistics
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from kit import sandbox
from kit.board import NAMES, Board
from kit.expecting import FAILURE, LineSource, check, check_equal, read_file, wait_for

TICK = 0.02  # seconds
TROUBLE = 3  # seconds of a round
CALM = 2
GROWTH = 32  # KiB by which the memory may vary in the calm quarter
OPEN = 10  # standard files, listeners and clients, three each, and the tty

# In place of the daemon's pauses. In that of a second a card has to answer.
SLEEP = '#!/bin/sh\n[ "$1" = 1 ] && set 2 || set 1\nexec /bin/sleep 0.$1\n'
CLOCK = Path("/run/clock_step")  # seconds by which the daemon's clock is wrong
LOG_LINK = "/run/soak-log"
LOG_FILE = f"{LOG_LINK}/talp.log"
GOOD_LOG, FULL_LOG, NO_LOG = "/var/log/good", "/var/log/full", "/var/log/missing"

CARDS = ("1=din", "2=din", "3=din", "4=din", "5=dout", "8=keypad", "F=analog")
LAST_CARD = "DTI:0xF:6 channel ANALOGUE INPUT"
POLLING = "CIA: GLOBAL POLLING IS ENABLED"
CONSOLE = {
    "drvver": ["CIE: UNKNOWN COMMAND ", ">"],
    "POLLSTATE": [POLLING, *(f"PTI:0x{card}:ON" for card in "12348F"), ">"],
} | {f"SPEED={i}": [f"CIA: SPEED IS SET to {i}%", ">"] for i in (1, 25, 50, 75, 90)}
INPUTS = ("a1b0", "a1b1", "a2b0", "a2b1", "a3b0", "a3b1", "a4b0", "a4b1", "a8b0")
OUTPUTS = 28  # IO lines of nine bytes, as many as one read takes

FAULTS = """lost 2, lost forever, split=5, short 2, cut=0 2, long 9, overlong=40 2, overlong=200 2,
    late=150 3, misaddressed=05 20, error=54, error=12 20, error=4E 20, error=43 20""".split(",")
# What abusive clients send: 64 KiB of anything, half lines, NUL bytes, and what has effects.
TYPED = (None, "", "a", "a5b0d", "aElPAp", "EXI", "=:\r", "\r\n", "\0", "a5b0d\0FF\r\n", "HELP\r\n",
         "FORCEDISCOVER\r\n", "SPEED=100\r\n", "SPEED=1\r\n", "DISABLEPOLL\r\n", "REBOOT:5\r\n")


def by_card(lines):
    """Which of two cards comes first is chance."""
    return sorted(lines, key=lambda line: line[:2])


class Soak:
    def __init__(self, board, seed, seconds):
        self.board, self.seed, self.seconds = board, seed, seconds
        self.bus = board.bus(*(f"--card={card}" for card in CARDS))
        self.count = collections.Counter()
        self.samples = []  # seconds, memory in KiB, threads, descriptors, seconds of CPU time
        self.abusive = {}  # by port
        self.away = False  # the adapter is pulled out
        self.value = self.lost = 0
        board.write_config(percent=50, poll=True)
        self.pid = board.launch_daemon()
        self.process = f"/proc/{self.pid}"
        self.start = time.monotonic()

    def elapsed(self):
        return time.monotonic() - self.start

    def last_quarter(self):
        return self.elapsed() > 0.75 * self.seconds

    def opened(self):
        return len(os.listdir(f"{self.process}/fd"))

    def watch(self):
        """Fails unless the daemon runs as it should. Takes a sample once a second."""
        ended = os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        check(not ended, f"the daemon has ended: {ended}")
        threads, opened = len(os.listdir(f"{self.process}/task")), self.opened()
        others = sandbox.listening_ports() - set(self.board.ports.values())
        check(not others, f"listens on {others}")
        if not self.samples or self.elapsed() >= self.samples[-1][0] + 1:
            memory = int(read_file(f"{self.process}/statm").split()[1]) * resource.getpagesize()
            cpu = sum(map(int, read_file(f"{self.process}/stat").split()[13:15]))
            sample = self.elapsed(), memory // 1024, threads, opened, cpu / os.sysconf("SC_CLK_TCK")
            self.samples.append(sample)
        check_equal(threads, self.samples[0][2], "threads")

    def set_log(self, directory):
        os.symlink(directory, LOG_LINK + ".new")
        os.replace(LOG_LINK + ".new", LOG_LINK)

    def rotate_log(self):
        log = Path(GOOD_LOG, "talp.log")
        if log.exists():
            text = read_file(log.rename(f"{log}.1"))
            self.count["reconnects"] += text.count("hardware found")
            self.count["clients"] += text.count("client is connected")

    # The actors of a round of trouble.

    def pull_adapter(self):
        """It comes back under another number, half of the time at once."""
        if not self.away:
            self.bus.command("hangup")
        self.away = not self.away and self.dice.random() < 0.5
        if not self.away:
            self.bus.command(f"return /dev/ttyUSB{self.dice.randrange(100)}")

    def corrupt_replies(self):
        self.bus.command("fault off", f"fault {self.dice.choice(FAULTS).strip()}")

    def disturb_log(self):
        self.rotate_log()
        self.set_log(self.dice.choice((GOOD_LOG, GOOD_LOG, FULL_LOG, NO_LOG)))

    def step_clock(self):
        CLOCK.write_text(str(self.dice.randrange(-20, 21) * 365 * 86400))

    def abuse_port(self):
        """A client that never reads comes, or goes if it is there."""
        name = self.dice.choice(NAMES)
        if name in self.abusive:
            return self.abusive.pop(name).close()
        client = self.abusive[name] = socket.socket()
        client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 17)
        client.settimeout(0.1)
        typed = self.dice.choice(TYPED)
        with contextlib.suppress(OSError):
            client.connect(("127.0.0.1", self.board.ports[name]))
            client.settimeout(0)
            # What a monitor sends is never read and stays in memory: not for long.
            if name != "MON" or self.elapsed() < self.seconds / 8:
                client.send(self.dice.randbytes(1 << 16) if typed is None else typed.encode())
            if self.dice.random() < 0.2:
                client.shutdown(socket.SHUT_WR)

    def trouble(self):
        for _ in range(round(TROUBLE / TICK)):
            for act, period in ACTORS:
                if self.dice.random() < TICK / period:
                    act(self)
                    self.count[act.__name__] += 1
            self.watch()
            time.sleep(TICK)

    def calm(self):
        """Everything is undone, and each line has to arrive."""
        while self.abusive:
            self.abusive.popitem()[1].close()
        self.bus.command("fault off")
        if self.away:
            self.bus.command(f"return /dev/ttyUSB{self.dice.randrange(100)}")
        self.away = False
        self.set_log(GOOD_LOG)
        clients = [self.client(name) for name in NAMES]
        end = self.elapsed() + CALM
        self.settle(*clients)
        while self.exchange(*clients) < end:
            self.watch()
        wait_for(f"{OPEN} descriptors", lambda: self.opened() == OPEN, None, self.opened)
        for client in clients:
            if client.name in ("CAE", "IO") and self.dice.random() < 0.5:
                client.send("EXIT\r\n")
                wait_for("the end", lambda: client.pull() or client.ended, client.descriptor)
            client.close()

    def client(self, name):
        """One that has been greeted, and is read line by line."""
        greeted = self.board.patient_client(name)
        client = LineSource(name, os.dup(greeted.descriptor))
        greeted.close()
        return client

    def next_value(self):
        self.value = self.value % 255 + 1  # what abusive clients have typed may set 0
        return f"{self.value:02X}"

    def settle(self, cae, io, mon):
        """What is left from before has gone through, and all cards are found, once each."""

        def discovered():
            cae.send("FORCEDISCOVER\r\n")
            cae.expect("FORCED DISCOVER LIST:")
            return LAST_CARD in [cae.take() for _ in range(16)]

        cae.send("ENABLEPOLL\r\n")
        cae.expect(POLLING)
        wait_for("all cards", discovered)
        self.rotate_log()
        value = self.next_value()
        io.send(f"a5b0d{value}\r\n")
        mon.expect(f"a5b0d{value}")
        self.bus.expect(f"out 5 dout b0={value} b1=FF")
        cae.send("SPEED=90\r\n")  # answered behind the reports of wrong IO lines
        for line in CONSOLE["SPEED=90"]:
            cae.expect(line)
        for _ in range(2):  # in between all cards are polled
            value = self.next_value()
            self.bus.command(f"set 3 0 {value}")
            for client in io, mon:
                client.expect(f"a3b0d{value}")

    def exchange(self, *clients):
        """Lines of all sorts at once. Each has to come, in order, and nothing else."""
        # In the calm quarter at one speed, so that much flows.
        commands = [name for name in CONSOLE if "SPEED" not in name or not self.last_quarter()]
        command, value = self.dice.choice(commands), self.next_value()
        inputs = [f"{block}d{value}" for block in INPUTS]
        values = [self.next_value() for _ in range(OUTPUTS)]
        outputs = [f"a5b0d{value}" for value in values]
        clients[0].send(f"{command}\r\n")
        clients[1].send("".join(f"{line}\r\n" for line in outputs))
        self.bus.type(*(f"set {line[1]} {line[3]} {line[5:]}" for line in inputs))

        sources = [*clients, self.bus]
        shown = [f"out 5 dout b0={value} b1=FF" for value in values]
        wanted = [by_card(lines) for lines in (CONSOLE[command], inputs, inputs + outputs, shown)]
        come = lambda: [source.pull() or by_card(source.lines) for source in sources]
        try:
            wait_for(wanted, lambda: come() == wanted, None, come)
        except FAILURE:
            self.lost = sum(map(len, wanted)) - sum(map(len, come()))
            raise
        for source in sources:
            source.lines.clear()
        self.count.update({"console lines": 1, "input lines": len(INPUTS), "IO lines": OUTPUTS})
        return self.elapsed()

    def play(self):
        while self.elapsed() < self.seconds:
            number = self.count["rounds"]
            self.dice = random.Random(f"{self.seed} {number}")
            if number and not self.last_quarter():
                self.trouble()
            self.calm()
            self.count["rounds"] += 1
        keeps_what_is_freed = "san.so" in read_file(f"{self.process}/maps")
        check(self.growth() <= GROWTH or keeps_what_is_freed, "the memory grows")
        CLOCK.write_text("-1000000000")
        os.kill(self.pid, signal.SIGTERM)
        self.board.expect_end(self.pid)
        year = str(time.gmtime(time.time() - 1e9).tm_year)
        check(read_file(LOG_FILE).splitlines()[-1].startswith(year), "the clock was not stepped")
        check_equal(read_file(self.board.stderr), "", "standard error of the daemon")

    def growth(self):
        """Of the memory in the calm quarter, in KiB."""
        steady = [sample[1] for sample in self.samples if sample[0] > 0.75 * self.seconds] or [0]
        few = len(steady) // 4 + 1
        return statistics.median(steady[-few:]) - statistics.median(steady[:few])

    def report(self, failure):
        seconds, memory, threads, descriptors, cpu = zip(*self.samples or [(1, 0, 0, 0, 0)])
        written = read_file(f"/proc/{self.bus.process.pid}/io").split("syscw: ")[1].split()[0]
        return {"passed": not failure, "failure": failure, "seed": self.seed} | self.count | {
            "lost lines": self.lost,
            "bus replies": int(written),
            "seconds": round(seconds[-1]),
            "KiB at first, most, last": [memory[0], max(memory), memory[-1]],
            "KiB grown": self.growth(),
            "threads": max(threads),
            "descriptors": max(descriptors),
            "CPU percent": round(100 * cpu[-1] / seconds[-1], 1),
        }


# What goes on in a round of trouble, and every how many seconds on average.
ACTORS = (
    (Soak.abuse_port, 0.1),
    (Soak.pull_adapter, 0.2),
    (Soak.corrupt_replies, 0.2),
    (Soak.disturb_log, 0.5),
    (Soak.step_clock, 0.5),
)


def main(build, minutes, seed=random.randrange(1 << 32)):
    sandbox.enter()
    print(f"seed {seed}, {minutes} minutes", flush=True)
    for directory in GOOD_LOG, FULL_LOG:
        os.mkdir(directory)
    os.symlink("/dev/full", f"{FULL_LOG}/talp.log")
    os.symlink(GOOD_LOG, LOG_LINK)
    for buffer in "tcp_wmem", "tcp_rmem":  # soon full for who never reads
        Path(f"/proc/sys/net/ipv4/{buffer}").write_text("4096 4096 4096")
    board = Board(build, log_file=LOG_FILE)
    board.replace_sleep(SLEEP)
    soak = Soak(board, seed, 60 * float(minutes))
    failure = ""
    try:
        soak.play()
    except FAILURE as error:
        failure = str(error)
    rows = "\n".join(" ".join(map(str, sample)) for sample in soak.samples)
    Path(f"{build}/soak.dat").write_text(rows, encoding="ascii")
    print(failure, json.dumps(soak.report(failure)), sep="\n")
    board.close()
    sys.exit(bool(failure))


main(*sys.argv[1:])
