"""A board: the daemon at its fixed paths, its log, its bus and its clients."""

import contextlib
import os
import shutil
import signal
import socket
import subprocess
from pathlib import Path

from kit import sandbox
from kit.expecting import FAILURE, LIMIT, LineSource, Source
from kit.expecting import check, check_equal, read_file, wait_for
from kit.programs import Bus, Program, wait_for_exit

__tracebackhide__ = True

NAMES = ("CAE", "IO", "MON")
BANNERS = {
    "CAE": "TALP CAE interface is ready\r\n(Type HELP for help)\r\n>\r\n\r",
    "IO": "TALP IO interface is ready\r\n\r",
    "MON": "TALP MON interface is ready\r\n\r",
}
LATE = "comm timeout"  # in the log: a reply of the bus did not come in time

# The daemon pauses by running the shell's sleep. This takes its place and records each pause.
# Those of one second keep their length: within them a card has to answer or a farewell to go out.
SLEEP = """#!/bin/sh
echo "$1" >>{record}
[ "$1" = 1 ] || set {shortened}$1
exec /bin/sleep $1
"""

CONFIG = """<TALPConfig><Debuglog File='{log}' Loglevel='{level}'/><Speed Percent='{percent}'/>
<InitPollState Action='{poll}'/><AutoDiscover Action='{discover}'/><Interfaces>
<I Name='CAE' Port='{cae}' InpSeparator='{cae_in}' OutSeparator='{cae_end}'/>
<I Name='IO' Port='{io}' InpSeparator='{io_in}' OutSeparator='{io_end}'/>
<I Name='MON' Port='{mon}' InpSeparator='|' OutSeparator='|'/></Interfaces></TALPConfig>
"""
SEPARATORS = dict.fromkeys(("cae_in", "cae_end", "io_in", "io_end"), "\\r\\n")


class Log(LineSource):
    """The daemon's log, emptied at first, without the times."""

    def __init__(self, path):
        super().__init__("log", os.open(path, os.O_RDONLY | os.O_CREAT | os.O_TRUNC))

    def pull(self):
        known = len(self.lines)
        super().pull()
        self.ended = False  # a file grows
        timestamp = len("2000-01-01 00:00:00 ")
        self.lines[known:] = [line[timestamp:] for line in self.lines[known:]]

    def wait_for(self, what, condition):
        def met():
            self.pull()
            return condition()

        return wait_for(f"log: {what}", met, None, self.instead)

    def expect(self, *wanted):
        """Waits until these lines stand in the log in this order, and takes them away.

        What the daemon's threads have written between them stays.
        """
        start = 0
        for line in wanted:
            behind = lambda: [i for i in range(start, len(self.lines)) if self.lines[i] == line]
            start = self.wait_for(line, behind)[0]
            del self.lines[start]

    def has(self, text):
        """Whether a line that nobody expected contains the text."""
        self.pull()
        return any(text in line for line in self.lines)


class Client(Source):
    """A client of the interface CAE, IO or MON."""

    def __init__(self, name, port, inp="\r\n", end="\r\n"):
        """The separators are those of the lines that it sends and of those that it gets."""
        self.inp, self.end = inp, end
        try:
            connection = socket.create_connection(("127.0.0.1", port), LIMIT)
        except OSError as error:
            raise FAILURE(f"{name} on port {port} takes no client: {error}") from error
        super().__init__(f"{name} client", connection.detach())

    def ask(self, line, *answers):
        """Sends a line, without its separator, and expects the lines that answer it."""
        self.send(line + self.inp)
        self.expect_lines(*answers)

    def expect_lines(self, *lines):
        self.expect("".join(f"{line}{self.end}\r" for line in lines))


class Board:
    """A daemon to come, its fixed paths, its log, and all that runs around it.

    Closed at the end of a `with`, it ends everything that was started here.
    """

    def __init__(self, build, daemon=(), real_time=False, log_file=None):
        """Takes the programs from the directory `build`, but the daemon from a given command.

        Without real_time the daemon's pauses of two and three seconds take a hundredth.
        """
        sandbox.require()
        self.build = Path(build).resolve()
        self.daemon = list(daemon) or [str(self.build / "src/talp")]
        self.ports = {name: port for port, name in enumerate(NAMES, 5001)}
        self.daemons = []
        self.owned = []
        self.closing = contextlib.ExitStack()
        self.work = Path("/run/talp-board")  # what the daemon's user, any, needs of tests
        self.work.mkdir()
        self.closing.callback(shutil.rmtree, self.work)
        self.config_file = Path("/etc/talp/talpconf.xml")
        self.pid_file = Path("/run/talp/talp.pid")
        for file in self.config_file, self.pid_file:
            file.parent.mkdir(exist_ok=True)
            file.unlink(missing_ok=True)
        self.stdout, self.stderr = self.work / "stdout", self.work / "stderr"
        self.log_file = log_file or str(self.work / "talp.log")
        self.log = self.own(Log(self.log_file))
        self.pause_file = self.work / "pauses"
        self.pause_file.touch()
        self.pause_file.chmod(0o666)
        self.path = self.work / "bin"
        self.path.mkdir()
        shortened = "" if real_time else "0.0"
        self.replace_sleep(SLEEP.format(record=self.pause_file, shortened=shortened))
        self.preload = ""
        library = Path(self.daemon[-1]).parents[1] / "tests/kit/libsurroundings.so"
        if library.exists():
            self.preload = shutil.copy(library, self.path)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def own(self, thing):
        """To be closed with the board, the last first."""
        self.closing.callback(thing.close)
        self.owned.append(thing)
        return thing

    def close(self):
        while self.daemons:
            self.kill(self.daemons[0])
        self.closing.close()
        self.owned.clear()

    def replace_sleep(self, script):
        """What the daemon runs to pause."""
        (self.path / "sleep").write_text(script)
        (self.path / "sleep").chmod(0o755)

    def write_config(self, **changes):
        """Separators as the configuration has them; other values as numbers, texts and bools."""
        values = {"log": self.log_file, "level": 1, "percent": 50, "poll": False, "discover": True}
        values |= {name.lower(): port for name, port in self.ports.items()}
        values |= SEPARATORS | changes
        self.config_file.write_text(CONFIG.format(**values))
        plain = lambda name: values[name].replace("\\r", "\r").replace("\\n", "\n")
        self.separators = {"CAE": (plain("cae_in"), plain("cae_end"))}
        self.separators |= dict.fromkeys(("IO", "MON"), (plain("io_in"), plain("io_end")))

    def bus(self, *options, link="/dev/ttyUSB0"):
        program = str(self.build / "tools/cardsim/talp-cardsim")
        return self.own(Bus(program, "--link", link, *options))

    def client(self, name, left_over=""):
        """A client that has got its banner, behind what was left over for it."""
        client = self.own(Client(name, self.ports[name], *self.separators[name]))
        client.expect(left_over + BANNERS[name])
        return client

    def patient_client(self, name):
        """The same, but tried again until the interface listens and has greeted it.

        A connection that waits behind another one ends with that one.
        """

        def greeted():
            client = None
            try:
                client = Client(name, self.ports[name])
                client.expect_after(BANNERS[name])
                return client
            except FAILURE:
                if client:
                    client.close()
                return None

        return self.own(wait_for(f"a place on {name}", greeted))

    def program(self, name, *command, **options):
        return self.own(Program(name, command, **options))

    def launch(self, **environment):
        """Runs the daemon's program until its foreground process ends well."""
        changed = {"PATH": f"{self.path}:{os.environ['PATH']}"}
        if self.preload:
            changed |= {"LD_PRELOAD": self.preload, "ASAN_OPTIONS": "verify_asan_link_order=0"}
        environment = os.environ | changed | environment
        with open(self.stdout, "ab") as output, open(self.stderr, "ab") as errors:
            process = subprocess.Popen(
                self.daemon, stdin=subprocess.DEVNULL, stdout=output, stderr=errors, env=environment
            )
        process.returncode = wait_for_exit(process.pid)
        check_equal(process.returncode, 0, "exit status of the foreground process")

    def launch_daemon(self, **environment):
        """The same, until the background process has written its id, which is returned."""
        before = read_file(self.pid_file)
        self.launch(**environment)
        written = lambda: read_file(self.pid_file) not in ("", before)
        wait_for("the PID file", written)
        pid = int(read_file(self.pid_file))
        self.daemons.append(pid)
        return pid

    def start(self, environment=None, **config):
        """The same with this configuration, until the interfaces listen."""
        self.write_config(**config)
        pid = self.launch_daemon(**environment or {})
        ready = [f"[INF] {name} interface listening on port {self.ports[name]}" for name in NAMES]
        self.log.expect("[INF] talp is started", *ready)
        return pid

    def expect_end(self, pid, status=0):
        check_equal(wait_for_exit(pid), status, f"exit status of process {pid}")
        self.daemons.remove(pid)

    def kill(self, pid):
        """As kill -9 does."""
        os.kill(pid, signal.SIGKILL)
        self.expect_end(pid, -signal.SIGKILL)

    def stop(self, pid, number=signal.SIGTERM):
        """Sends SIGINT or SIGTERM and expects the last log lines and a good end."""
        self.log.pull()
        timeouts = [line for line in self.log.lines if LATE in line]
        os.kill(pid, number)
        parts = [f"{name} interface" for name in (*NAMES, "serial")]
        self.log.expect(
            *(f"[INF] signal {int(number)} on {part}" for part in parts),
            "[INF] talp is stopped by SIGTERM or SIGINT",
        )
        self.expect_end(pid)
        # The end closes the bus, which the task that reads from it may take for a lost reply.
        self.log.pull()
        self.log.lines = timeouts + [line for line in self.log.lines if LATE not in line]

    def finish(self):
        """Ends the daemons well, and finds no reply lost but those that were expected."""
        check(not self.log.has(LATE), f"a reply came too late:{self.log.instead()}")
        while self.daemons:
            self.stop(self.daemons[0])
        check_equal(read_file(self.stderr), "", "standard error of the daemon")

    def report(self):
        """What was seen last, as pairs of title and text."""
        yield "log", read_file(self.log_file)[-8000:]
        yield "standard error of the daemon", read_file(self.stderr)[-8000:]
        for source in self.owned:
            if isinstance(source, Source) and source is not self.log:
                with contextlib.suppress(OSError, TypeError):  # if it is closed
                    source.pull()
                yield source.name, "\n".join(source.recent)

    def pauses(self, seconds):
        """How many pauses of this length the daemon has begun."""
        return read_file(self.pause_file).split().count(str(seconds))
