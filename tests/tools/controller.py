# The controller's side of link 0, played by a test that sends cards whatever it likes and looks at what they answer.
#
# A row has steps with `;` between them. A frame should be answered with status 0. Behind it `!` says: with status 1 (`!!`:
# 2); `-`: not at all; `=11/5/0`: so, as code, status, len and data, or as `bad` when no controller would take it, or not at
# all. `=> TEXT` at the end: the cards' state comes to hold this line.
#
#     at M.S                 what follows is for this model and slot; model N of the N-th row and slot 1 at its begin
#     w A BYTES  p A BYTES   writes, acknowledged and plain        r A LEN   a read; addresses and bytes are hexadecimal
#     put WxH BUFFER   start   end   data LEN…                     a picture through the demo's port
#     image BYTES      regs N…   piece N…    firmware: its registers from 1 (or all), its pieces; 3-1 is short by a byte,
#                                            3+1 long, 3^5 has a bit of byte 5 wrong
# Of w, p and r a word `@OFF:BYTE` changes a byte of the frame, `cut:N` its size, `size:N` too, with the sum made right, and
# `sum` makes that right behind other changes.
import re
import signal
import socket
import struct

import bench
from bench import TO_CARD, TO_HOST, summed

CODES = {"r": 0x00, "p": 0x01, "w": 0x11}
CONTROL, DATA = 0x7080, 0x60000
REGISTERS = (0x11F00000, 0x11F00004, 0x11F00008, 0x11F0000C, 0x11F00010, 0x18200000, 0x18200002)
PIECES, PIECE = 0x18000000, 1024
QUIET = 0.02  # seconds: how long is listened for what should not come; it is counted at the cards' end too


# A reply as code/status/len, or `bad`.
def seen(frame):
    if len(frame) < 31 or frame[:12] != TO_HOST + TO_CARD or frame[14:16] != b"\xaa\x55":
        return "bad"
    status, _, _, _, code, _, size = struct.unpack_from("<BHBHBIH", frame, 16)
    good = len(frame) == 29 + size + 2 and summed(frame[:-2]) == frame and size <= 2000
    data = f":{frame[29:-2].hex()}" if 0 < size <= 8 else ""
    return f"{code:02x}/{status}/{size}{data}" if good else "bad"


# Bytes in hexadecimal; 11_aa*3 is 11aaaaaa.
def bytes_in(text):
    parts = [part.partition("*") for part in text.split("_")]
    return b"".join(bytes.fromhex(part) * int(times or 1) for part, _, times in parts)


# A firmware file: head and image.
def file_of(size):
    image = bench.content(size, size)
    head = bytearray(256)
    struct.pack_into("<I", head, 0, size)
    struct.pack_into("<H", head, 130, (0x5555 + sum(image)) & 0xFFFF)
    return bytes(head) + image


class Controller:
    def __init__(self, cards, model):
        self.cards, self.model, self.slot, self.seq, self.sent, self.file = cards, model, 1, 0, 0, b""
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))
        self.socket.bind(("eth0", 0))

    def kill(self):
        self.socket.close()

    def play(self, row):
        row, _, state = row.partition(" => ")
        for step in row.split(";"):
            step, told, answer = step.partition("=")
            frames = self.frames_of(step.split())
            loud = [(frame[21], mark) for frame, mark in frames if mark != "-" and frame[21] != CODES["p"]]
            expected = [f"{code:02x}/{len(mark)}/0" if mark else f"{code:02x}/0/" for code, mark in loud]
            self.exchange(step, [frame for frame, _ in frames], answer.split() if told else expected)
        if state:
            path = f"{self.cards.folder}/card0-model{self.model}-slot{self.slot}.txt"
            self.cards.child.send_signal(signal.SIGUSR1)
            held = bench.wait_until(lambda: f"\n{state}" in "\n" + bench.text_of(path))
            assert held, f"{state!r} is not what the cards hold: {bench.text_of(path)}"

    def exchange(self, step, frames, expected):
        for frame in frames:
            self.socket.send(frame)
        got = [self.reply(bench.PATIENCE) for _ in expected]
        more = self.reply(0 if expected else QUIET)
        assert more is None, f"`{step}` was answered with {more} beside {got}"
        good = all(g is not None and g.startswith(e) and (e.endswith("/") or g == e) for g, e in zip(got, expected))
        assert good, f"`{step}` was answered with {got}, not with {expected}"

    # The next frame from the cards, shown; None when none came in time.
    def reply(self, seconds):
        self.socket.settimeout(seconds)
        try:
            while True:
                frame, where = self.socket.recvfrom(9000)
                if where[2] != socket.PACKET_OUTGOING:
                    return seen(frame)
        except (socket.timeout, BlockingIOError):
            return None

    # Result: frames, each with its mark.
    def frames_of(self, words):
        marked = [re.fullmatch("(.*?)(!*|-)", word).groups() for word in words]
        (verb, mark), arguments = marked[0], marked[1:]
        plain = [argument for argument, _ in arguments]
        last = next((m for _, m in arguments if m), mark)
        if verb in CODES:
            return [(self.tampered(verb, *plain[:2], plain[2:]), last)]
        if verb == "at":
            self.model, self.slot = map(int, plain[0].split("."))
        elif verb == "image":
            self.file = file_of(int(plain[0]))
        elif verb in ("put", "start", "end"):
            self.sent = 0
            block = struct.pack("<HHB", *map(int, re.findall(r"\d+", " ".join(plain)))) if verb == "put" else b""
            return [(self.write(CONTROL, bytes([verb == "start"]) + block), last)]
        else:
            numbers = arguments or [(n, "") for n in range(1, 8)]
            each = {"data": self.data, "piece": self.piece, "regs": self.register}[verb]
            return [(each(number), m) for number, m in numbers]
        return []

    def data(self, size):
        at, self.sent = self.sent, self.sent + int(size)
        return self.write(DATA, bench.content(16, self.sent)[at:])

    def piece(self, text):
        number, change, by = re.fullmatch(r"(\d+)(?:([-+^])(\d+))?", text).groups()
        piece = bytearray(self.file[(int(number) - 1) * PIECE : int(number) * PIECE])
        if change == "^":
            piece[int(by)] ^= 1
        elif change:
            piece = piece[: -int(by)] if change == "-" else piece + b"\1" * int(by)
        return self.write(PIECES, bytes(piece))

    def register(self, number):
        size = struct.pack("<I", len(self.file))
        values = (size, bytes(4), b"\1\0\0\0", size, b"\0", b"\1\2", bytes([0, 0, self.slot]))
        return self.write(REGISTERS[int(number) - 1], values[int(number) - 1])

    def write(self, addr, data):
        return summed(self.bare("w", addr, data, len(data)))

    def bare(self, verb, addr, data, size):
        self.seq += verb != "p"
        head = struct.pack("<HBHBIH", self.model, self.slot, self.seq if verb != "p" else 0, CODES[verb], addr, size)
        return TO_CARD + TO_HOST + b"\x07\0\x55\xaa" + head + data.ljust(64, b"\0")

    def tampered(self, verb, addr, what, changes):
        data = b"" if verb == "r" else bytes_in(what)
        frame = summed(self.bare(verb, int(addr, 16), data, int(what) if verb == "r" else len(data)))
        for change in changes:
            key, _, value = change.partition(":")
            if key == "sum":
                frame = summed(frame[:-2])
            elif key == "cut":
                frame = frame[: int(value)]
            elif key == "size":
                frame = summed(frame[:-2].ljust(int(value), b"\0")[: int(value) - 2])
            elif key:  # otherwise the mark stood alone
                place = int(key.removeprefix("@"))
                frame = frame[:place] + bytes.fromhex(value) + frame[place + len(value) // 2 :]
        return frame
