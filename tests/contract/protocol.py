# SPDX-License-Identifier: MIT
"""Messages, values, endpoints and limits."""
import os
import socket
import struct
import time

import wire
from wire import Connection, Endpoint, Error, FeedbackListener, perform

NOBODY = 65534
NOP = 9998


def as_nobody(case):
    """Runs a case in a process of another user; what it raises is raised here."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        os.setgroups([])
        os.setresgid(NOBODY, NOBODY, NOBODY)
        os.setresuid(NOBODY, NOBODY, NOBODY)
        try:
            case()
        except BaseException as error:  # noqa: BLE001: it is handed on
            os.write(writing, f"{type(error).__name__}: {error}".encode() or b"?")
        os._exit(0)
    os.close(writing)
    os.waitpid(child, 0)
    with open(reading, "rb") as pipe:
        text = pipe.read()
    assert not text, text.decode()


def header_of_data(length):
    """The beginning of a request whose first parameter is data of this length."""
    return b"\x94\x00\x01\xa1x\x91\xc6" + struct.pack(">I", length)


def nested(levels):
    """A request whose parameters lie in so many containers, its own array included."""
    value = []
    for _ in range(levels - 2):
        value = [value]
    return [wire.REQUEST, 1, "getVersionStringUsingReply:", value]


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

    def methods():
        connection = fresh()
        assert connection.call("getVersionStringUsingReply:") == ("1.4", None)
        assert connection.call("enableDebugMode:", True) == (None, None)
        assert connection.call("enableDebugMode:", False) == (None, None)
        assert connection.call("registerClientWithPID:", 4711) == (None, None)
        data = wire.authorization()
        for refused in (("noSuchMethod:",), ("registerClientWithPID:", "text"),
                        ("registerClientWithPID:",), ("registerClientWithPID:", True),
                        ("registerClientWithPID:", 2**31), ("registerClientWithPID:", 2**64 - 1),
                        ("unregisterClientWithPID:", -2**31 - 1), ("enableDebugMode:", 1),
                        ("getVersionStringUsingReply:", 1), ("connectWithEndpointUsingReply:", None),
                        (wire.PERFORM, NOP, data, None), (wire.PERFORM, NOP, data, None, [], 1),
                        (wire.PERFORM, -1, data, None, []), (wire.PERFORM, float(NOP), data, None, []),
                        (wire.PERFORM, str(NOP), data, None, []), (wire.PERFORM, NOP, "text", None, []),
                        (wire.PERFORM, NOP, data, 3, []), (wire.PERFORM, NOP, data, None, {})):
            result, error = connection.call(*refused)
            assert result is None and isinstance(error, str), refused
        assert connection.call(wire.PERFORM, NOP, None, None, [])[0][:2] == ("NSPOSIXErrorDomain", 22)
        # A notification is not answered; the next answer is that of the next request.
        connection.send([wire.NOTIFICATION, "registerClientWithPID:", [4712]])
        assert connection.call("getVersionStringUsingReply:") == ("1.4", None)

    def pipelined():
        connection = fresh()
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

    def requests():
        for code, arguments, data, domain, number in (
                (NOP, [], None, "NSPOSIXErrorDomain", 0),
                (NOP, None, None, "NSPOSIXErrorDomain", 22),
                (12345, [], None, "NSPOSIXErrorDomain", 22),
                (NOP, [1], None, "NSPOSIXErrorDomain", 22),
                (NOP, [], b"", "NSPOSIXErrorDomain", 22),
                (NOP, [], bytes(31), "NSPOSIXErrorDomain", 22),
                (NOP, [], bytes(32), "NSOSStatusErrorDomain", -60002)):
            error = perform(fresh(), code, arguments, data=data)
            assert error[:2] == (domain, number), (code, arguments, data, error)

    def dead_endpoint():
        for make in (lambda: socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET),
                     lambda: socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)):
            kept, given = make()
            kept.close()
            connection = fresh()
            connection.send([wire.REQUEST, 1, wire.PERFORM, [
                10, wire.authorization(), Endpoint(given.fileno()), ["/", 0, True]]])
            error = connection.messages()[0][3]
            assert error[:2] == ("NSCocoaErrorDomain", 4099), error

    def denied():
        error = perform(fresh(), 6, ["/etc/passwd"])
        assert error == Error("NSPOSIXErrorDomain", 1, None), error

    def limits():
        for name, raw in (("no value", b"\xc1"), ("no message", b"\xc3"), ("no message", b"\x91\x00"),
                          ("no type", b"\x94\x05\x01\xa1x\x90"),
                          ("long", header_of_data(message_limit)),
                          ("long array", b"\xdd\xff\xff\xff\xff")):
            connection = fresh()
            connection.socket.sendall(raw)
            assert connection.is_closed(), name
        assert isinstance(fresh().call("x", bytes(message_limit - 64))[1], str), "just fits"

    def nesting_limit():
        connection = fresh()
        connection.send(nested(nesting))
        assert isinstance(connection.messages()[0][2], str)
        connection.send(nested(nesting + 1))
        assert connection.is_closed()

    def endpoint_limit():
        listeners = [FeedbackListener() for _ in range(endpoints + 1)]
        assert fresh().call("x", *[each.endpoint() for each in listeners[1:]])[1] is not None
        connection = fresh()
        connection.send([wire.REQUEST, 1, "x", [each.endpoint() for each in listeners]])
        assert connection.is_closed()

    def connection_limit():
        kept = [fresh() for _ in range(connections)]
        for connection in kept:
            assert connection.call("getVersionStringUsingReply:") == ("1.4", None)
        assert fresh().is_closed(), "the newest"
        assert kept[0].call("getVersionStringUsingReply:") == ("1.4", None)

    def held_bytes_limit():
        piece = message_limit - megabyte
        open_ones = []
        for _ in range(held // piece + 1):
            connection = fresh()
            try:
                connection.socket.sendall(header_of_data(piece) + bytes(piece - 1))
            except (BrokenPipeError, ConnectionResetError):
                return
            open_ones.append(connection)
        assert any(connection.is_closed(2) for connection in open_ones[-1:])

    def registration_limit():
        connection = fresh()
        for pid in range(1, registered + 1):
            assert connection.call("registerClientWithPID:", 100000 + pid) == (None, None), pid
        assert isinstance(connection.call("registerClientWithPID:", 99)[1], str)
        assert connection.call("registerClientWithPID:", 100001) == (None, None), "known"
        for pid in range(1, registered + 1):
            connection.send([wire.NOTIFICATION, "unregisterClientWithPID:", [100000 + pid]])

    own = [methods, pipelined, through_an_endpoint, requests, dead_endpoint, limits, nesting_limit,
           endpoint_limit]
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
        # They are a set: a second registration counts once, an unknown number nothing. 4712 is still
        # registered from `methods`.
        for pid in (4711, -1, -2**31, 4711):
            connection.send([wire.NOTIFICATION, "registerClientWithPID:", [pid]])
        for pid in (-1, -2**31, 99, 4712):
            connection.send([wire.NOTIFICATION, "unregisterClientWithPID:", [pid]])
        assert connection.call("getVersionStringUsingReply:") == ("1.4", None), "one is left"
        connection.send([wire.NOTIFICATION, "unregisterClientWithPID:", [4711]])
        assert connection.is_closed(), "the last one has left"
        assert Connection.to(path).call("getVersionStringUsingReply:") == ("1.4", None), "started anew"

    return [("ends_with_the_last_client", ends_with_the_last_client)]
