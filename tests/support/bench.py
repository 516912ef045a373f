"""The bench of every test that drives the real programs: cards on link n, with or without a daemon, and requesters.

Programs come from $RVK_BIN and run under $RVK_EMULATOR where that is set. Everything here refuses to work outside
scripts/in-bench: eth0 would be the machine's own. What a test starts ends with it.
"""
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from typing import NamedTuple

BIN = os.environ.get("RVK_BIN", "")
EMULATOR = os.environ.get("RVK_EMULATOR", "").split()
SANITIZED = os.environ.get("RVK_SANITIZE", "") != ""
PATIENCE = 60 if SANITIZED or EMULATOR else 30  # seconds, for what must come: other work is done beside the tests
RECORDERS = "/run/rvk-bench/recorders"
SYSCTL_RECORD = "/run/rvk-bench/sysctl"  # what the daemon gave to sysctl, a line a call
LOGS = ("/var/log/rvk_log0.txt", "/var/log/rvk_log1.txt")
SELF, COMPANION, TOOLS = 0x3B, 0x3C, 0x7F  # module numbers
READ, WRITE, WRITE_ACK, FILE_WRITE, FILE_READ, UPDATE, GREETING = 0, 1, 2, 0xEE, 0xDD, 0xEF, 0xF0
HEAD = struct.Struct("<IIIihhIBBBBHHIH")  # 38 bytes: the outer head of 24, the data head of 14
HEAD_BYTES = 40  # as counted; the payload starts two bytes earlier


def wait_until(condition, seconds=PATIENCE):
    """Looks every few milliseconds until the condition holds. Result: what it gave, or False after the time."""
    end = time.monotonic() + seconds
    while not (held := condition()) and time.monotonic() < end:
        time.sleep(0.003)
    return held


def text_of(path):
    """A file's text; empty when it is not there."""
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except OSError:
        return ""


def content(seed, size):
    """Bytes that tell where they belong: none is 0, no two seeds alike."""
    bits = (seed * 2_654_435_761 + 1) & 0xFFFFFFFF
    out = bytearray(size)
    for i in range(min(size, 65_521)):
        bits = (bits * 1_664_525 + 1_013_904_223) & 0xFFFFFFFF
        out[i] = bits >> 24 | 1
    for i in range(65_521, size, 65_521):
        out[i : i + 65_521] = out[: min(65_521, size - i)]
    return bytes(out)


def lay_tool(path, script):
    """A program of ours in the place of one that the daemon runs."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="ascii") as file:
        file.write(f"#!/bin/sh\n{script}\n")
    os.chmod(path, 0o755)


def has_carrier(*names):
    up = subprocess.check_output(["ip", "-o", "link", "show", "up"], text=True)
    return all(re.search(rf" {name}@.*LOWER_UP", up) for name in names)


def lay_cable(link=0):
    """A cable between ethN and cardN where there was none."""
    near, far = f"eth{link}", f"card{link}"
    made = f"link add {near} mtu 9000 type veth peer name {far} mtu 9000"
    for line in [made, f"link set {near} up", f"link set {far} up"]:
        subprocess.check_call(["ip", *line.split()])
    if not wait_until(lambda: has_carrier(near, far)):
        raise AssertionError(f"no carrier on {near}")


def program(name):
    return [*EMULATOR, os.path.join(BIN, name)]


class Process:
    """A program under test, its two streams in one file or (`apart`) in two; gone with its owner."""

    def __init__(self, command, env=None, apart=False, **how):
        self.out = tempfile.TemporaryFile()
        self.err = tempfile.TemporaryFile() if apart else self.out
        how.setdefault("stdin", subprocess.DEVNULL)
        how.setdefault("stdout", self.out)
        how.setdefault("stderr", self.err)
        manners = "halt_on_error=1 second_deadlock_stack=1 atexit_sleep_ms=0 report_signal_unsafe=0"
        own = {"TSAN_OPTIONS": manners, "PATH": f"{RECORDERS}:{os.environ['PATH']}", **(env or {})}
        self.child = subprocess.Popen(command, env={**os.environ, **own}, **how)
        self.pid = self.child.pid

    @staticmethod
    def _all(file):
        return os.pread(file.fileno(), 1 << 26, 0).decode(errors="replace")

    @property
    def output(self):
        return self._all(self.out)

    @property
    def errors(self):
        return self._all(self.err)

    def alive(self):
        return self.child.poll() is None

    def shows(self, text, seconds=PATIENCE):
        return wait_until(lambda: text in self.output or (not self.alive() and text in self.output), seconds)

    def end(self, number=None, seconds=PATIENCE):
        """Sends a signal, waits. Result: exit status, or minus the signal that killed it; None: it still runs."""
        if number is not None and self.alive():
            self.child.send_signal(number)
        try:
            return self.child.wait(seconds)
        except subprocess.TimeoutExpired:
            return None

    def kill(self):
        if self.alive():
            self.child.kill()
            self.child.wait()
        self.out.close()
        self.err.close()


def run(name, *arguments, env=None, seconds=PATIENCE * 2, **how):
    """Runs a program to its end. Result: exit status, standard output, standard error."""
    process = Process([*program(name), *map(str, arguments)], env, apart=True, **how)
    status = process.end(seconds=seconds)
    said = status, process.output, process.errors
    process.kill()
    return said


class Cards(Process):
    """rvk-cardsim on one link or several; its state and its last frames are kept below `folder`."""

    def __init__(self, *options, links=(0,), kept=True):
        self.folder = tempfile.mkdtemp(dir="/dev/shm")
        named = [word for n in links for word in ("--link", f"card{n}")]
        given = [str(option) for option in options]
        files = ["--state", self.folder, "--pcap", f"{self.folder}/pcap"] if kept else []
        super().__init__([*program("rvk-cardsim"), *named, *files, *given])
        if not self.shows("ready\n"):
            raise AssertionError(f"the cards did not start: {self.output}")

    def stop(self):
        """Ends them. Result: their summary; the state is written then."""
        if self.end(signal.SIGTERM) != 0:
            raise AssertionError(f"the cards ended badly: {self.output}")
        return self.output.partition("ready\n")[2]

    def file(self, name):
        with open(os.path.join(self.folder, name), "rb") as file:
            return file.read()

    def held(self, slot=1, model=0, link=0):
        """What was written to a card's addresses, as its state has it: address to bytes, a stretch an entry."""
        out, first, end = {}, None, None
        for line in text_of(os.path.join(self.folder, f"card{link}-model{model}-slot{slot}.txt")).splitlines():
            if (found := re.fullmatch(r"([0-9a-f]{8})  (?:\d+ bytes, in (.*)|(.*))", line)) is None:
                continue
            at, data = int(found[1], 16), self.file(found[2]) if found[2] else bytes.fromhex(found[3])
            first = first if at == end else at
            out[first] = out.get(first, b"") + data
            end = at + len(data)
        return out

    def kill(self):
        super().kill()
        shutil.rmtree(self.folder, ignore_errors=True)


class Message(NamedTuple):
    """Fields of a message in wire order, and the payload."""

    aptid: int
    word1: int = 0x11223344
    length: int = 0
    result: int = 0
    msg_type: int = 0
    msg_class: int = 28
    data_len: int = 0
    module: int = 0
    id: int = 254
    code: int = READ
    slot: int = 1
    model: int = 0
    seq: int = 0
    addr: int = 0
    len: int = 0
    payload: bytes = b""

    def pack(self):
        return HEAD.pack(*self[:-1]) + self.payload + b"\0\0"

    @staticmethod
    def unpack(datagram):
        return Message(*HEAD.unpack_from(datagram), datagram[HEAD.size : -2])


def identity(module=SELF, board=1, low=0):
    return board << 24 | 0x0A0000 | module << 8 | low


def socket_file(number, folder="/run/apipc"):
    return f"{folder}/{number:08x}.sock"


def job(code, path, hor=0, ver=0, kind=0, **fields):
    """The fields of a file command: picture and read-back have a size, an update a type."""
    first = struct.pack("<I", kind) if code == UPDATE else struct.pack("<II", hor, ver)
    return {"code": code, "payload": first + os.fsencode(path) + b"\0", **fields}


class Requester:
    """A process's endpoint; the first free identity of the tools' unless one is given."""

    def __init__(self, own=None, folder="/run/apipc"):
        wait_until(lambda: os.path.isdir(folder))
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        for self.own in [own] if own else [identity(TOOLS, low=low) for low in range(1, 256)]:
            self.path, self.folder = socket_file(self.own, folder), folder
            if not os.path.exists(self.path):
                break
        self.socket.bind(self.path)
        os.chmod(self.path, 0o660)

    def message(self, **fields):
        fields.setdefault("len", len(fields.get("payload", b"")))
        return Message(self.own, **fields)

    def tell(self, to=identity(), **fields):
        self.send(self.message(**fields).pack(), to)

    def try_to_send(self, datagram, to=identity()):
        """Result: false when the daemon's socket is not there, or its queue has no room."""
        try:
            return self.socket.sendto(datagram, socket.MSG_DONTWAIT, socket_file(to, self.folder)) >= 0
        except (BlockingIOError, FileNotFoundError, ConnectionRefusedError):
            return False

    def send(self, datagram, to=identity()):
        """Waits for the daemon's socket, and for room in its queue."""
        if not wait_until(lambda: self.try_to_send(datagram, to)):
            raise AssertionError("the daemon takes no message")

    def receive(self, seconds=PATIENCE):
        """The next message; None when none came in time."""
        self.socket.settimeout(seconds)
        try:
            return Message.unpack(self.socket.recv(70_000))
        except (socket.timeout, BlockingIOError):
            return None

    def ask(self, seconds=PATIENCE, **fields):
        self.tell(**fields)
        return self.receive(seconds)

    def read(self, addr, length, slot=1, model=0, seconds=PATIENCE):
        return self.ask(seconds, addr=addr, len=length, slot=slot, model=model)

    def greeted(self, seconds=PATIENCE):
        """Commands are handled in order: whatever was sent before has been handled when this is true."""
        answer = self.ask(seconds, code=GREETING)
        return answer is not None and answer.code == GREETING and answer.length == 72

    def close(self):
        if os.path.exists(self.path):
            os.unlink(self.path)
        self.socket.close()


class Daemon(Process):
    """rvkd with a recorder in place of sysctl, so that its start is short; `front`: a command that runs it."""

    def __init__(self, *arguments, env=None, front=(), **how):
        lay_tool(f"{RECORDERS}/sysctl", f'printf "%s|" "$@" >> {SYSCTL_RECORD}; echo >> {SYSCTL_RECORD}')
        super().__init__([*front, *program("rvkd"), *arguments], env, **how)

    @property
    def log(self):
        """The newer of its two log files."""
        return text_of(max(LOGS, key=lambda path: os.path.getmtime(path) if os.path.exists(path) else 0))

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def threads(self):
        """Threads by name; each a folder of /proc. Of two the older one: a sanitizer's own is called as the program."""
        folder = f"/proc/{self.pid}/task"
        tids = sorted(os.listdir(folder), key=int, reverse=True)
        return {text_of(f"{folder}/{tid}/comm").strip(): f"{folder}/{tid}" for tid in tids}


class Request(NamedTuple):
    """A request frame's fields, as a card sees them."""

    model: int
    slot: int
    seq: int
    code: int
    addr: int
    len: int
    data: bytes


class PlayedCard:
    """The far end of a link, played by the test itself, for what no card should say: a raw socket on cardN."""

    TO_CARD, TO_HOST = b"\xeb\x90" * 3, b"\x44" * 6

    def __init__(self, link=0):
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
        self.socket.setsockopt(socket.SOL_SOCKET, 33, 1 << 25)  # SO_RCVBUFFORCE
        self.socket.bind((f"card{link}", 0))

    def request(self, seconds=PATIENCE):
        """The next request from the controller; None when none came in time."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            self.socket.settimeout(left)
            try:
                frame, where = self.socket.recvfrom(9000)
            except socket.timeout:
                break
            if where[2] != socket.PACKET_OUTGOING and frame[:6] == self.TO_CARD and frame[14:16] == b"\x55\xaa":
                model, slot, seq, code, addr, length = struct.unpack_from("<HBHBIH", frame, 16)
                return Request(model, slot, seq, code, addr, length, frame[28 : 28 + length])
        return None

    def answer(self, request, data=b"", status=0, length=None, **other):
        """Replies; `other` replaces fields of the request, `length` lies about the data."""
        r = request._replace(**other)
        length = len(data) if length is None else length
        body = struct.pack("<BHBHBIH", status, r.model, r.slot, r.seq, r.code, r.addr, length) + data
        self.send(self.TO_HOST + self.TO_CARD + b"\x07\x00\xaa\x55" + body)

    def send(self, frame):
        """Sends a frame with its checksum behind it."""
        self.socket.send(frame + struct.pack("<H", (0x5555 + sum(frame[16:])) & 0xFFFF))

    def close(self):
        self.socket.close()


class BenchTest(unittest.TestCase):
    """What a test starts by these ends with it, the last started first; a daemon must end with status 0."""

    def cards(self, *options, **how):
        return self._kept(Cards(*options, **how))

    def card(self, link=0):
        card = PlayedCard(link)
        self.addCleanup(card.close)
        return card

    def daemon(self, *arguments, serves=True, **how):
        """Starts a daemon that answers when this returns, unless it shall not be waited for."""
        daemon = self._kept(Daemon(*arguments, **how))
        if serves:
            asking = Requester()
            self.assertTrue(asking.greeted(), daemon.output)
            asking.close()
        return daemon

    def requester(self, own=None):
        requester = Requester(own)
        self.addCleanup(requester.close)
        return requester

    def start(self, name, *arguments, **how):
        return self._kept(Process([*program(name), *map(str, arguments)], **how))

    def _kept(self, process):
        self.addCleanup(process.kill)
        return process

    def assert_clean(self, cards):
        """Ends the cards: nothing came that no controller should send."""
        summary = cards.stop()
        self.assertEqual(set(re.findall(r": refused: (.*)", summary)), {"none"}, summary)


def skip(reason):
    """Ends the whole program as skipped; CI takes no such thing for passed."""
    print(f"SKIP: {reason}")
    sys.exit(77)


def needs(tool):
    if shutil.which(tool) is None:
        skip(f"{tool} is missing: scripts/install-deps ci installs it")


def main():
    """In place of unittest.main(): refuses outside the bench, and a run without a test fails."""
    if os.environ.get("RVK_BENCH") != "1" or not os.path.isdir("/run/rvk-bench"):
        sys.exit(f"{sys.argv[0]} opens links, and outside the bench they are this machine's: run it in scripts/in-bench")
    if not os.access(os.path.join(BIN, "rvkd"), os.X_OK):
        sys.exit("RVK_BIN names no folder with rvkd: run the test by ctest, or set it to build/release/bin")
    result = unittest.main(exit=False).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 and not result.skipped else 1)


def numbers(pattern, text):
    """All whole numbers that the pattern's group finds."""
    return [int(found) for found in re.findall(pattern, text)]
