"""A board with bus, daemon and clients, shared by the cases of a module.

A module may say what they are made with: BOARD, arguments of Board; CARDS, options of talp-cardsim;
CONFIG, changes of the configuration. After a failed case all of them are made anew, so that the
other cases tell whether they hold for themselves.
"""

import os
import shlex
import shutil

import pytest

from kit.board import Board
from kit.cards import ALL_CARDS, VERSION, hardware_found, wait_for_cards

BOARDS = []  # of the module that is being played
FAILED = pytest.StashKey[bool]()
SKIPPED = []


def pytest_addoption(parser):
    parser.addoption("--build", help="the directory of the programs")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    if report.failed:
        item.stash[FAILED] = True
        report.sections += [section for board in BOARDS for section in board.report()]


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_teardown(item, nextitem):
    if nextitem and item.stash.get(FAILED, False):
        item.ihook.pytest_runtest_teardown(item=item, nextitem=None)


def pytest_runtest_logreport(report):
    if report.skipped:
        SKIPPED.append(f"{report.nodeid}: {report.longrepr[2].removeprefix('Skipped: ')}\n")


def pytest_sessionfinish(session):
    """With nothing but skipped cases ctest is told that the module was skipped."""
    if "TALP_SKIPPED" in os.environ:
        with open(os.environ["TALP_SKIPPED"], "a", encoding="utf-8") as file:
            file.writelines(SKIPPED)
    if SKIPPED and len(SKIPPED) == session.testscollected:
        session.exitstatus = 77


@pytest.fixture(scope="module")
def board(request):
    """TALP_DAEMON may hold another command that runs the daemon."""
    daemon = shlex.split(os.environ.get("TALP_DAEMON", ""))
    options = getattr(request.module, "BOARD", {})
    failed = request.session.testsfailed
    with Board(request.config.getoption("--build"), daemon, **options) as made:
        BOARDS.append(made)
        yield made
        BOARDS.clear()
        if request.session.testsfailed == failed:
            made.finish()


@pytest.fixture
def log(board):
    """The daemon's log, without what it has held before the case."""
    board.log.pull()
    board.log.lines.clear()
    return board.log


@pytest.fixture(scope="module")
def card_bus(request, board):
    return board.bus(*VERSION, "--frames", *getattr(request.module, "CARDS", ALL_CARDS))


@pytest.fixture
def bus(card_bus):
    """The same, without what it has printed before the case."""
    card_bus.command()
    card_bus.lines.clear()
    return card_bus


@pytest.fixture(scope="module")
def daemon(request, board, card_bus):
    """The id of its process. It has found the adapter."""
    pid = board.start(**getattr(request.module, "CONFIG", {}))
    board.log.expect(*hardware_found())
    return pid


@pytest.fixture(scope="module")
def started(board, daemon):
    """It has found its cards."""
    wait_for_cards(board)


@pytest.fixture(scope="module")
def cae(board, daemon):
    return board.client("CAE")


@pytest.fixture(scope="module")
def io(board, daemon):
    return board.client("IO")


@pytest.fixture(scope="module")
def mon(board, daemon):
    return board.client("MON")


@pytest.fixture(scope="module")
def make_broker():
    if not shutil.which("mosquitto"):
        pytest.skip("not installed: mosquitto")
    from kit.broker import Broker  # has needs of its own

    return Broker


@pytest.fixture(scope="module")
def broker(board, make_broker):
    return make_broker(board)
