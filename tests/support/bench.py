# The bench of every test that drives the real programs: cards on link n, with or without a daemon, and requesters.
#
# Programs come from $RVK_BIN and run under $RVK_EMULATOR where that is set. Everything here refuses to work outside
# scripts/in-bench: eth0 would be the machine's own. What a test starts ends with it.
import os
import pathlib
import random
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import unittest

# Tests take these from here.
from peers import COMPANION, FILE_READ, FILE_WRITE, GREETING, READ, SELF, TOOLS, UPDATE, WRITE, WRITE_ACK  # noqa: F401
from peers import EMULATOR, PATIENCE, SANITIZED, TO_CARD, TO_HOST, Message, Requester  # noqa: F401
from peers import identity, job, socket_file, summed, wait_until  # noqa: F401

BIN = os.environ.get("RVK_BIN", "")
RECORDERS = "/run/rvk-bench/recorders"
SYSCTL_RECORD = "/run/rvk-bench/sysctl"  # what the daemon gave to sysctl, a line a call
LOGS = ("/var/log/rvk_log0.txt", "/var/log/rvk_log1.txt")


# A file's text; empty when it is not there.
def text_of(path):
    try:
        return pathlib.Path(path).read_text(encoding="utf-8", errors="replace")
    except OSError:
        return ""


# How many messages may wait at a requester that is made from now on.
def set_queue(messages):
    pathlib.Path("/proc/sys/net/unix/max_dgram_qlen").write_text(str(messages))


# Frames of a capture file.
def frames_in(path):
    with open(path, "rb") as file:
        file.seek(24)
        while head := file.read(16):
            yield file.read(struct.unpack_from("<I", head, 8)[0])


# Bytes that tell where they belong: none is 0, no two seeds alike.
def content(seed, size):
    return random.Random(seed).randbytes(size).replace(b"\0", b"\1")


# A program of ours in the place of one that the daemon runs.
def lay_tool(path, script):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    pathlib.Path(path).write_text(f"#!/bin/sh\n{script}\n")
    os.chmod(path, 0o755)


# Result: what it says.
def ip(line):
    return subprocess.check_output(["ip", *line.split()], text=True)


# The cable of link 0 where there is none.
def lay_cable():
    ip("link add eth0 mtu 9000 type veth peer name card0 mtu 9000")
    ip("link set eth0 up")
    ip("link set card0 up")
    assert wait_until(lambda: len(re.findall("card0.* state UP ", ip("-o link show up"))) == 2)


def program(name):
    return [*EMULATOR, os.path.join(BIN, name)]


def written_to(file):
    return os.pread(file.fileno(), 1 << 26, 0).decode(errors="replace")


# A program under test, its two streams in one file or (`apart`) in two; gone with its owner.
class Process:
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

    output = property(lambda self: written_to(self.out))
    errors = property(lambda self: written_to(self.err))

    def alive(self):
        return self.child.poll() is None

    def shows(self, text):
        return wait_until(lambda: text in self.output)

    # Sends a signal, waits. Result: exit status, or minus the signal that killed it; None: it still runs.
    def end(self, number=None, seconds=PATIENCE):
        if number is not None and self.alive():
            self.child.send_signal(number)
        wait_until(lambda: not self.alive(), seconds)
        return self.child.returncode

    def kill(self):
        if self.alive():
            self.child.kill()
            self.child.wait()
        self.out.close()
        self.err.close()


# rvk-cardsim on one link or several; its state and its last frames are kept below `folder`.
class Cards(Process):
    def __init__(self, *options, links=(0,), kept=True):
        self.folder = tempfile.mkdtemp(dir="/dev/shm")
        named = [word for n in links for word in ("--link", f"card{n}")]
        files = ["--pcap", f"{self.folder}/pcap", *(["--state", self.folder] if kept else [])]
        urgent = [] if "--priority" in options else ["--priority", "50"]  # a late answer is another outcome
        super().__init__([*program("rvk-cardsim"), *named, *files, *urgent, *map(str, options)])
        assert self.shows("ready\n"), f"the cards did not start: {self.output}"

    # Ends them. Result: their summary; the state is written then, which may be all pictures of a demo.
    def stop(self):
        assert self.end(signal.SIGTERM, 4 * PATIENCE) == 0, f"the cards ended badly: {self.output}"
        return self.output.partition("ready\n")[2]

    def file(self, name):
        return pathlib.Path(self.folder, name).read_bytes()

    # What was written to a card's addresses, as its state has it: address to bytes, a stretch an entry.
    def held(self, slot=1, model=0):
        out, first, end = {}, None, None
        for line in text_of(os.path.join(self.folder, f"card0-model{model}-slot{slot}.txt")).splitlines():
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


# rvkd with a recorder in place of sysctl, so that its start is short, and without the machine's disks; `front`: a
# command that runs it.
class Daemon(Process):
    def __init__(self, *arguments, env=None, front=(), **how):
        lay_tool(f"{RECORDERS}/sysctl", f'printf "%s|" "$@" >> {SYSCTL_RECORD}; echo >> {SYSCTL_RECORD}')
        lay_tool(f"{RECORDERS}/sync", ":")
        super().__init__([*front, *program("rvkd"), *arguments], env, **how)

    def fds(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    # Threads by name; each a folder of /proc. Of two the older one: a sanitizer's own is called as the program.
    def threads(self):
        folder = f"/proc/{self.pid}/task"
        tids = sorted(os.listdir(folder), key=int, reverse=True)
        return {text_of(f"{folder}/{tid}/comm").strip(): f"{folder}/{tid}" for tid in tids}

    # Result: its id, once it has that name, which it gives itself.
    def thread(self, name):
        wait_until(lambda: name in self.threads())
        return int(self.threads()[name].rpartition("/")[2])


# What a test starts by these ends with it, the last started first; a daemon must end with status 0.
class BenchTest(unittest.TestCase):
    def cards(self, *options, **how):
        return self._kept(Cards(*options, **how))

    # Starts a daemon that answers when this returns, unless it shall not be waited for.
    def daemon(self, *arguments, serves=True, **how):
        daemon = self._kept(Daemon(*arguments, **how))
        if serves:
            self.assertTrue(self.requester().greeted(), daemon.output)
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

    # Ends the cards: nothing came that no controller should send.
    def assert_clean(self, cards):
        summary = cards.stop()
        self.assertEqual(set(re.findall(r": refused: (.*)", summary)), {"none"}, summary)


# Without it the whole program ends as skipped; CI takes no such thing for passed.
def needs(tool):
    if shutil.which(tool) is None:
        print(f"SKIP: {tool} is missing: scripts/install-deps ci installs it")
        sys.exit(77)


# In place of unittest.main(): refuses outside the bench, and a run without a test fails.
def main():
    if os.environ.get("RVK_BENCH") != "1" or not os.path.isdir("/run/rvk-bench"):
        sys.exit(f"{sys.argv[0]} opens links, and outside the bench they are this machine's: run it in scripts/in-bench")
    if not os.access(os.path.join(BIN, "rvkd"), os.X_OK):
        sys.exit("RVK_BIN names no folder with rvkd: run the test by ctest, or set it to build/release/bin")
    result = unittest.main(exit=False).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 and not result.skipped else 1)
