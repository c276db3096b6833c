"""Bytes and lines that come in, and waiting for those that are wanted.

Every wait ends after LIMIT seconds with a FAILURE that says what was expected and what came.
Bytes are handled as str, one character each.
"""

import collections
import os
import re
import select
import time
from pathlib import Path

__tracebackhide__ = True  # pytest shows where a case waited, not how

LIMIT = 20  # seconds, far longer than anything takes
SHOWN = 40  # lines that came instead of what was expected, or last of all


class FAILURE(AssertionError):
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


def read_file(path):
    """Empty if there is no such file."""
    try:
        return Path(path).read_text(encoding="latin-1")
    except FileNotFoundError:
        return ""


def is_line(line, wanted):
    """A wanted line is a str or a compiled expression."""
    return wanted.fullmatch(line) if isinstance(wanted, re.Pattern) else line == wanted


class Source:
    """What comes in on a descriptor, which it owns and reads without blocking."""

    def __init__(self, name, descriptor=None):
        """Without a descriptor receive() finds something else to read."""
        self.name = name
        self.descriptor = descriptor
        self.unread = ""
        self.ended = False
        self.recent = collections.deque(maxlen=SHOWN)  # what came and went last, for reports
        if descriptor is not None:
            os.set_blocking(descriptor, False)

    def close(self):
        if self.descriptor is not None:
            os.close(self.descriptor)
        self.descriptor = None

    def note(self, direction, text):
        parts = text[-20000:].splitlines(keepends=True)[-SHOWN:]
        self.recent += [f"{direction} {part[:200]!r}" for part in parts]

    def send(self, text):
        """At once, or not at all."""
        self.note(">", text)
        data = text.encode("latin-1")
        check(os.write(self.descriptor, data) == len(data), f"{self.name}: cannot send {text!r}")

    def receive(self):
        """Returns what has arrived and not been returned yet."""
        parts = []
        try:
            while part := os.read(self.descriptor, 65536):
                parts.append(part)
            self.ended = True
        except BlockingIOError:
            pass
        except ConnectionResetError:
            self.ended = True
        return b"".join(parts).decode("latin-1")

    def pull(self):
        """Takes in what has arrived."""
        text = self.receive()
        self.note("<", text)
        self.unread += text

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

    def __init__(self, name, descriptor=None):
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
