# The end of the process: in every situation and by every signal with status 0, and with its last words in the log.
import ctypes
import os
import random
import re
import signal
import subprocess

import bench
from bench import FILE_READ, FILE_WRITE, GREETING, READ, UPDATE, WRITE, WRITE_ACK, text_of
from words import DEADLY, SANITIZER, fault_in_last_words

THREADS = ["rvkd", "rvk-recv", "rvk-check", "rvk-ipc", "rvk-file", "rvk-status"]
# The signals that matter, by thread: terminations go to one that never holds a lock, ticks to the check thread.
RECEIVERS = {**dict.fromkeys([*THREADS, "rvk-death"], [11]), "rvk-check": [11, 14], "rvk-signal": [2, 3, 11, 15]}
TGKILL = {"aarch64": 131, "armv7l": 268}.get(os.uname().machine, 234)
TOOL = "/usr/vexo/bin/mcu_isp"


def mask(status, key):
    found = re.search(rf"{key}:\s*(\w+)", text_of(status))
    return [n for n in range(1, 32) if found and int(found[1], 16) >> n - 1 & 1]


class Death(bench.BenchTest):
    # A daemon that serves and whose start is over.
    def up(self, without=(), **how):
        self.d = self.daemon("-d", **how)
        wanted = {name: signals for name, signals in RECEIVERS.items() if name not in without}

        def receivers():
            blocked = {name: mask(f"{folder}/status", "SigBlk") for name, folder in self.d.threads().items()}
            return {name: [n for n in (2, 3, 11, 13, 14, 15) if n not in blocked[name]] for name in blocked}

        self.assertTrue(bench.wait_until(lambda: receivers() == wanted), receivers())

    # Situations: each leaves the daemon in the midst of it.
    def idle(self):
        self.up()

    def flooded(self):
        self.up()
        me = self.requester()
        for n in range(random.randrange(600)):
            me.tell(code=[GREETING, WRITE, 0x55, WRITE_ACK][n % 4], addr=0x1000, payload=b"1234")

    def flooded_with_cards(self):
        self.cards("--loss", "0.1", "--duplicate", "0.1", "--wrong-ack", "0.2")
        self.flooded()

    # The card answers until it is asked this.
    def asking(self, addr, fields):
        card = self.card()
        self.up()
        self.requester().tell(**fields)
        while (asked := card.request()).addr != addr:
            card.answer(asked, bytes(asked.len) if asked.code == READ else b"")

    def waiting_for_a_card(self):
        self.asking(0x1000, dict(slot=2, addr=0x1000, len=4))

    def in_a_picture(self):
        self.asking(0x40000, bench.job(FILE_WRITE, "/none", 3840, 2160, addr=3))

    def in_a_read_back(self):
        self.asking(0xB0000, bench.job(FILE_READ, "/root/back", 640, 480))

    def in_an_update(self):
        subprocess.check_call("head -c 5000 /dev/zero > /root/fw.bin", shell=True)
        self.asking(0x18000000, bench.job(UPDATE, "/root/fw.bin", kind=0x1A))

    def while_a_tool_runs(self):
        bench.lay_tool(TOOL, "> /run/tool; sleep 60")
        self.up()
        self.requester().tell(**bench.job(UPDATE, TOOL, kind=0x16))
        self.assertTrue(bench.wait_until(lambda: os.path.exists("/run/tool")))
        os.unlink("/run/tool")

    def without_a_link(self):
        subprocess.check_call(["ip", "link", "del", "eth0"])
        self.up(without=("rvk-recv", "rvk-check"))
        bench.lay_cable()

    def without_its_endpoint(self):
        self.d = self.daemon("-d", serves=False, env={"APIPC_DIR": "/proc/none"})
        self.assertTrue(self.d.shows("endpoint 010a3b00 in /proc/none refused: "))

    def dying_already(self):
        self.up()
        self.d.child.send_signal(random.choice(DEADLY))

    def test_in_every_situation_by_every_signal(self):
        plain = [self.idle, self.flooded, self.flooded_with_cards, self.without_a_link, self.without_its_endpoint]
        busy = [self.waiting_for_a_card, self.in_a_picture, self.in_a_read_back, self.in_an_update, self.while_a_tool_runs]
        for situation in [*plain, *busy, *[self.dying_already] * 4]:
            for number in DEADLY:
                with self.subTest(f"{situation.__name__}, {number.name}"):
                    situation()
                    self.assertEqual(self.d.end(number), 0)
                    self.assertEqual(fault_in_last_words(self.d.output), "", self.d.output[-3000:])
                    self.doCleanups()

    # A fault in a thread at some moment of its work: status 0 in any case; words unless it hits it within the log.
    def test_a_fault_in_any_thread(self):
        for name in THREADS * (2 if bench.SANITIZED else 4):
            with self.subTest(name):
                idle = name in ("rvkd", "rvk-status")
                (self.idle if idle else self.flooded_with_cards)()
                thread = int(self.d.threads()[name].rpartition("/")[2])
                ctypes.CDLL(None).syscall(TGKILL, self.d.pid, thread, signal.SIGSEGV)
                self.assertEqual(self.d.end(), 0)
                if idle and SANITIZER != "thread":
                    self.assertEqual(fault_in_last_words(self.d.output), "", self.d.output[-3000:])
                self.doCleanups()

    # What cannot be had from outside, in a program of ours with the daemon's own last words; see there.
    def test_faults_of_its_own(self):
        leaks = {"ASAN_OPTIONS": "detect_leaks=0"}  # a block whose address is in a register of the dead is none
        for name in ("main", "overflow-main", "overflow-thread", "log-argument") * 2:
            with self.subTest(name):
                victim = self.start("crash_victim", name, env=leaks)
                self.assertEqual(victim.end(), 0, victim.output)
                self.assertEqual(fault_in_last_words(victim.output), "", victim.output)
                if name == "main":
                    self.assertRegex(victim.output, r"(?s)\(victim_faults_here\+0x.*\(main\+0x", "and its callers")
                # Of an emulated processor the unwind tables do not cover the probe of the stack at an entry.
                if name == "overflow-thread" and "arm" not in "".join(bench.EMULATOR):
                    self.assertIn("backtrace() returned 100 addresses\n", victim.output)


if __name__ == "__main__":
    bench.main()
