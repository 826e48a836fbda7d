# SPDX-License-Identifier: MIT
"""Messages, values, endpoints and limits."""
import contextlib
import os
import socket
import struct
import time
import traceback

import wire
from wire import Connection, Endpoint, Error, FeedbackListener, perform

NOBODY = 65534


def as_nobody(case):
    """Runs a case in a process of another user."""
    child = os.fork()
    if child == 0:
        os.setgroups([])
        os.setresgid(NOBODY, NOBODY, NOBODY)
        os.setresuid(NOBODY, NOBODY, NOBODY)
        try:
            case()
            os._exit(0)
        except BaseException:  # noqa: BLE001: its status tells
            traceback.print_exc()
            os._exit(1)
    assert os.waitpid(child, 0)[1] == 0, "see above"


def header_of_data(length):
    """The beginning of a request whose first parameter is data of this length."""
    return b"\x94\x00\x01\xa1x\x91\xc6" + struct.pack(">I", length)


def nested(levels):
    """Parameters of a message that has so many containers in one another."""
    value = []
    for _ in range(levels - 2):
        value = [value]
    return value


def cases(path, page):
    megabyte = 1 << 20
    message_limit = page.limit("One message") * megabyte
    nesting = page.limit("Nesting of containers")
    endpoints = page.limit("Endpoints in one message")
    connections = page.limit("Connections of one user other than root")
    held = page.limit("Bytes held for unfinished messages of one user other than root") * megabyte
    registered = page.limit("Registered client numbers of one user other than root")

    def fresh():
        return Connection.to(path)

    def pipelined():
        connection = fresh()
        connection.send([wire.NOTIFICATION, "registerClientWithPID:", [4711]])
        for identifier in (7, 4294967295, 7):
            connection.send([wire.REQUEST, identifier, "getVersionStringUsingReply:", []])
        answers = []
        while len(answers) < 3:
            answers += connection.messages()
        assert [answer[1] for answer in answers] == [7, 4294967295, 7], answers
        # What was sent before the sending side was shut down is still answered, then it is closed.
        connection.send([wire.REQUEST, 9, "getVersionStringUsingReply:", []])
        connection.socket.shutdown(socket.SHUT_WR)
        last = []
        while None not in last:
            last += connection.messages()
        assert last == [[wire.RESPONSE, 9, None, "1.4"], None], last

    def through_an_endpoint():
        endpoint, error = fresh().call("connectWithEndpointUsingReply:")
        assert error is None and isinstance(endpoint, Endpoint)
        for _ in range(2):
            assert wire.connect_through(endpoint).call("getVersionStringUsingReply:") == ("1.4", None)

    def dead_endpoint():
        for kind in (socket.SOCK_SEQPACKET, socket.SOCK_STREAM):
            kept, given = socket.socketpair(socket.AF_UNIX, kind)
            kept.close()
            connection = fresh()
            connection.send([wire.REQUEST, 1, wire.PERFORM, [
                10, wire.authorization(), Endpoint(given.fileno()), ["/", 0, True]]])
            error = connection.messages()[0][3]
            assert error[:2] == ("NSCocoaErrorDomain", 4099), error

    def denied():
        error = perform(fresh(), 6, ["/etc/passwd"])
        assert error == Error("NSPOSIXErrorDomain", 1, None), error

    def message_limits():
        listeners = [FeedbackListener() for _ in range(endpoints + 1)]
        offered = [each.endpoint() for each in listeners]
        for largest, larger in (([bytes(message_limit - 64)], [bytes(message_limit)]),
                                (nested(nesting), nested(nesting + 1)), (offered[1:], offered)):
            assert isinstance(fresh().call("x", *largest)[1], str), "just fits"
            connection = fresh()
            with contextlib.suppress(ConnectionError):
                connection.send([wire.REQUEST, 1, "x", larger])
            assert connection.is_closed()

    def admitted():
        """A connection that is served. Those of the case before may still count for a moment."""
        for _ in range(100):
            connection = fresh()
            with contextlib.suppress(ConnectionError):
                assert connection.call("getVersionStringUsingReply:") == ("1.4", None)
                return connection
            time.sleep(0.1)
        raise TimeoutError("not admitted")

    def connection_limit():
        kept = [admitted() for _ in range(connections)]
        for connection in kept:
            assert connection.call("getVersionStringUsingReply:") == ("1.4", None)
        assert fresh().is_closed(), "the newest"
        assert kept[0].call("getVersionStringUsingReply:") == ("1.4", None)

    def held_bytes_limit():
        piece = message_limit - megabyte
        kept = [admitted() for _ in range(held // piece + 1)]
        with contextlib.suppress(ConnectionError):
            for connection in kept:
                connection.socket.sendall(header_of_data(piece) + bytes(piece - 1))
        assert any(connection.is_closed(2) for connection in reversed(kept))

    def registration_limit():
        connection = admitted()
        for pid in range(1, registered + 1):
            assert connection.call("registerClientWithPID:", 100000 + pid) == (None, None), pid
        assert isinstance(connection.call("registerClientWithPID:", 99)[1], str)
        assert connection.call("registerClientWithPID:", 100001) == (None, None), "known"
        for pid in range(1, registered + 1):
            connection.send([wire.NOTIFICATION, "unregisterClientWithPID:", [100000 + pid]])

    own = [pipelined, through_an_endpoint, dead_endpoint, message_limits]
    foreign = [denied, connection_limit, held_bytes_limit, registration_limit]
    return ([(case.__name__, case) for case in own] +
            [(case.__name__, lambda case=case: as_nobody(case)) for case in foreign])


def slow_cases(path):
    """Each waits for the half minute that a limit has."""

    def arrival():
        connection = Connection.to(path)
        connection.socket.sendall(b"\x94")
        begin = time.monotonic()
        assert connection.is_closed(45), "a message that does not arrive"
        assert 28 < time.monotonic() - begin, "too early"

    def untaken_feedback():
        folder = "/run/untaken"
        os.mkdir(folder)
        for number in range(4000):
            open(f"{folder}/{number:0200}", "w").close()
        listener, connection = FeedbackListener(), Connection.to(path)
        connection.send([wire.REQUEST, 1, wire.PERFORM, [
            10, wire.authorization(), listener.endpoint(), [folder, 0, True]]])
        listener.accept()
        assert connection.messages(60)[0][3][:2] == ("NSPOSIXErrorDomain", 0), "it goes on"

    return [("arrival", arrival), ("untaken_feedback", untaken_feedback)]


def ending_cases(path):
    def ends_with_the_last_client():
        connection = Connection.to(path)
        # They are a set: a second registration counts once, an unknown number nothing. 4711 is still
        # registered from `pipelined`.
        for pid in (4712, -1, -2**31, 4712):
            connection.send([wire.NOTIFICATION, "registerClientWithPID:", [pid]])
        for pid in (-1, -2**31, 99, 4711):
            connection.send([wire.NOTIFICATION, "unregisterClientWithPID:", [pid]])
        assert connection.call("getVersionStringUsingReply:") == ("1.4", None), "one is left"
        connection.send([wire.NOTIFICATION, "unregisterClientWithPID:", [4712]])
        assert connection.is_closed(), "the last one has left"
        assert Connection.to(path).call("getVersionStringUsingReply:") == ("1.4", None), "started anew"

    return [("ends_with_the_last_client", ends_with_the_last_client)]
