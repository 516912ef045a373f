"""What one requester's work costs another: a register read of a card that answers, alone and beside each kind of work.

    scripts/bench fairness [WORD…]        only rows that have such a word in their name

Prints a table in Markdown: median and longest of the reads, their ratio to the same read alone in the same run, the longest
time between two of the daemon's check passes, what else the row looks at. Each row with the daemon's threads where a board
has them, and with all four on one processor. A row that misses a goal is run again, at most twice: what else the machine does
holds a reader up now and then. Exit status 1 when it misses it each time: a line names row, figure and goal.

Slot 2 is the card that answers. Slot 1 is silent while a row says so: its frames then go to another link's card, where
nobody answers and the kernel stamps them. tests/daemon/fairness_test.py has two of them, small.
"""
import contextlib
import ctypes
import json
import os
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

import bench
from bench import FILE_READ, FILE_WRITE, PATIENCE, WRITE_ACK, job, wait_until

LINK, WORK = ("rvk-recv", "rvk-check"), ("rvk-ipc", "rvk-file")
BOARD, ONE = "as on a board", "on one processor"
LAYOUTS = {BOARD: {**dict.fromkeys(LINK, 1), **dict.fromkeys(WORK, 0)}, ONE: dict.fromkeys(LINK + WORK, 1)}
SILENT, ALIVE = 1, 2  # slots
EXPIRY_MS = 90  # between two sends of a write to slot 1 that is not answered
DEMO_FRAMES = 9 * 23_699
TRIES = 3


# The bench with what these rows need; `me` reads, others work.
class Field(bench.BenchTest):
    queue = 64  # messages that wait for a process, as the package sets it

    def up(self, layout, *options, arguments=(), **how):
        with open("/proc/sys/net/unix/max_dgram_qlen", "w", encoding="ascii") as file:
            file.write(str(self.queue))
        # Cards take no time of the board's processors: below all threads of the link, but above the reader.
        self.at = self.cards("--priority", 60, *options, kept=False)
        self.d, self.me = self.daemon(*arguments, **how), self.requester()
        for name, processor in LAYOUTS[layout].items():
            os.sched_setaffinity(self.d.thread(name), {processor})

    def wait_for_demo(self):
        def is_over():
            status = self.status()
            return status["links"][0]["frames"]["sent"] > DEMO_FRAMES and not status["transfer_total_bytes"]["picture"]

        assert wait_until(is_over, 4 * PATIENCE)  # the soak starts eight at once

    # The daemon's figures; with `fresh`, those that it takes from now on.
    def status(self, fresh=False):
        now, found = time.clock_gettime(time.CLOCK_BOOTTIME) * 1000, {}

        def taken():
            found.update(json.loads(bench.text_of("/run/rvkd/status.json") or "{}"))
            return found.get("pid") == self.d.pid and (not fresh or found["boot_ms"] > now)

        assert wait_until(taken)
        return found

    # Reads until the work is over. Result: what the row shows.
    def beside(self, work, *given, **named):
        figures, times, reads, gaps = {}, [], 0, {}
        before = time.clock_gettime(time.CLOCK_BOOTTIME) * 1000

        def look(fresh=False):
            status = self.status(fresh)
            gaps[status["boot_ms"]] = status["links"][0]["check_gap_us"] / 1000

        with work(self, figures, *given, **named) as is_over:
            while not reads or not is_over():
                begin = time.monotonic()
                answer = self.me.read(0x2000, 16, slot=ALIVE)
                times += [(time.monotonic() - begin) * 1000] if answer is not None and answer.result == 0 else []
                reads += 1
                look()
        look(fresh=True)
        self.assertTrue(times, "no read is answered")
        return {"reads": reads, "median": statistics.median(times), "longest": max(times),
                "check gap": max(gap for at, gap in gaps.items() if at > before), "failed": reads - len(times), **figures}


def tc(line):
    subprocess.check_call(["tc", *line.split()], stderr=subprocess.DEVNULL)  # it warns of what is meant


@contextlib.contextmanager
def running(body):
    thread = threading.Thread(target=body)
    thread.start()
    try:
        yield thread
    finally:
        thread.join()


# Slot 1 is cut off, whatever the cards are. Gives where its frames arrive, and their stamps.
@contextlib.contextmanager
def silence():
    tc("qdisc add dev eth0 clsact")
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3)) as there:
        there.setsockopt(socket.SOL_SOCKET, 35, 1)  # SO_TIMESTAMPNS
        there.setsockopt(socket.SOL_SOCKET, 33, 1 << 25)  # SO_RCVBUFFORCE
        there.bind(("card2", 0))
        tc(f"filter add dev eth0 egress protocol all u32 match u8 {SILENT} 0xff at 4 action mirred egress redirect dev eth2")
        try:
            yield there
        finally:
            tc("qdisc del dev eth0 clsact")


# Most ms by which a write's third send was later after the second than it should be, by the frames' stamps (in the time after
# the first is what its sender waited for a processor), and of how many.
def most_late(there):
    sent = {}
    with contextlib.suppress(BlockingIOError):
        while True:
            frame, (stamp, *_), *_ = there.recvmsg(9000, 64, socket.MSG_DONTWAIT)
            seconds, ns = struct.unpack("qq", stamp[2])
            sent.setdefault(frame[18:26], []).append(seconds * 1000 + ns / 1e6)
    late = [times[2] - times[1] - EXPIRY_MS for times in sent.values() if len(times) == 3]
    return max(late), len(late)


# What others do meanwhile. Each begins its work and gives a function that says whether it is over; what it has seen
# itself it adds to the row's figures.
@contextlib.contextmanager
def nothing(field, figures, seconds=2.0):
    end = time.monotonic() + seconds
    yield lambda: time.monotonic() > end


@contextlib.contextmanager
def read_back(field, figures, hor, ver, slot=ALIVE, seconds=600.0):
    end, path = time.monotonic() + seconds, f"/run/back{time.monotonic_ns()}"

    def is_whole():  # by its pages: it is written from its end on
        return os.path.exists(f"{path}.bmp") and os.stat(f"{path}.bmp").st_blocks * 512 >= hor * ver * 4

    with silence() if slot == SILENT else contextlib.nullcontext():
        field.requester().tell(**job(FILE_READ, path, hor, ver, slot=slot))
        yield lambda: is_whole() or time.monotonic() > end
    assert wait_until(is_whole)


# Pictures, one after the other, and every 10 ms a write that nobody answers.
@contextlib.contextmanager
def pictures(field, figures, hor, ver, count):
    path, results, stop = f"/run/picture{hor}", [], threading.Event()
    with open(path, "wb") as file:
        file.write(bench.content(hor, hor * ver * 4))
    puts, writes = field.requester(), field.requester()

    def put():
        results.extend(puts.ask(**job(FILE_WRITE, path, hor, ver, slot=ALIVE, addr=3)).result for _ in range(count))

    def write():
        for n in range(1_000_000):
            writes.tell(code=WRITE_ACK, slot=SILENT, addr=0x100 + 4 * n, payload=b"1234")
            while writes.receive(0):
                pass
            if stop.wait(0.01):
                break

    with silence() as there:
        with running(write):
            with running(put) as putting:
                yield lambda: not putting.is_alive()
            stop.set()
        time.sleep(0.3)
        figures["resends late, ms"], figures["resends"] = most_late(there)
    figures["pictures failed"] = sum(map(bool, results))
    os.unlink(path)


def write_in_turn(requesters, writes):
    for n in range(writes):
        for who in requesters:
            who.tell(code=WRITE_ACK, slot=SILENT, addr=0x100 + 4 * n, payload=b"1234")


# Writes that nobody answers, whose requester reads one report per `pause`; beside it others that never read.
@contextlib.contextmanager
def given_up(field, figures, writes, pause, deaf=0, deaf_writes=300):
    asking, reports, others = field.requester(), set(), [field.requester() for _ in range(deaf)]
    end = time.monotonic() + (3 if deaf else 0)

    def read():
        while len(reports) < writes and (report := asking.receive(12)):
            reports.add(report.addr)
            time.sleep(pause)

    with silence():
        write_in_turn(others, deaf_writes)
        write_in_turn([asking], writes)
        with running(read) as reading:
            yield lambda: not reading.is_alive() and time.monotonic() > end
    figures["reports missing"] = writes - len(reports)
    for who in others:
        who.close()  # what is kept for them goes


# Frames that the daemon drops for this cause, by the kernel's call for many at once.
@contextlib.contextmanager
def frames(field, figures, cause, content, rate=100_000, seconds=3.0):
    frame = ctypes.create_string_buffer(content, 64)
    piece = (ctypes.c_size_t * 2)(ctypes.addressof(frame), 64)
    many = (ctypes.c_size_t * 8 * 128)(*[(0, 0, ctypes.addressof(piece), 1)] * 128)  # struct mmsghdr, 64 bytes each
    stop, before = threading.Event(), field.status(fresh=True)["links"][0]
    begin = time.monotonic()

    def flood():
        call, sent = ctypes.CDLL(None).sendmmsg, 0
        with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as out:
            out.bind(("card0", 0))
            while not stop.is_set():
                due = min(int((time.monotonic() - begin) * rate) - sent, len(many))
                sent += max(call(out.fileno(), many, due, 0), 0) if due > 0 else 0
                time.sleep(0.0002)

    with running(flood):
        yield lambda: time.monotonic() > begin + seconds
        stop.set()
    after = field.status(fresh=True)["links"][0]
    lost = after["kernel_dropped"] - before["kernel_dropped"]
    figures["frames a second"] = round((after["dropped"][cause] - before["dropped"][cause] + lost) / seconds)
    figures["lost in the kernel"] = lost


# Commands that nobody knows, as many as the daemon takes.
@contextlib.contextmanager
def unknown_commands(field, figures, seconds=3.0):
    who, stop, end = field.requester(), threading.Event(), time.monotonic() + seconds
    datagram = who.message(code=0x55, payload=b"\n" * 1000).pack()
    before = field.status(fresh=True)["commands"]["other"]

    def flood():
        while not stop.is_set():
            if not who.try_to_send(datagram):
                time.sleep(0.0002)

    with running(flood):
        yield lambda: time.monotonic() > end
        stop.set()
    figures["commands a second"] = round((field.status(fresh=True)["commands"]["other"] - before) / seconds)
    figures["log, MB"] = sum(os.path.getsize(log) for log in bench.LOGS if os.path.exists(log)) / 1e6


# A pipe that is full: the end that nobody reads, and the other.
def full_pipe():
    out, into = os.pipe()
    os.set_blocking(into, False)
    for size in 4096, 1:
        with contextlib.suppress(BlockingIOError):
            while os.write(into, b"." * size):
                pass
    os.set_blocking(into, True)
    os.set_blocking(out, False)
    return out, into


# Goals: a figure's most. "exchanges" is the longest read, in longest ones alone; what ends in BOARD holds in that layout, for
# on one processor a file job is above the link's threads.
FAIR = {"failed": 0, "longest": 50, "check gap": 30, "reports missing": 0}
TAKES_TURNS = {"failed": 0, "exchanges": 3, "check gap": 30}
PICTURE = {"failed": 0, "pictures failed": 0, f"resends late, ms {BOARD}": 20, f"check gap {BOARD}": 30}
ALONE = ("alone", (nothing,), {"failed": 0})
FOREIGN = b"\xff" * 6 + b"\x02" * 6 + b"\x88\xb5" + bytes(50)
WRONG_SUM = bench.TO_HOST + bench.TO_CARD + b"\0\0\xaa\x55" + bytes(48)
GROUPS = [  # options of the cards and of the daemon; rows
    ([], [], [
        ALONE,
        ("a read-back of 1280 × 720", (read_back, 1280, 720), TAKES_TURNS),
        ("a read-back of a silent card", (read_back, 64, 64, SILENT, 5), {"failed": 0, "longest": 1000, "check gap": 30}),
        ("3 pictures of 3840 × 2160", (pictures, 3840, 2160, 3), PICTURE),
        ("a picture of 7680 × 4320", (pictures, 7680, 4320, 1), PICTURE),
        ("300 writes given up, a report read per 15 ms", (given_up, 300, 0.015), FAIR),
        ("1,500 writes given up, a report read per 3 ms", (given_up, 1500, 0.003), FAIR),
        ("20 that never read, 300 writes given up each", (given_up, 0, 0, 20), FAIR),
        # A frame that the kernel has no space for may be an answer, so that its read fails: see docs/operation.md, "Buffers".
        ("100,000 foreign frames a second", (frames, "not_ours", FOREIGN), {"longest": 50})]),
    (["--delay", "1.0", "--delay-ms", 5], [], [
        ("alone, 5 ms an answer", (nothing,), {"failed": 0}),
        ("a read-back of 640 × 360, 5 ms an answer", (read_back, 640, 360), TAKES_TURNS)]),
    ([], ["-d"], [
        ("300 writes given up, output and errors not read", (given_up, 300, 0.015), FAIR)]),
    ([], ["-f"], [
        ("unknown commands without pause", (unknown_commands,), {"failed": 0, "longest": 50, "log, MB": 8}),
        ("100,000 frames with a wrong sum a second", (frames, "checksum", WRONG_SUM), {"longest": 50})]),
]


# Prints a row. Result: what of it misses its goal.
def show(layout, name, figures, alone, goals):
    also = ", ".join(f"{key} {round(value, 1)}" for key, value in [*figures.items()][5 if not figures["failed"] else 4:])
    ratios = [figures[key] / alone[key] for key in ("median", "longest")]
    print(f"| {layout} | {name} | {figures['reads']} | {figures['median']:.3f} | {ratios[0]:.1f} | {figures['longest']:.1f} "
          f"| {ratios[1]:.1f} | {figures['check gap']:.1f} | {also} |", flush=True)
    figures = {**figures, "exchanges": ratios[1]}
    figures.update({f"{key} {layout}": value for key, value in figures.items()})
    return [f"{layout}, beside {name}: {key} {figures[key]:.1f}, goal: at most {most}"
            for key, most in goals.items() if figures.get(key, 0) > most]


def main(words):
    if os.environ.get("RVK_BENCH") != "1":
        sys.exit("it opens links and starts rvkd: run it by scripts/bench fairness, inside scripts/in-bench")
    os.sched_setscheduler(0, os.SCHED_FIFO | os.SCHED_RESET_ON_FORK, os.sched_param(50))  # below the daemon
    missed, shown = [], 0
    print("| threads | beside | reads | median, ms | × alone | longest, ms | × alone | check gap, ms | also |")
    print("|---|---|---|---|---|---|---|---|---|")
    for options, arguments, rows in GROUPS:
        chosen = [row for row in rows if not words or any(word in row[0] for word in words)]
        for layout in LAYOUTS if chosen else ():
            field, pipes = Field(), {stream: full_pipe() for stream in ("stdout", "stderr") if arguments}
            field.up(layout, *options, arguments=arguments, **{stream: pipe[1] for stream, pipe in pipes.items()})
            field.wait_for_demo()
            alone = field.beside(nothing)
            for name, work, goals in chosen:
                for _ in range(TRIES):
                    figures = alone if work[0] is nothing else field.beside(*work)
                    if not (wrong := show(layout, name, figures, alone, goals)):
                        break
                missed += wrong
                shown += 1
            field.doCleanups()
    print(*missed, sep="\n", file=sys.stderr)
    sys.exit(1 if missed or not shown else 0)


if __name__ == "__main__":
    main(sys.argv[1:])
