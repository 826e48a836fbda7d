# SPDX-License-Identifier: MIT
"""The wire protocol of the helper, written from corvalen-protocol(7) alone.

A value is None, bool, int, float, str (bytes that are no UTF-8 as surrogates), bytes (data), list,
dict, Date, Error or Endpoint.
"""
import os
import select
import socket
import struct
import time
from collections import namedtuple

Error = namedtuple("Error", "domain code info")
Date = namedtuple("Date", "seconds nanoseconds")
Endpoint = namedtuple("Endpoint", "descriptor")

TIMESTAMP, ENDPOINT, ERROR = -1, 1, 2
REQUEST, RESPONSE, NOTIFICATION = 0, 1, 2


class Incomplete(Exception):
    pass


def encode(value, descriptors):
    """The bytes of a value; the descriptors of its endpoints are appended to the list."""
    if value is None:
        return b"\xc0"
    if isinstance(value, bool):
        return b"\xc3" if value else b"\xc2"
    if isinstance(value, int):
        return b"\xd3" + struct.pack(">q", value) if value < 0 else b"\xcf" + struct.pack(">Q", value)
    if isinstance(value, float):
        return b"\xcb" + struct.pack(">d", value)
    if isinstance(value, str):
        raw = value.encode("utf-8", "surrogateescape")
        return b"\xdb" + struct.pack(">I", len(raw)) + raw
    if isinstance(value, bytes):
        return b"\xc6" + struct.pack(">I", len(value)) + value
    if isinstance(value, Endpoint):
        descriptors.append(value.descriptor)
        return b"\xd4" + struct.pack("bB", ENDPOINT, len(descriptors) - 1)
    if isinstance(value, list):
        return b"\xdd" + struct.pack(">I", len(value)) + b"".join(encode(v, descriptors) for v in value)
    pairs = b"".join(encode(k, descriptors) + encode(v, descriptors) for k, v in value.items())
    return b"\xdf" + struct.pack(">I", len(value)) + pairs


class Decoder:
    def __init__(self, data, descriptors):
        self.data, self.at, self.descriptors = data, 0, descriptors

    def take(self, count):
        if self.at + count > len(self.data):
            raise Incomplete
        self.at += count
        return self.data[self.at - count:self.at]

    def number(self, form):
        return struct.unpack(">" + form, self.take(struct.calcsize(form)))[0]

    def text(self, length):
        return self.take(length).decode("utf-8", "surrogateescape")

    def array(self, length):
        return [self.value() for _ in range(length)]

    def map(self, length):
        return {self.value(): self.value() for _ in range(length)}

    def extension(self, length):
        kind, body = self.number("b"), self.take(length)
        if kind == ENDPOINT:
            return Endpoint(self.descriptors[body[0]])
        if kind == ERROR:
            return Error(*Decoder(body, self.descriptors).value())
        assert kind == TIMESTAMP, kind
        if length == 4:
            return Date(struct.unpack(">I", body)[0], 0)
        if length == 8:
            both = struct.unpack(">Q", body)[0]
            return Date(both & (1 << 34) - 1, both >> 34)
        nanoseconds, seconds = struct.unpack(">Iq", body)
        return Date(seconds, nanoseconds)

    def value(self):
        first = self.number("B")
        if first < 0x80:
            return first
        if first < 0x90:
            return self.map(first & 15)
        if first < 0xa0:
            return self.array(first & 15)
        if first < 0xc0:
            return self.text(first & 31)
        if first >= 0xe0:
            return first - 256
        simple = {0xc0: None, 0xc2: False, 0xc3: True}
        if first in simple:
            return simple[first]
        numbers = {0xca: "f", 0xcb: "d", 0xcc: "B", 0xcd: "H", 0xce: "I", 0xcf: "Q",
                   0xd0: "b", 0xd1: "h", 0xd2: "i", 0xd3: "q"}
        if first in numbers:
            return self.number(numbers[first])
        if 0xd4 <= first <= 0xd8:
            return self.extension(1 << (first - 0xd4))
        kinds = {0xc4: ("B", self.take), 0xc5: ("H", self.take), 0xc6: ("I", self.take),
                 0xc7: ("B", self.extension), 0xc8: ("H", self.extension), 0xc9: ("I", self.extension),
                 0xd9: ("B", self.text), 0xda: ("H", self.text), 0xdb: ("I", self.text),
                 0xdc: ("H", self.array), 0xdd: ("I", self.array),
                 0xde: ("H", self.map), 0xdf: ("I", self.map)}
        form, read = kinds[first]
        return read(self.number(form))


class Connection:
    """One connection; `messages` gives what has arrived, and None once the other side has closed."""

    def __init__(self, connected):
        self.socket, self.received, self.descriptors, self.next_id = connected, b"", [], 1

    @classmethod
    def to(cls, path):
        connected = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connected.connect(path)
        return cls(connected)

    def send(self, message):
        descriptors = []
        raw = encode(message, descriptors)
        sent = socket.send_fds(self.socket, [raw], descriptors) if descriptors else 0
        if raw[sent:]:
            self.socket.sendall(raw[sent:])

    def messages(self, seconds=20.0):
        """Waits for more, and gives the messages that are complete now."""
        if not select.select([self.socket], [], [], seconds)[0]:
            raise TimeoutError("nothing arrives")
        try:
            more, descriptors, _, _ = socket.recv_fds(self.socket, 1 << 20, 8)
        except ConnectionResetError:
            more, descriptors = b"", []
        self.received += more
        self.descriptors += descriptors
        found = []
        while self.received:
            decoder = Decoder(self.received, self.descriptors)
            try:
                found.append(decoder.value())
            except Incomplete:
                break
            self.received, self.descriptors = self.received[decoder.at:], []
        return found if more else found + [None]

    def is_closed(self, seconds=20.0):
        """Whether the other side closes without sending anything."""
        try:
            return self.messages(seconds) == [None]
        except TimeoutError:
            return False

    def call(self, method, *params, listener=None):
        """Result and error string of a request."""
        self.next_id += 1
        self.send([REQUEST, self.next_id, method, list(params)])
        response = listener.pump(self) if listener else self.messages(60.0)[0]
        if response is None:
            raise ConnectionError("closed")
        kind, identifier, error, result = response
        assert (kind, identifier) == (RESPONSE, self.next_id), response
        return result, error


class FeedbackListener:
    """The client's listener: gives an endpoint and takes the connections that come through it."""

    def __init__(self):
        self.listening, self.offered = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.connections, self.received = [], []

    def endpoint(self):
        return Endpoint(self.offered.fileno())

    def accept(self):
        byte, descriptors, _, _ = socket.recv_fds(self.listening, 16, 4)
        assert byte == b"\0" and len(descriptors) == 1, (byte, descriptors)
        self.connections.append(Connection(socket.socket(fileno=descriptors[0])))

    def pump(self, main, seconds=60.0):
        """Receives until the response on `main` has come and all feedback with it."""
        end, response = time.monotonic() + seconds, []
        while not response or self.connections:
            waiting = [c.socket for c in self.connections] + [self.listening]
            waiting += [] if response else [main.socket]
            ready = select.select(waiting, [], [], max(0.0, end - time.monotonic()))[0]
            if not ready:
                raise TimeoutError("no answer")
            if self.listening in ready:
                self.accept()
            for connection in [c for c in self.connections if c.socket in ready]:
                for message in connection.messages():
                    if message is None:
                        self.connections.remove(connection)
                    else:
                        kind, method, params = message
                        assert kind == NOTIFICATION and len(params) == 1, message
                        assert method == "processPrivilegedOperationFeedback:", method
                        self.received.append(params[0])
            if not response and main.socket in ready:
                response = main.messages()
        return response[0]


def connect_through(endpoint):
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    carrier = socket.socket(fileno=os.dup(endpoint.descriptor))
    socket.send_fds(carrier, [b"\0"], [theirs.fileno()])
    theirs.close()
    carrier.close()
    return Connection(ours)


def authorization():
    return bytes.fromhex("51524c4155544801") + os.urandom(24)


PERFORM = "performPrivilegedOperation:withAuthorizationData:feedbackEndpoint:arguments:usingReply:"


def perform(connection, code, arguments, listener=None):
    """The error that answers the request; feedback is in `listener.received` then."""
    endpoint = listener.endpoint() if listener else None
    error, refusal = connection.call(PERFORM, code, authorization(), endpoint, arguments,
                                     listener=listener)
    assert refusal is None, refusal
    return error
