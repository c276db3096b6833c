#!/usr/bin/python3 -B
"""Runs talp-bench case by case, beside the daemon where it takes part, and reports the figures."""

import argparse
import collections
import contextlib
import json
import os
import random
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests"))
from kit import sandbox
from kit.board import LATE, Board
from kit.broker import Broker
from kit.expecting import check, read_file

ADAPTER = Path("/dev/ttyUSB0")
BROKER_PORT = 1883
SHORTEST_SLEEP = 10  # microseconds; the daemon spends a shorter pause looking at the clock
SLOWEST_FLOW = 250  # lines a second
TRIALS = 20000  # of the design's model

Extent = collections.namedtuple("Extent", "cards events window idle")
FULL = Extent(cards=(1, 4, 15), events=600, window=2000, idle=6)
SHORT = Extent(cards=(1, 15), events=20, window=300, idle=1)


def cpu_seconds(pid):
    """The CPU time that a process has taken so far, with that of its ended children."""
    process = Path(f"/proc/{pid}")
    # The first number of a thread's schedstat is its CPU time in nanoseconds.
    threads = sum(int(task.read_text().split()[0]) for task in process.glob("task/*/schedstat"))
    # Fields 16 and 17 of proc(5)'s stat, in clock ticks; the first behind the name is the third.
    fields = (process / "stat").read_text().rpartition(")")[2].split()
    return threads / 1e9 + (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")


class Cost:
    """What a process takes, from here to total()."""

    def __init__(self, pid):
        self.pid, self.start, self.before = pid, time.monotonic(), cpu_seconds(pid)

    def total(self):
        share = (cpu_seconds(self.pid) - self.before) / (time.monotonic() - self.start)
        lines = read_file(f"/proc/{self.pid}/status").splitlines()
        status = dict(line.split(":", 1) for line in lines)
        return {
            "cpu_percent": round(100 * share, 2),
            "resident_kib": int(status["VmHWM"].split()[0]),
            "threads": int(status["Threads"]),
            "descriptors": len(os.listdir(f"/proc/{self.pid}/fd")),
        }


@contextlib.contextmanager
def daemon(options, speed, real_time=False):
    """Yields the board and the id of the daemon's process. There is no adapter yet."""
    ADAPTER.unlink(missing_ok=True)
    with Board(options.build, options.daemon, real_time=real_time) as board:
        board.preload = ""
        yield board, board.start(percent=speed, poll=True)


def measure(options, program, watch=None, **sizes):
    """Runs talp-bench, whose lines are a name and numbers each.

    Where it counts for a while, the cost of the process `watch` meanwhile stands beside the count.
    """
    figures = {"flow": []}
    command = [str(options.build / "bench" / program)]
    command += [f"--{name}={value}" for name, value in sizes.items()]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        for line in process.stdout:
            name, *numbers = line.split()
            numbers = list(map(float, numbers))
            if name == "window":
                cost = Cost(watch or process.pid)
            elif name == "flow":
                figures["flow"].append((*numbers, cost.total()))
            elif name == "rate":
                figures |= {"polls": numbers[0], "cost": cost.total()}
            else:
                figures[name] = numbers
    if process.returncode != 0:
        raise SystemExit(f"bench: {command} failed")
    return figures


def delay_of(speed):
    """The pause of every loop in microseconds."""
    return (500000 - speed * 4999) // 99


def measure_pauses(speed, count):
    """How long the loops' pauses really take."""
    delay = delay_of(speed)
    if delay < SHORTEST_SLEEP:
        return [delay]
    moments = [time.monotonic()]
    for _ in range(count):
        time.sleep(delay / 1e6)
        moments.append(time.monotonic())
    return [1e6 * (end - start) for start, end in zip(moments, moments[1:])]


def rest_of(cycles):
    """What is left of a loop's cycle at a random moment: a long one is met more often."""
    return [cycle * random.random() for cycle in random.choices(cycles, weights=cycles, k=TRIALS)]


def design(pauses, cards, bare_polls):
    """The design's own limit: latencies, and polls a second.

    The work between the pauses of the three loops takes no time, but the card bus task's exchanges.
    """
    exchange = 1e6 / bare_polls
    cycles = [pause + cards * exchange for pause in pauses]
    loops = zip(rest_of(cycles), rest_of(pauses), rest_of(pauses))
    return [sum(rests) + exchange / 2 for rests in loops], cards * 1e6 * len(cycles) / sum(cycles)


def start_bridge(board):
    """Starts a broker and the bridge from the daemon to it, whose process id is returned."""
    return Broker(board).start_bridge(board, node="bench").process.pid


def measure_case(options, extent, speed, cards, bridged):
    """One case of the daemon, with a client of its IO port or one of the bridge's broker."""
    program = "talp-bench-mqtt" if bridged else "talp-bench"
    with daemon(options, speed) as (board, pid):
        run = measure(
            options, program, start_bridge(board) if bridged else pid, cards=cards,
            port=BROKER_PORT if bridged else board.ports["IO"], link=ADAPTER,
            delay=delay_of(speed), events=extent.events // (4 if bridged else 1),
            window=extent.window, flow=SLOWEST_FLOW if cards == max(extent.cards) else 0)
        # Each reply that came too late ended the connection to the bus and is in the log.
        run["late"] = read_file(board.log_file).count(LATE)
    return run


def summary(options, run, limits, **case):
    """The figures of a case, and its distributions in files for latency.gp."""
    distributions = {"change": run["changes"], "output": run["outputs"], **limits}
    for name, samples in distributions.items():
        ordered = sorted(sample for sample in samples if sample >= 0)
        check(ordered, f"no {name} arrived")
        shares = [ordered[round((len(ordered) - 1) * share)] for share in (0.5, 0.99)]
        case[f"{name}_us"] = [round(share, 1) for share in shares]
        file = options.figures / "{}-{speed}-{cards}-{client}.dat".format(name, **case)
        file.write_text("\n".join(map(str, ordered)))
    lost = sum(sample < 0 for sample in run["changes"] + run["outputs"])
    whole = [(reached, cost["cpu_percent"])
             for _, reached, missing, cost in run["flow"] if not missing]
    lines, lines_cpu = max(whole, default=(0, 0))
    return case | run["cost"] | {"polls": run["polls"], "lost": lost + run["late"],
                                 "lines": lines, "lines_cpu_percent": lines_cpu}


def measure_speed(options, extent, speed, bare):
    clients = [("io", cards) for cards in extent.cards]
    if (options.build / "bench/talp-bench-mqtt").exists():
        clients.append(("mqtt", max(extent.cards)))
    pauses = measure_pauses(speed, extent.events)
    for client, cards in clients:
        run = measure_case(options, extent, speed, cards, client == "mqtt")
        latencies, polls = design(pauses, cards, bare[cards]["polls"])
        limits = {"design": latencies, "bare": bare[cards]["changes"]}
        yield summary(options, run, limits, speed=speed, cards=cards, client=client,
                      design_polls=round(polls), bare_polls=bare[cards]["polls"])


def measure_idle(options, extent, speed):
    nothing = {"speed": speed, "client": "-", "lines_cpu_percent": 0}
    with daemon(options, speed, real_time=True) as (_, pid):
        cost = Cost(pid)
        time.sleep(extent.idle)
        yield nothing | {"cards": "no adapter"} | cost.total()
    with daemon(options, speed) as (_, pid):
        run = measure(options, "talp-bench", pid, window=extent.window, link=ADAPTER)
        yield nothing | {"cards": 0} | run["cost"]


def measure_all(options, extent):
    figures = {"load": os.getloadavg()[0], "cases": [], "idle": []}
    bare = {cards: measure(options, "talp-bench", cards=cards, events=extent.events,
                           window=extent.window) for cards in extent.cards}
    for speed in options.speed:
        figures["cases"] += measure_speed(options, extent, speed, bare)
        figures["idle"] += measure_idle(options, extent, speed)
    return figures


def ratio(figure, limit):
    return f"{figure / limit:.2f}" if limit else "-"


def ratios(pair, limits):
    return "{} ({})".format(*map(ratio, pair, limits))


def print_table(title, heads, rows):
    """In Markdown. Each column is as wide as its widest cell."""
    cells = [heads, *(list(map(str, row)) for row in rows)]
    widths = [max(map(len, column)) for column in zip(*cells)]
    cells.insert(1, ["-" * width for width in widths])
    print(f"{title}\n")
    for row in cells:
        print("|", " | ".join(cell.rjust(width) for cell, width in zip(row, widths)), "|")
    print()


def report(figures):
    cases = figures["cases"]
    key = lambda case: [case["speed"], case["cards"], case["client"]]
    print_table(
        "Ratios, p50 (p99); 1.00 is the limit itself",
        ["Speed", "cards", "client", "change to line / design", "/ bare loop",
         "line to frame / design", "polls / design", "/ bare loop"],
        [[*key(case), ratios(case["change_us"], case["design_us"]),
          ratios(case["change_us"], case["bare_us"]), ratios(case["output_us"], case["design_us"]),
          ratio(case["polls"], case["design_polls"]), ratio(case["polls"], case["bare_polls"])]
         for case in cases])
    print_table(
        "Ratios, through bridge and broker / as a client of the IO port, p50 (p99)",
        ["Speed", "cards", "change to line", "line to frame", "lines/s"],
        [[*key(io)[:2], ratios(mqtt["change_us"], io["change_us"]),
          ratios(mqtt["output_us"], io["output_us"]), ratio(mqtt["lines"], io["lines"])]
         for io, mqtt in zip(cases, cases[1:]) if mqtt["client"] == "mqtt"])
    print_table(
        "Latencies in microseconds, p50 / p99, and the most lines a second of which none was lost",
        ["Speed", "cards", "client", "change to line", "line to frame", "design", "bare loop",
         "polls/s", "lines/s", "lost"],
        [[*key(case), *("{:.0f} / {:.0f}".format(*case[f"{name}_us"])
                        for name in ("change", "output", "design", "bare")),
          round(case["polls"]), round(case["lines"]) or "-", case["lost"]] for case in cases])
    print_table(
        "Cost of the daemon, or of the bridge where the client is mqtt; CPU time in % of one CPU",
        ["Speed", "cards", "client", "CPU", "at most lines/s", "resident KiB, peak", "threads",
         "descriptors"],
        [[*key(case), case["cpu_percent"], case["lines_cpu_percent"] or "-", case["resident_kib"],
          case["threads"], case["descriptors"]] for case in figures["idle"] + cases])
    print(f"Load average at the start: {figures['load']:.2f}")


def draw(options, cases):
    """Draws the distributions."""
    names = dict.fromkeys(f"{case['cards']}-{case['client']}" for case in cases)
    settings = (f"directory='{options.figures}'; cases='{' '.join(names)}';"
                f"speeds='{' '.join(map(str, options.speed))}'")
    script = Path(__file__).with_name("latency.gp")
    subprocess.run(["gnuplot", "-e", settings, script], check=True)
    print(f"The latencies are drawn in {options.figures}/latency.svg")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=Path, help="the directory of the programs")
    parser.add_argument("--program", dest="daemon", nargs=1, default=[], help="the talp binary")
    parser.add_argument("--speed", type=int, nargs="+", default=[100, 99, 50])
    parser.add_argument("--short", action="store_true", help="only see that figures come out")
    options = parser.parse_args()
    sandbox.enter()
    options.figures = options.build / "figures"
    options.figures.mkdir(exist_ok=True)
    figures = measure_all(options, SHORT if options.short else FULL)
    report(figures)
    draw(options, figures["cases"])
    print(json.dumps(figures))


if __name__ == "__main__":
    main()
