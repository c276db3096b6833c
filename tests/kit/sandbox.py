"""The sandbox in which everything runs that has fixed paths and ports: the daemon and its bus."""

import ctypes
import os
import sys
from pathlib import Path

from kit.expecting import read_file

TOP = Path(__file__).resolve().parents[2]


def in_place():
    """Whether a container is the sandbox, and no namespaces were made in it.

    The environment alone is not believed: this would remove the configuration of a real daemon.
    """
    pid = os.getpid() if os.environ.get("TALP_SANDBOX") == "in-place" else 0
    while pid:
        if "/talp-in-place\0" in read_file(f"/proc/{pid}/cmdline"):
            return True
        pid = int(read_file(f"/proc/{pid}/stat").rpartition(")")[2].split()[1])
    return False


def is_inside():
    return in_place() or os.path.exists("/.etc")


def enter(*options):
    """Starts the running program again inside a sandbox, unless it is in one already.

    Where none is possible talp-sandbox tells why and ends with 77.
    """
    if not is_inside():
        sandbox = str(TOP / "tools/talp-sandbox")
        # In place, nobody else may use the ports that this configuration names, as all others do.
        options = (*options, "--config", str(TOP / "packaging/talpconf.xml"))
        os.execv(sandbox, [sandbox, *options, "--", sys.executable, "-B", *sys.argv])
    # Orphans become children of this process, which so learns how a daemon ends.
    set_child_subreaper = 36
    ctypes.CDLL(None).prctl(set_child_subreaper, 1, 0, 0, 0)


def require():
    """The host's /etc, /run and /var are not for tests."""
    if not is_inside():
        raise RuntimeError("this runs in a sandbox only (tools/talp-sandbox)")


def needs_namespaces(what):
    """Skips the case that calls it unless the sandbox has namespaces of its own."""
    if in_place():
        import pytest  # not needed by the tour, soak and the benchmark

        pytest.skip(f"needs namespaces, which this container refuses: {what}")


def listening_ports():
    """Of the whole sandbox."""
    rows = [row.split() for row in read_file("/proc/net/tcp").splitlines()[1:]]
    return {int(row[1].split(":")[1], 16) for row in rows if row[3] == "0A"}
