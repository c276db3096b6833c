"""What the daemon asks of the system, and what becomes of it when the system refuses."""

import os
import signal
import socket
import syslog
import termios

import pytest

from kit.board import BANNERS, NAMES, Client
from kit.cards import ADAPTER, HANDSHAKE, hardware_found
from kit.expecting import read_file, wait_for

AT_ONCE = os.O_CLOEXEC | os.O_NOCTTY | os.O_NONBLOCK
LOG_FLAGS = os.O_WRONLY | os.O_CREAT | os.O_APPEND | AT_ONCE
TTY_FLAGS = os.O_RDWR | os.O_SYNC | AT_ONCE
BSD_SET_ATTRIBUTES = 0x403C7414
LISTENER = (
    f"socket {socket.AF_INET} {socket.SOCK_STREAM | socket.SOCK_CLOEXEC} 0",
    f"setsockopt {socket.SOL_SOCKET} {socket.SO_REUSEADDR} 1",
)
CLIENT = (
    "accept4 " + str(socket.SOCK_CLOEXEC),
    f"setsockopt {socket.IPPROTO_TCP} {socket.TCP_NODELAY} 1",
    f"setsockopt {socket.SOL_SOCKET} {socket.SO_KEEPALIVE} 1",
    f"setsockopt {socket.IPPROTO_TCP} {socket.TCP_KEEPIDLE} 60",
    f"setsockopt {socket.IPPROTO_TCP} {socket.TCP_KEEPINTVL} 20",
    f"setsockopt {socket.IPPROTO_TCP} {socket.TCP_KEEPCNT} 3",
)
DAEMON = (
    "fork",
    "setsid",
    "fopen /var/run/talp/talp.pid we",
    f"signal {signal.SIGINT:d}",
    f"signal {signal.SIGTERM:d}",
)
# In their order; a listener and its pause for each interface.
START = (
    *DAEMON,
    "open {log} " + f"{LOG_FLAGS} {0o666}",
    *(line for port in (5001, 5002, 5003)
      for line in (*LISTENER, f"bind {socket.INADDR_ANY} {port}", "listen 1")),
)
CONNECT = (
    "popen re ls /dev | grep ttyUSB",
    "pclose",
    f"open {ADAPTER} {TTY_FLAGS} 0",
    f"ioctl {BSD_SET_ATTRIBUTES}",
    f"tcsetattr {termios.TCSANOW}",
    "nanosleep 200000",
    f"write {len(HANDSHAKE[0].split()) - 1}",
    "popen re sleep 1",
)


@pytest.fixture
def calls(board):
    """A function that tells what a daemon has called so far, and the environment that it needs."""
    if not board.preload:
        pytest.skip("an emulated daemon's calls cannot be recorded")
    path = board.work / f"calls-{len(list(board.work.iterdir()))}"
    return lambda: read_file(path).splitlines(), {"TALP_CALLS": str(path)}


def expect_in_order(calls, wanted):
    rest = iter(calls)
    for line in wanted:
        assert line in rest, f"no {line!r}, or not there, in\n" + "\n".join(calls)


def test_start_and_connection_make_these_calls(board, bus, calls):
    made, environment = calls
    pid = board.start(environment)
    board.log.expect(*hardware_found())
    clients = [board.client(name) for name in NAMES]
    expect_in_order(made(), [line.format(log=board.log_file) for line in START])
    expect_in_order(made(), CONNECT)
    assert "nanosleep 5000000" in made()  # after the start of an interface
    for name in NAMES:
        expect_in_order(made(), CLIENT)
    sent = [line.split() for line in made() if line.startswith("send ")]
    assert {flags for _, _, flags in sent} == {str(int(socket.MSG_NOSIGNAL))}
    assert os.getsid(pid) == pid
    for client in clients:
        client.close()
    board.stop(pid)


def test_the_speed_reaches_the_loops_of_all_five_tasks(board, bus, calls):
    made, environment = calls
    pid = board.start(environment, percent=50)
    cae = [board.client(name) for name in NAMES][0]
    wait_for("five pauses", lambda: made().count("usleep 2525") == 5, None, made)
    cae.ask("SPEED=99", "CIA: SPEED IS SET to 99%", ">")
    wait_for("five pauses", lambda: made().count("usleep 51") == 5, None, made)
    board.stop(pid)


def test_a_configuration_that_cannot_be_read_ends_the_use_of_syslog(board, calls):
    made, environment = calls
    board.config_file.unlink(missing_ok=True)
    board.expect_end(board.launch_daemon(**environment))
    expect_in_order(made(), (f"setlogmask {(2 << syslog.LOG_NOTICE) - 1}", "closelog"))


# The call that fails: name, errno, how many calls before it succeed, how many fail; and the log.
FAILURES = (
    ("socket 24 0 1", ("[ERR] couldn't open socket forCAE interface",)),
    ("setsockopt 1 0 1", ("[ERR] couldn't set socket options forCAE interface",
                          "[INF] CAE interface listening on port 5001")),
    ("bind 13 1 1", ("[ERR] couldn't bind socket forIO interface",
                     "[INF] IO interface listening on port 5002")),
    ("listen 98 2 1", ("[ERR] MON interface listening error on port 5003",
                       "[INF] try to catch hardware on /dev/ttyUSB0")),
    ("tcsetattr 5 0 2", ("[ERR] error 5 from tcsetattr", "[ERR] error 5 from tcsetattr",
                         *hardware_found())),
    ("write 5 0 1", ("[ERR] unable to  write to /dev/ttyUSB0", "[INF] comm timeout /dev/ttyUSB0",
                     *hardware_found())),
)


@pytest.mark.parametrize("call, lines", FAILURES, ids=[call.split()[0] for call, _ in FAILURES])
def test_a_refused_call_of_the_start_is_logged_and_it_goes_on(board, bus, calls, log, call, lines):
    board.write_config()
    pid = board.launch_daemon(TALP_FAIL=call)
    log.expect(*lines)
    log.expect("[INF] IO interface is waiting for incoming connection")
    board.stop(pid)
    board.log.lines.clear()


def test_an_adapter_that_cannot_be_set_up_is_tried_again_after_two_seconds(board, bus, calls):
    made, environment = calls
    pid = board.start(environment | {"TALP_FAIL": "tcsetattr 5 0 1"})
    board.log.expect("[ERR] error 5 from tcsetattr", *hardware_found())
    tries = f"tcsetattr {termios.TCSANOW}", "popen re sleep 2", f"tcsetattr {termios.TCSANOW}"
    expect_in_order(made(), tries)
    board.stop(pid)


def test_a_failed_accept_closes_and_listens_again(board, bus):
    pid = board.start({"TALP_FAIL": "accept4 24 0 3"})  # that of each interface
    board.log.expect(
        "[ERR] socket accept error on IO interface",
        "[INF] connection is closed by client on IO interface",
        "[INF] IO interface listening on port 5002",
    )
    board.client("IO").close()
    board.stop(pid)


@pytest.mark.parametrize("call, line, greeting", (
    ("ppoll 4 3 1", "[ERR] socket select error on IO interface", BANNERS["IO"]),
    ("send 104 0 1", "[ERR] socket write error on IO interface", ""),
), ids=("ppoll", "send"))
def test_a_failed_call_for_a_client_keeps_the_client(board, bus, call, line, greeting):
    pid = board.start({"TALP_FAIL": call})
    client = board.own(Client("IO", 5002))
    board.log.expect(line)
    client.send("EXIT\r\n")
    client.expect(greeting + "TALP: Bye Bye...\r\n\r")
    client.close()
    board.stop(pid)


def test_a_second_listening_that_fails_is_tried_again(board, bus):
    pid = board.start({"TALP_FAIL": "listen 98 3 1"})
    board.client("IO").close()
    board.log.expect(
        "[INF] connection is closed by client on IO interface",
        "[ERR] IO interface listening error on port 5002",
        "[INF] IO interface listening on port 5002",
    )
    board.stop(pid)


def test_threads_that_cannot_be_created_are_reported(board, bus, calls):
    pid = board.start({"TALP_FAIL": "pthread_create 11 0 100"})
    board.stop(pid)
    wanted = "error: could not create thread, pthread_create failed (11)!\n"
    assert read_file(board.stderr) == 4 * wanted
    board.stderr.write_text("")


def test_a_fork_that_fails_ends_with_1(board, calls):
    with pytest.raises(AssertionError, match="wanted 0\ncame instead: 1"):
        board.launch(TALP_FAIL="fork 11 0 1")
