# Who talks to the daemon, other processes over the messaging service; and what all that talk is made of.
import os
import socket
import struct
import time
from collections import namedtuple

EMULATOR = os.environ.get("RVK_EMULATOR", "").split()
SANITIZED = os.environ.get("RVK_SANITIZE", "") != ""
PATIENCE = 60 if SANITIZED or EMULATOR else 30  # seconds, for what must come: other work is done beside the tests
SELF, COMPANION, TOOLS = 0x3B, 0x3C, 0x7F  # module numbers
READ, WRITE, WRITE_ACK, FILE_WRITE, FILE_READ, UPDATE, GREETING = 0, 1, 2, 0xEE, 0xDD, 0xEF, 0xF0
TO_CARD, TO_HOST = b"\xeb\x90" * 3, b"\x44" * 6  # the addresses of frames
HEAD = struct.Struct("<IIIihhIBBBBHHIH")  # 38 bytes: the outer head of 24, the data head of 14


# Looks every few milliseconds until the condition holds. Result: what it gave, or False after the time.
def wait_until(condition, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not (held := condition()) and time.monotonic() < end:
        time.sleep(0.003)
    return held


# Fields of a message in wire order, and the payload.
FIELDS = "aptid word1 length result msg_type msg_class data_len module id code slot model seq addr len payload"
DEFAULTS = (0x11223344, 0, 0, 0, 28, 0, 0, 254, READ, 1, 0, 0, 0, 0, b"")


class Message(namedtuple("Message", FIELDS, defaults=DEFAULTS)):
    def pack(self):
        return HEAD.pack(*self[:-1]) + self.payload + b"\0\0"

    @staticmethod
    def unpack(datagram):
        return Message(*HEAD.unpack_from(datagram), datagram[HEAD.size : -2])


def identity(module=SELF, board=1, low=0):
    return board << 24 | 0x0A0000 | module << 8 | low


def socket_file(number):
    return f"/run/apipc/{number:08x}.sock"


# The fields of a file command: picture and read-back have a size, an update a type.
def job(code, path, hor=0, ver=0, kind=0, **fields):
    first = struct.pack("<I", kind) if code == UPDATE else struct.pack("<II", hor, ver)
    return {"code": code, "payload": first + os.fsencode(path) + b"\0", **fields}


# A process's endpoint; the first free identity of the tools' unless one is given.
class Requester:
    def __init__(self, own=None):
        wait_until(lambda: os.path.isdir("/run/apipc"))
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        free = (identity(TOOLS, low=n) for n in range(1, 256) if not os.path.exists(socket_file(identity(TOOLS, low=n))))
        self.own = own or next(free)
        self.path = socket_file(self.own)
        self.socket.bind(self.path)
        os.chmod(self.path, 0o660)

    def message(self, **fields):
        fields.setdefault("len", len(fields.get("payload", b"")))
        return Message(self.own, **fields)

    def tell(self, to=identity(), **fields):
        self.send(self.message(**fields).pack(), to)

    # Result: false when the daemon's socket is not there, or its queue has no space.
    def try_to_send(self, datagram, to=identity()):
        try:
            return self.socket.sendto(datagram, socket.MSG_DONTWAIT, socket_file(to)) >= 0
        except (BlockingIOError, TimeoutError, FileNotFoundError, ConnectionRefusedError):
            return False

    # Waits for the daemon's socket, and for room in its queue.
    def send(self, datagram, to=identity()):
        assert wait_until(lambda: self.try_to_send(datagram, to)), "the daemon takes no message"

    # The next message; None when none came in time.
    def receive(self, seconds=PATIENCE):
        self.socket.settimeout(seconds)
        try:
            return Message.unpack(self.socket.recv(70_000))
        except (socket.timeout, BlockingIOError):
            return None

    def ask(self, seconds=PATIENCE, **fields):
        self.tell(**fields)
        return self.receive(seconds)

    def read(self, addr, length, **fields):
        return self.ask(addr=addr, len=length, **fields)

    # Commands are handled in order: whatever was sent before has been handled when this is true.
    def greeted(self, seconds=PATIENCE):
        answer = self.ask(seconds, code=GREETING)
        return answer is not None and answer.code == GREETING and answer.length == 72

    def close(self):
        if os.path.exists(self.path):
            os.unlink(self.path)
        self.socket.close()


# A frame with its checksum behind it.
def summed(frame):
    return frame + struct.pack("<H", (0x5555 + sum(frame[16:])) & 0xFFFF)
