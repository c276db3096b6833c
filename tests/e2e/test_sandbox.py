"""talp-sandbox where namespaces are refused, as in a container: it runs its command in place."""

import contextlib
import os
import shutil
import signal
import socket
import subprocess
from pathlib import Path

import pytest

from kit.expecting import LIMIT
from kit.programs import Program
from kit.sandbox import TOP, needs_namespaces

# Runs in a user namespace, and sees to it that no more namespaces can be made there.
CONTAINER = """
for kind in mnt user; do echo 0 >/proc/sys/user/max_${kind}_namespaces; done
exec "$@"
"""
SANDBOX = str(TOP / "tools/talp-sandbox")
CONFIG = str(TOP / "packaging/talpconf.xml")
MADE = [Path(path) for path in ("/etc/talp", "/run/talp", "/var/log/talp")]


def contained(*command, root=True):
    identity = ["--map-root-user"] if root else ["--map-user=1000", "--keep-caps"]
    return ["unshare", "--user", *identity, "sh", "-euc", CONTAINER, "container", *command]


def run(*command, **options):
    full = contained(SANDBOX, *command, **options)
    return subprocess.run(full, capture_output=True, text=True, timeout=LIMIT)


def remains():
    """Of a sandbox in place."""
    return [*Path("/dev").glob("ttyUSB*"), *Path("/run").glob("talp*"), *filter(Path.exists, MADE)]


def sleepers():
    """How many of the processes run that the cases leave behind."""
    names = (Path(f"/proc/{pid}/cmdline") for pid in os.listdir("/proc") if pid.isdigit())
    return sum(name.exists() and name.read_bytes().split(b"\0")[:2] == MARK for name in names)


@pytest.fixture(autouse=True)
def place():
    """The container, in which the sandbox of this module is no sandbox."""
    needs_namespaces("a container within this one")
    for path in MADE:
        shutil.rmtree(path, ignore_errors=True)
    yield
    assert (remains(), sleepers()) == ([], 0)


# Leaves behind what has to go: files, a link, and a process in a session of its own.
MARK = [b"sleep", b"4321"]
LEAVE = "touch /run/talp-x /etc/talp/y; ln -s x /dev/ttyUSB3; setsid sleep 4321 & "


def test_the_command_runs_in_place_and_leaves_nothing():
    script = LEAVE + "cmp $0 /etc/talp/talpconf.xml && [ -d /var/log/talp ] && echo $TALP_SANDBOX; exit 7"
    done = run("--config", CONFIG, "sh", "-c", script, CONFIG)
    assert (done.returncode, done.stdout) == (7, "in-place\n")
    assert done.stderr.count("\n") == 1 and done.stderr.endswith("; running in place\n")


def test_a_command_that_is_killed_leaves_nothing():
    assert run("sh", "-c", LEAVE + "kill -9 $$").returncode == 128 + signal.SIGKILL


@pytest.fixture
def sandbox(tmp_path):
    """One that runs, with the file that has its process id."""
    pid_file = tmp_path / "pid"
    command = ("--pid-file", pid_file, "sh", "-c", LEAVE + "echo ready; read line; echo $line")
    program = Program("sandbox", contained(SANDBOX, *command), status=None, stderr=subprocess.PIPE)
    program.expect("ready")
    yield program, pid_file
    program.process.stderr.close()
    program.close()


def test_a_sandbox_that_is_killed_leaves_nothing_either(sandbox):
    program, _ = sandbox
    program.process.kill()
    assert run("true").returncode == 0


@pytest.mark.parametrize("times", (0, 1000))
def test_sigterm_ends_all_also_when_it_comes_again_and_again(sandbox, times):
    program, pid_file = sandbox
    place = int(pid_file.read_text())
    program.process.terminate()
    with contextlib.suppress(ProcessLookupError):
        for _ in range(times):
            os.kill(place, signal.SIGTERM)
    program.status = 128 + signal.SIGTERM
    program.expect_exit()
    assert not pid_file.exists()


def test_one_sandbox_runs_at_a_time_and_others_wait(sandbox):
    program, pid_file = sandbox
    second = Program("second", contained(SANDBOX, "echo", "mine"), stderr=subprocess.STDOUT)
    second.wait_for("its notice", lambda: second.lines)
    joined = run("--join", str(pid_file), "sh", "-c", "echo $TALP_SANDBOX; ls /etc/talp")
    assert joined.stdout == "in-place\ny\n"
    assert len(second.lines) == 1, "it does not wait"
    program.type("done")
    program.expect("done")
    second.expect("mine")
    second.expect_exit()
    second.close()


@pytest.mark.parametrize(
    ("theirs", "reason"),
    (
        ("/etc/talp/talpconf.xml", "/etc/talp is in the way"),
        ("/run/talp/talp.pid", "/run/talp is in the way"),
        ("/var/log/talp/talp.log", "/var/log/talp is in the way"),
        ("/dev/ttyUSB7", "/dev/ttyUSB7 is in the way"),
    ),
)
def test_what_is_there_is_neither_used_nor_removed(theirs, reason):
    file = Path(theirs)
    file.parent.mkdir(exist_ok=True)
    file.write_text("mine")
    done = run("touch", "/run/ran")
    assert done.returncode == 125 and reason in done.stderr
    assert file.read_text() == "mine" and not Path("/run/ran").exists()
    file.unlink()
    if file.parent in MADE:
        file.parent.rmdir()


def test_a_port_of_the_configuration_that_is_taken_is_a_refusal():
    with socket.create_server(("127.0.0.1", 5002)):
        done = run("--config", CONFIG, "true")
        assert done.returncode == 125 and "somebody listens on port 5002" in done.stderr
        assert run("true").returncode == 0


def test_who_is_not_root_is_told_what_to_do():
    done = run("true", root=False)
    assert done.returncode == 77 and "run it as root, or allow user namespaces" in done.stderr


def test_no_sandbox_starts_in_a_sandbox_in_place():
    done = run(SANDBOX, "true")
    assert done.returncode == 125 and "this is a sandbox already" in done.stderr
