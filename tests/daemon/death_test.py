# The end of the process: in every situation and by every signal with status 0, and with its last words in the log.
import ctypes
import fcntl
import itertools
import os
import random
import re
import signal
import time

import bench
from bench import FILE_WRITE, GREETING, LOGS, UPDATE, WRITE, WRITE_ACK, text_of
from words import DEADLY, fault_in_last_words

THREADS = ["rvkd", "rvk-recv", "rvk-check", "rvk-ipc", "rvk-file", "rvk-status"]
# The signals that matter, by thread: terminations go to one that never holds a lock, ticks to the check thread.
RECEIVERS = {**dict.fromkeys([*THREADS, "rvk-death"], [11]), "rvk-check": [11, 14], "rvk-signal": [2, 3, 11, 15]}
TGKILL = {"aarch64": 131, "armv7l": 268}.get(os.uname().machine, 234)
TOOL = "/usr/vexo/bin/mcu_isp"


def mask(status, key):
    found = re.search(rf"{key}:\s*(\w+)", text_of(status))
    return [n for n in (2, 3, 11, 13, 14, 15, 17, 25) if found and int(found[1], 16) >> n - 1 & 1]


def ignore_and_block():
    for number in (signal.SIGCHLD, signal.SIGPIPE, signal.SIGALRM, *DEADLY[:3]):
        signal.signal(number, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_SETMASK, signal.valid_signals())


class Death(bench.BenchTest):
    closed = itertools.cycle([range(0, 1), range(1, 2), range(2, 3), range(0, 3)])

    # A daemon that serves and whose start is over.
    def idle(self, **how):
        self.d = self.daemon("-d", "-f", **how)

        def receivers():
            blocked = {name: mask(f"{folder}/status", "SigBlk") for name, folder in self.d.threads().items()}
            return {name: [n for n in (2, 3, 11, 13, 14, 15, 25) if n not in blocked[name]] for name in blocked}

        self.assertTrue(bench.wait_until(lambda: receivers() == RECEIVERS), receivers())

    # Situations: each leaves the daemon in the midst of it.
    def flooded(self):
        self.cards("--loss", "0.1", "--duplicate", "0.1", "--wrong-ack", "0.2")
        self.idle()
        me = self.requester()
        for n in range(random.randrange(600)):
            me.tell(code=[GREETING, WRITE, 0x55, WRITE_ACK][n % 4], addr=0x1000, payload=b"1234")

    def waiting_for_a_card(self):
        self.cards("--loss", "1.0")
        self.idle()
        me = self.requester()
        for _ in range(20):  # each takes some 0.3 s
            me.tell(slot=2, addr=0x1000, len=4)

    def in_a_picture(self):
        self.cards()
        self.idle()
        me = self.requester()
        for _ in range(3):
            me.tell(**bench.job(FILE_WRITE, "/none", 3840, 2160, addr=3))
        time.sleep(random.random() / 4)

    def while_a_tool_runs(self):
        bench.lay_tool(TOOL, "echo $$ > /run/tool; exec sleep 60")
        self.idle()
        self.requester().tell(**bench.job(UPDATE, TOOL, kind=0x16))
        self.assertTrue(bench.wait_until(lambda: text_of("/run/tool")))
        self.addCleanup(os.kill, int(text_of("/run/tool")), signal.SIGKILL)
        os.unlink("/run/tool")

    # Neither who reads what it prints nor who has gone away keeps a thread.
    def unread(self, gone=False):
        reader, writer = os.pipe()
        fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
        self.idle(stdout=writer)
        os.close(writer)
        (os.close if gone else lambda fd: self.addCleanup(os.close, fd))(reader)
        me = self.requester()
        for _ in range(300):
            me.tell(msg_type=2)
            self.assertTrue(me.greeted())

    def with_a_reader_that_is_gone(self):
        self.unread(gone=True)

    # What the daemon opens later must not get the number of a standard stream.
    def without_a_stream(self):
        closed = next(self.closed)
        self.idle(preexec_fn=lambda: [os.close(fd) for fd in closed])
        self.assertEqual({os.readlink(f"/proc/{self.d.pid}/fd/{fd}") for fd in closed}, {"/dev/null"})

    def with_signals_ignored_and_blocked(self):
        self.idle(preexec_fn=ignore_and_block)
        self.assertNotIn(signal.SIGCHLD, mask(f"/proc/{self.d.pid}/status", "SigIgn"))

    def dying_already(self):
        self.idle()
        self.d.child.send_signal(random.choice(DEADLY))

    # By a signal to the process, or by a fault in a thread at some moment of its work.
    def end(self, how):
        if how in DEADLY:
            return self.d.end(how)
        ctypes.CDLL(None).syscall(TGKILL, self.d.pid, self.d.thread(how), signal.SIGSEGV)
        return self.d.end()

    def test_in_every_situation_by_every_signal(self):
        plain = [self.idle, self.flooded, self.waiting_for_a_card, self.in_a_picture, self.while_a_tool_runs, self.unread]
        started = [self.with_a_reader_that_is_gone, self.without_a_stream, self.with_signals_ignored_and_blocked]
        for situation in [*plain, *started, *[self.dying_already] * 4]:
            faults = THREADS * (2 if bench.SANITIZED else 4) if situation == self.flooded else []
            for how in [*DEADLY, *faults]:
                with self.subTest(f"{situation.__name__}, {how}"):
                    self.doCleanups()
                    situation()
                    self.assertEqual(self.end(how), 0)
                    wrong = fault_in_last_words(text_of(LOGS[0]))
                    self.assertFalse(wrong, wrong)


if __name__ == "__main__":
    bench.main()
