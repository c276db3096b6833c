"""Restarts, losses and traffic in any order: what the topics tell afterwards is at the cards.

TALP_SECONDS says for how long (20), TALP_SEED repeats the choices of a run.
"""

import contextlib
import os
import random
import re
import signal
import time

from kit.board import Client
from kit.cards import ALL_CARDS, VERSION
from kit.expecting import FAILURE, wait_for

TOPIC = "talp/b/"  # of the bridge's node
CARD = TOPIC + "card/"
PERSISTENT = ("autosave_interval 1", "autosave_on_changes true", "persistence true")
INPUTS = {"3": 2, "F": 6}  # blocks by card
OUTPUTS = {"5": 2, "0": 6}
UNKNOWABLE = tuple(CARD + card for card in "48")  # at times
OF_OUTPUTS = tuple(CARD + card for card in OUTPUTS)
SHOWN = re.compile("out ([05]) (?:dout|servo) (.*)")


class House:
    def __init__(self, board, make_broker, dice):
        self.board, self.dice = board, dice
        self.bus = board.bus(*VERSION, *ALL_CARDS)
        directory = board.work / "retained"
        directory.mkdir()
        location = f"persistence_location {directory}/"
        self.broker = make_broker(board, *PERSISTENT, location)
        self.inputs = {(card, block): 0 for card, count in INPUTS.items() for block in range(count)}
        self.inputs["8", 0] = 0
        self.outputs = {}  # by card and block, as the cards show them
        self.named = {}  # values that somebody has asked for lately, by card and block
        self.missing = set()  # what is not there just now
        self.person = None
        self.marks = 0
        self.told = set()  # topics of outputs, which do not vanish again
        self.start_daemon()
        self.start_bridge()
        self.wait_for_truth()
        self.watcher = self.broker.subscribe(TOPIC + "#")

    def start_daemon(self):
        self.board.start(poll=True)

    def start_bridge(self):
        self.bridge = self.broker.start_bridge(self.board, node="b")

    def end_bridge(self):
        self.dice.choice((self.bridge.close, self.bridge.kill))()
        self.missing.add("bridge")

    def end_daemon(self):
        pid = self.board.daemons[0]
        if self.dice.random() < 0.5:
            self.board.kill(pid)
        else:
            os.kill(pid, signal.SIGTERM)
            self.board.expect_end(pid)
        self.missing.add("daemon")

    def end_broker(self):
        self.dice.choice((self.broker.stop, self.broker.kill))()
        self.missing.add("broker")

    def pull_adapter(self):
        self.bus.command("hangup")
        self.missing.add("adapter")

    def change_inputs(self):
        for place in self.dice.sample(sorted(self.inputs), 3):
            self.inputs[place] = self.dice.randrange(256)
            self.bus.command(f"set {place[0]} {place[1]} {self.inputs[place]:02X}")

    def command(self):
        """Topic and payload for one output."""
        card = self.dice.choice("0554")
        block = self.dice.randrange(OUTPUTS.get(card, 3))
        if card == "5" and self.dice.random() < 0.7:
            bit, text = self.dice.randrange(8), self.dice.choice(("ON", "OFF"))
            self.named.setdefault((card, block), []).append((1 << bit, -(text == "OFF")))
            return f"{CARD}5/{block}/{bit}/set", text
        value = self.dice.randrange(256)
        self.named.setdefault((card, block), []).append((0xFF, value))
        return f"{CARD}{card}/{block}/set", str(value)

    def publish(self, count):
        if "broker" not in self.missing:
            for _ in range(count):
                self.broker.publish(*self.command())

    def set_outputs(self):
        self.publish(self.dice.randrange(1, 4))

    def burst(self):
        self.publish(60)

    def visit_console(self):
        if not self.person and "daemon" not in self.missing:
            with contextlib.suppress(FAILURE):  # the console does not listen just now
                self.person = Client("CAE", self.board.ports["CAE"])

    def bring_back(self):
        """In any order."""
        for name in self.dice.sample(sorted(self.missing), len(self.missing)):
            if name == "adapter":
                self.bus.command("return")
            elif name == "broker":
                self.broker.start()
            elif name == "daemon":
                self.start_daemon()
            elif name == "bridge":
                self.start_bridge()
            time.sleep(self.dice.random())
        self.missing.clear()
        if self.person:
            self.person.close()
        self.person = None

    def look(self):
        """Takes in what the cards show."""
        self.bus.command()
        for card, text in filter(None, map(self.shown, self.bus.lines)):
            values = [part.rpartition("=")[2] for part in text.split()]
            for block, value in enumerate(values):
                self.outputs[card, block] = int(value, 16)
        self.bus.lines.clear()

    @staticmethod
    def shown(line):
        found = SHOWN.fullmatch(line)
        return found and found.groups()

    def wrong(self):
        """What is not as it should be, or nothing."""
        self.look()
        held = self.broker.retained(TOPIC + "#")
        if held.get(TOPIC + "status") != "online" or held.get(TOPIC + "bus") != "online":
            return "not online"
        states = {}
        for (card, block), value in {**self.inputs, **self.outputs}.items():
            topic = f"{CARD}{card}/{block}"
            if topic not in held and (card, block) not in self.inputs and topic not in self.told:
                states[topic] = None  # it was never named
            elif topic in held or card != "8":
                states[topic] = str(value)
            for bit in range(8) if card in "35" and states[topic] else ():
                on = bool(value >> bit & 1) != (card == "5")
                states[f"{topic}/{bit}"] = "ON" if on else "OFF"
        differing = [(name, held.get(name), text) for name, text in states.items()
                     if held.get(name) != text]
        strange = [name for name in held if name.startswith(CARD) and not name.endswith("/kind")
                   and name not in states and not name.startswith(UNKNOWABLE)]
        self.told |= {topic for topic in held if topic.startswith(OF_OUTPUTS)}
        return differing or strange

    def wait_for_truth(self):
        last = []
        true = lambda: not last.append(self.wrong()) and not last[-1]
        wait_for("the truth", true, instead=lambda: last[-1])

    def settle(self):
        """Commands may wait for two seconds. One that is refused behind them comes last."""
        self.marks += 1
        mark = f"mark {self.marks}"

        def refused():
            self.broker.publish(f"{CARD}5/0/set", mark)
            time.sleep(0.2)
            self.watcher.pull()
            return any(mark in line for line in self.watcher.lines)

        wait_for(mark, refused)

    def check_outputs(self, before):
        """None has changed but those that were named."""
        for place, value in self.outputs.items():
            for bit in range(8):
                named = [text for mask, text in self.named.get(place, ()) if mask >> bit & 1]
                wanted = {text >> bit & 1 for text in named}
                first = 0xFF if place[0] == "5" else 0x80
                wanted.add(before.get(place, first) >> bit & 1)
                assert value >> bit & 1 in wanted, (place, bit, before, self.outputs, self.named)

    def check_watcher(self):
        """What did not change was not emptied and set again."""
        self.watcher.pull()
        emptied = [line for line in self.watcher.lines if line.startswith(CARD)
                   and line.endswith(("(null)", "None")) and not line.startswith(UNKNOWABLE)]
        self.watcher.lines.clear()
        assert emptied == []

    def play_round(self):
        before = dict(self.outputs)
        self.named.clear()
        events = (self.end_bridge, self.end_daemon, self.end_broker, self.pull_adapter,
                  self.change_inputs, self.set_outputs, self.burst, self.visit_console)  # fmt: skip
        chosen = self.dice.sample(events, self.dice.randrange(1, 6))
        print("round:", *(event.__name__ for event in chosen), flush=True)
        for event in chosen:
            event()
            time.sleep(self.dice.choice((0, 0.1, 1)))
        self.bring_back()
        self.wait_for_truth()
        self.settle()
        self.wait_for_truth()
        self.check_outputs(before)
        self.check_watcher()


def test_topics_and_cards_agree_whatever_is_restarted_lost_or_sent(board, make_broker):
    seed = int(os.environ.get("TALP_SEED", random.randrange(1 << 32)))
    print(f"TALP_SEED={seed}")
    end = time.monotonic() + float(os.environ.get("TALP_SECONDS", "20"))
    house = House(board, make_broker, random.Random(seed))
    while time.monotonic() < end:
        house.play_round()
    board.log.pull()
    board.log.lines.clear()  # with the replies that were lost on purpose
