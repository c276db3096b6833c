"""Runs the daemon, simulated card buses and clients in a sandbox, and waits for what they do.

Every wait ends after LIMIT seconds with a FAILURE that says what was expected and what came.
Bytes are handled as str, one character each.
"""

import collections
import ctypes
import os
import re
import select
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import time
import traceback
from pathlib import Path

LIMIT = 20  # seconds, far longer than anything takes
SHOWN = 40  # lines that came instead of what was expected
TOP = Path(__file__).resolve().parent.parent
NAMES = ("CAE", "IO", "MON")
BANNERS = {
    "CAE": "TALP CAE interface is ready\r\n(Type HELP for help)\r\n>\r\n\r",
    "IO": "TALP IO interface is ready\r\n\r",
    "MON": "TALP MON interface is ready\r\n\r",
}
LATE = "comm timeout"  # in the log: a reply of the bus did not come in time
STDOUT = "/run/daemon.stdout"  # of all daemons of a scenario
STDERR = "/run/daemon.stderr"

# The daemon pauses by running the shell's sleep. This takes its place and records each pause.
# Those of one second keep their length: within them a card has to answer or a farewell to go out.
SLEEP = """#!/bin/sh
echo "$1" >>{record}
[ "$1" = 1 ] || set {shortened}$1
exec /bin/sleep $1
"""

# The fixed paths of a board lead into a directory of its own.
ENTER_BOARD = """
touch "$1/dev/null"
mount --no-mtab --rbind /dev/pts "$1/dev/pts"
mount --no-mtab --bind /dev/null "$1/dev/null"
mount --no-mtab --bind "$1/etc/talp" /etc/talp
mount --no-mtab --bind "$1/run/talp" /run/talp
mount --no-mtab --rbind "$1/dev" /dev
shift
exec "$@"
"""


class FAILURE(Exception):
    """Something expected did not happen."""


def check(holds, otherwise):
    if not holds:
        raise FAILURE(otherwise)


def check_equal(actual, wanted, what):
    check(actual == wanted, f"{what}: wanted {wanted!r}\ncame instead: {actual!r}")


def wait_for(what, condition, descriptor=None, instead=lambda: "nothing"):
    """Returns the first true result of the condition.

    It is asked again when the descriptor can be read or, without one, every few milliseconds.
    """
    end = time.monotonic() + LIMIT
    poll = select.poll()
    if descriptor is not None:
        poll.register(descriptor, select.POLLIN)
    while not (result := condition()):
        left = end - time.monotonic()
        check(left > 0, f"waited in vain for {what}\ncame instead: {instead()}")
        poll.poll(5 if descriptor is None else 1000 * left)
    return result


def enter_sandbox(*options):
    """Starts the running program again inside a sandbox, unless it is in one already.

    Where namespaces are not allowed talp-sandbox tells why and ends with 77.
    """
    if not os.path.exists("/.etc"):
        sandbox = str(TOP / "tools/talp-sandbox")
        os.execv(sandbox, [sandbox, *options, "--", sys.executable, "-B", *sys.argv])
    # Orphans become children of this process, which so learns how a daemon ends.
    set_child_subreaper = 36
    ctypes.CDLL(None).prctl(set_child_subreaper, 1, 0, 0, 0)


def read_file(path):
    """Empty if there is no such file."""
    try:
        return Path(path).read_text(encoding="latin-1")
    except FileNotFoundError:
        return ""


def wait_for_exit(pid):
    """Returns the exit status of a child, -n when signal n ended it."""
    descriptor = os.pidfd_open(pid)
    try:
        readable = lambda: select.select([descriptor], [], [], 0)[0]
        wait_for(f"the end of process {pid}", readable, descriptor, lambda: "it runs")
    finally:
        os.close(descriptor)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


def listening_ports():
    """Of the whole sandbox."""
    rows = [row.split() for row in read_file("/proc/net/tcp").splitlines()[1:]]
    return {int(row[1].split(":")[1], 16) for row in rows if row[3] == "0A"}


def is_line(line, wanted):
    """A wanted line is a str or a compiled expression."""
    return wanted.fullmatch(line) if isinstance(wanted, re.Pattern) else line == wanted


class Source:
    """What comes in on a descriptor, which it owns and reads without blocking."""

    def __init__(self, name, descriptor):
        self.name = name
        self.descriptor = descriptor
        self.unread = ""
        self.ended = False
        os.set_blocking(descriptor, False)

    def close(self):
        if self.descriptor >= 0:
            os.close(self.descriptor)
        self.descriptor = -1

    def send(self, text):
        """At once, or not at all."""
        data = text.encode("latin-1")
        check(os.write(self.descriptor, data) == len(data), f"{self.name}: cannot send {text!r}")

    def pull(self):
        """Takes in what has arrived."""
        try:
            while part := os.read(self.descriptor, 65536):
                self.unread += part.decode("latin-1")
            self.ended = True
        except BlockingIOError:
            pass
        except ConnectionResetError:
            self.ended = True

    def wait_for(self, what, condition):
        """Like the function, with a look at what has arrived each time."""

        def met():
            self.pull()
            result = condition()
            check(result or not self.ended, f"{self.name} ended, came: {self.instead()}")
            return result

        return wait_for(f"{self.name}: {what}", met, self.descriptor, self.instead)

    def instead(self):
        return repr(self.unread)

    def expect(self, text):
        """The next bytes are exactly these."""
        size = len(text)
        decided = lambda: len(self.unread) >= size or not text.startswith(self.unread)
        self.wait_for(repr(text), decided)
        check(self.unread.startswith(text), f"{self.name}: wanted {text!r}\ncame: {self.instead()}")
        self.unread = self.unread[size:]

    def expect_after(self, text):
        """Takes everything up to the end of the text, and returns what came before it."""
        self.wait_for(repr(text), lambda: text in self.unread)
        before, _, self.unread = self.unread.partition(text)
        return before

    def expect_end(self):
        """Nothing more comes before the end."""
        wait_for(f"{self.name}: the end", lambda: self.pull() or self.ended, self.descriptor)
        check(not self.unread, f"{self.name}: came before the end: {self.instead()}")


class LineSource(Source):
    """Whole lines, without their ends."""

    def __init__(self, name, descriptor):
        super().__init__(name, descriptor)
        self.lines = []
        self.skipped = collections.deque(maxlen=SHOWN)  # by the last expectation

    def pull(self):
        super().pull()
        *lines, self.unread = self.unread.split("\n")
        self.lines += [line.strip("\r") for line in lines]

    def instead(self):
        return "\n".join(["", *self.skipped, *self.lines[:SHOWN]])

    def expect(self, wanted):
        """Skips the lines before the wanted one, takes it and returns it."""
        self.skipped.clear()

        def met():
            while self.lines:
                self.skipped.append(self.lines.pop(0))
                if is_line(self.skipped[-1], wanted):
                    return self.skipped.pop()
            return None

        return self.wait_for(wanted, met)

    def expect_next(self, *wanted):
        """The next lines are exactly these."""
        same = lambda: self.lines[: len(wanted)] == list(wanted)[: len(self.lines)]
        self.wait_for("\n".join(wanted), lambda: len(self.lines) >= len(wanted) or not same())
        check(same(), f"{self.name}: wanted next\n" + "\n".join(wanted) + f"\ncame{self.instead()}")
        del self.lines[: len(wanted)]

    def take(self):
        """Waits for the next line and returns it."""
        self.wait_for("a line", lambda: self.lines)
        return self.lines.pop(0)


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


class Program(LineSource):
    """A program in the foreground, typed to and read line by line."""

    def __init__(self, name, command, status=0, **options):
        """Its end with another exit status fails. Without one it is killed when it is closed."""
        ours, theirs = socket.socketpair()
        with theirs:
            self.process = subprocess.Popen(command, stdin=theirs, stdout=theirs, **options)
        super().__init__(name, ours.detach())
        self.status = status

    def type(self, *lines):
        self.send("".join(f"{line}\n" for line in lines))

    def expect_exit(self):
        if self.process.poll() is None:
            self.process.returncode = wait_for_exit(self.process.pid)
        if self.status is not None:
            check_equal(self.process.returncode, self.status, f"exit status of {self.name}")

    def close(self):
        try:
            if self.process.returncode is None:
                self.process.send_signal(signal.SIGKILL if self.status is None else signal.SIGTERM)
                self.expect_exit()
        finally:
            super().close()


class Bus(Program):
    """A simulated card bus. It answers as soon as this exists."""

    def __init__(self, program, *options):
        super().__init__("card bus", [program, *options])
        self.order()
        self.lines.clear()

    def order(self, *commands):
        """Carried out before the next frame of the daemon, and done when this returns."""
        self.type(*commands, "sync")
        self.wait_for("sync", lambda: "sync" in self.lines)
        self.lines.remove("sync")
        wrong = [line for line in self.lines if line.startswith("error: ")]
        check(not wrong, f"{self.name}: {commands} gave {wrong}")


class Client(Source):
    """A client of the interface CAE, IO or MON."""

    def __init__(self, name, port):
        try:
            connection = socket.create_connection(("127.0.0.1", port), LIMIT)
        except OSError as error:
            raise FAILURE(f"{name} on port {port} takes no client: {error}") from error
        super().__init__(f"{name} client", connection.detach())

    def ask(self, line, *answers):
        """Sends a console line, without its separator, and expects the answer lines."""
        self.send(line + "\r\n")
        self.expect("".join(f"{answer}\r\n\r" for answer in answers))


CONFIG = """<TALPConfig><Debuglog File='{log}' Loglevel='1'/><Speed Percent='{percent}'/>
<InitPollState Action='{poll}'/><AutoDiscover Action='{discover}'/><Interfaces>
<I Name='CAE' Port='{cae}'/><I Name='IO' Port='{io}' OutSeparator='{io_end}'/>
<I Name='MON' Port='{mon}' InpSeparator='|' OutSeparator='|'/></Interfaces></TALPConfig>
"""


class Stage:
    """A daemon to come, its fixed paths, its log, and all that runs around it."""

    def __init__(self, build, daemon=(), board="", port=5001, real_time=False, log_file=None):
        """Takes the programs from the directory `build`, but the daemon from a given command.

        The ports are three from `port` on. A named board has its own /etc/talp, /run/talp and
        /dev/ttyUSB*, which lie below `root`. Without real_time the daemon's pauses of two and
        three seconds take a tenth.
        """
        self.build = Path(build).resolve()
        self.daemon = list(daemon) or [str(self.build / "src/talp")]
        self.ports = {name: port + i for i, name in enumerate(NAMES)}
        self.board = board
        self.root = f"/run/board-{board}" if board else ""
        self.config_file = Path(self.root + "/etc/talp/talpconf.xml")
        self.pid_file = Path(self.root + "/run/talp/talp.pid")
        self.pause_file = Path(f"/run/pauses{board}")
        self.daemons = []
        self.owned = []  # to be closed, the last first
        for directory in "/etc/talp", "/run/talp", "/dev/pts":
            os.makedirs(self.root + directory, exist_ok=True)
        self.config_file.unlink(missing_ok=True)
        self.pid_file.unlink(missing_ok=True)
        self.pause_file.write_text("")
        self.pause_file.chmod(0o666)  # the daemon's user may be any
        self.log_file = log_file or f"/var/log/talp{board}.log"
        self.log = self.own(Log(self.log_file))
        self.path = Path(f"/run/sleep{board}")
        self.path.mkdir(exist_ok=True)
        stub = self.path / "sleep"
        stub.write_text(SLEEP.format(record=self.pause_file, shortened="" if real_time else "0."))
        stub.chmod(0o755)
        # An emulated daemon, with its emulator in the command, reads slowly enough without.
        self.preload = ""
        library = self.build / "tests/e2e/libsurroundings.so"
        if library.exists() and len(self.daemon) == 1:
            self.preload = shutil.copy(library, self.path)  # any user may read it there

    def own(self, thing):
        self.owned.append(thing)
        return thing

    def close(self):
        """Ends everything that was started here."""
        for pid in self.daemons:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        self.daemons.clear()
        while self.owned:
            self.owned.pop().close()

    def write_config(self, **changes):
        values = {"log": self.log_file, "percent": 50, "poll": False, "discover": True}
        values |= {name.lower(): port for name, port in self.ports.items()}
        values |= {"io_end": "\\r\\n"} | changes
        self.config_file.write_text(CONFIG.format(**values))

    def add_board(self, name, port):
        """Another daemon to come in the same sandbox."""
        return self.own(Stage(self.build, self.daemon, name, port))

    def boards(self):
        return [self] + [thing for thing in self.owned if isinstance(thing, Stage)]

    def bus(self, *options, link="/dev/ttyUSB0"):
        program = str(self.build / "tools/cardsim/talp-cardsim")
        return self.own(Bus(program, "--link", self.root + link, *options))

    def client(self, name, left_over=""):
        """A client that has got its banner, behind what was left over for it."""
        client = self.own(Client(name, self.ports[name]))
        client.expect(left_over + BANNERS[name])
        return client

    def patient_client(self, name):
        """The same, but tried again until the interface listens and has greeted it.

        A connection that waits behind another one ends with that one.
        """

        def greeted():
            try:
                client = Client(name, self.ports[name])
                client.expect_after(BANNERS[name])
                return client
            except FAILURE:
                return None

        return self.own(wait_for(f"a place on {name}", greeted))

    def program(self, name, *command, **options):
        return self.own(Program(name, command, **options))

    def on_board(self, *command):
        """The command with this board's paths in place of the fixed ones."""
        if not self.board:
            return list(command)
        return ["unshare", "--mount", "sh", "-euc", ENTER_BOARD, "board", self.root, *command]

    def launch(self, **environment):
        """Runs the daemon's program until its foreground process ends well."""
        changed = {"PATH": f"{self.path}:{os.environ['PATH']}"}
        if self.preload:
            changed |= {"LD_PRELOAD": self.preload, "ASAN_OPTIONS": "verify_asan_link_order=0"}
        environment = os.environ | changed | environment
        command = self.on_board(*self.daemon)
        with open(STDOUT, "ab") as output, open(STDERR, "ab") as errors:
            process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=output, stderr=errors, env=environment
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

    def start(self, **config):
        """The same with this configuration, until the interfaces listen."""
        self.write_config(**config)
        pid = self.launch_daemon()
        ready = [f"[INF] {name} interface listening on port {self.ports[name]}" for name in NAMES]
        self.log.expect("[INF] talp is started", *ready)
        return pid

    def expect_end(self, pid, status=0):
        check_equal(wait_for_exit(pid), status, f"exit status of process {pid}")
        self.daemons.remove(pid)

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

    def pauses(self, seconds):
        """How many pauses of this length the daemon has begun."""
        return read_file(self.pause_file).split().count(str(seconds))


def attempt(scenario, stage):
    """Plays a scenario, and tells whether a reply came too late that nobody had lost on purpose."""
    late = lambda: any(board.log.has(LATE) for board in stage.boards())
    try:
        scenario(stage)
        if late():
            return True
        for board in stage.boards():
            while board.daemons:
                board.stop(board.daemons[0])
        stage.close()
    except (FAILURE, OSError):
        if not late():
            raise
        traceback.print_exc(file=sys.stdout)
        return True
    finally:
        print(read_file(STDERR), end="")
    return False


def play(scenario, **options):
    """The whole life of a scenario's program, whose argument is the directory of the programs.

    The options are those of its Stage. The environment variable TALP_DAEMON may have another
    command that runs the daemon. On a busy machine a reply of the bus may come too late. Then the
    scenario is played again, once, and the file `retries` of the directory gets a line, so that a
    run of all scenarios can tell how many of them did.
    """
    enter_sandbox()
    build = sys.argv[1]
    daemon = shlex.split(os.environ.get("TALP_DAEMON", ""))
    for path in STDOUT, STDERR:
        Path(path).unlink(missing_ok=True)
    for _ in range(2):
        stage = Stage(build, daemon, **options)
        late = attempt(scenario, stage)
        check_equal(read_file(STDERR), "", "standard error of the daemon")
        if not late:
            return
        stage.close()
        print(f"{scenario.__name__}: a reply of the bus came too late; once more", flush=True)
        with open(f"{build}/retries", "a", encoding="ascii") as retries:
            print(scenario.__name__, file=retries)
    sys.exit(f"{scenario.__name__}: a reply of the bus came too late again")
