"""How clients of an interface come, go and follow each other."""

import pytest

from kit.cards import expect_discovery, switch_polling


@pytest.fixture(scope="module", autouse=True)
def discovered(cae, card_bus):
    expect_discovery(cae, card_bus)


@pytest.fixture
def io(board, daemon):
    client = board.patient_client("IO")
    yield client
    if client.descriptor is not None:
        leave(board, client)


def leave(board, client):
    client.close()
    board.log.expect(f"[INF] connection is closed by client on {client.name[:-7]} interface")


def test_a_client_is_greeted_after_one_pause(board, cae, mon):
    before = board.pauses(3)
    client = board.client("IO")
    assert (board.pauses(2), board.pauses(3)) == (0, before)
    leave(board, client)


def test_exit_says_goodbye_and_closes(board, io):
    io.send("EXIT\r\n")
    io.expect("TALP: Bye Bye...\r\n\r")
    io.expect_end()
    board.log.expect("[INF] connection is closed by command on IO interface")
    io.close()


def test_a_port_opens_again_after_two_pauses(board, io):
    board.log.pull()
    board.log.lines.clear()
    before = board.pauses(2), board.pauses(3)
    leave(board, io)
    board.log.expect("[INF] IO interface listening on port 5002")
    assert board.pauses(2) == before[0] + 2
    leave(board, board.client("IO"))
    assert board.pauses(3) == before[1] + 1


def test_monitor_is_silent_without_io_client(board, cae, mon, bus):
    # A console answer shows that the master has been through the line of before.
    bus.command("set 3 0 40")
    switch_polling(cae, True)
    bus.expect("tx 04 21 03 40 00")
    bus.expect("rx 03 20 03 02")
    switch_polling(cae, False)
    io = board.patient_client("IO")
    bus.command("set 8 0 2A")
    switch_polling(cae, True)
    for client in io, mon:
        client.expect("a8b0d2A\r\n\r")
    switch_polling(cae, False)
    leave(board, io)
