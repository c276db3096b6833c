"""Programs in the foreground, typed to and read line by line."""

import os
import select
import signal
import socket
import subprocess

from kit.expecting import LineSource, check, check_equal, wait_for

__tracebackhide__ = True


def wait_for_exit(pid):
    """Returns the exit status of a child, -n when signal n ended it."""
    descriptor = os.pidfd_open(pid)
    try:
        readable = lambda: select.select([descriptor], [], [], 0)[0]
        wait_for(f"the end of process {pid}", readable, descriptor, lambda: "it runs")
    finally:
        os.close(descriptor)
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


class Program(LineSource):
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

    def kill(self):
        """As kill -9 does; nothing is said before it ends."""
        self.status = -signal.SIGKILL
        self.process.kill()
        self.expect_exit()

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
        self.command()
        self.lines.clear()

    def command(self, *commands):
        """Carried out before the next frame of the daemon, and done when this returns."""
        self.type(*commands, "sync")
        self.wait_for("sync", lambda: "sync" in self.lines)
        self.lines.remove("sync")
        wrong = [line for line in self.lines if line.startswith("error: ")]
        check(not wrong, f"{self.name}: {commands} gave {wrong}")

    def close(self):
        """It waits for a second until somebody has read what it says last."""
        if self.process.poll() is None:
            self.process.terminate()
            wait_for("the end of the bus", lambda: self.pull() or self.ended, self.descriptor)
        super().close()
