# The system refuses the daemon something, or does less than asked: each call it makes fails once, with each error.
# Which calls there are is found by counting them while nothing fails. Whatever fails and wherever, a job ends with one of
# the outcomes allowed for it, blocks and descriptors come back, nothing spins, and the next commands work.
# RVK_FAULTS=all tries each call of each job with each error; else RVK_FAULTS_SEED draws one of every kind.
import ctypes
import errno
import glob
import mmap
import os
import pathlib
import random
import re
import signal
import subprocess
import time

import bench
from bench import FILE_READ, FILE_WRITE, GREETING, READ, UPDATE, WRITE, WRITE_ACK, wait_until
from words import fault_in_last_words

ALL = os.environ.get("RVK_FAULTS") == "all"
SEED = int(os.environ.get("RVK_FAULTS_SEED", "1"))
PLAN = "/run/rvk-bench/fault-plan"
CARD = {"slot": 2, "addr": 0x100}
HELD = bench.content(1, 64)

# What each call may fail with; a number is returned as if so much had been done.
ERRORS = {
    "send_frame": "EAGAIN ENOBUFS ENETDOWN ENXIO EMSGSIZE EPERM EINTR 0 10",
    "send_message": "EAGAIN EINTR ENOBUFS ENOMEM ECONNREFUSED ENOENT EACCES",
    "recv_frame recv_message": "EINTR EAGAIN ENETDOWN ENOMEM EBADF 0 5 100",
    "open stat access": "EACCES EIO EMFILE ENOSPC",
    "read": "EIO EINTR EAGAIN 0",
    "pwrite": "ENOSPC EIO EINTR EFBIG 0 1",
    "fork malloc mmap madvise thread sigaltstack": "ENOMEM",
    "poll waitpid sleep flock setitimer": "EINTR",
    "log": "",
    "socket bind connect setsockopt ioctl affinity chmod fchmod mkdir unlink ftruncate": "EMFILE EACCES EADDRINUSE EROFS",
}
ERRORS = {name: errors.split() for names, errors in ERRORS.items() for name in names.split()}
FAULTS = {"wild": -1, "endless": -2}  # that the call does not come back from
EVERYWHERE = ("send_frame", "send_message", "recv_frame", "recv_message", "malloc")  # in every job


# What the library in the daemon does; its other side is preload.cpp.
class Plan(ctypes.Structure):
    class Call(ctypes.Structure):
        _fields_ = [("name", ctypes.c_char * 16), ("seen", ctypes.c_int32)]

    _fields_ = [(name, ctypes.c_int32) for name in "nth lasting error value looks_asked looks_given".split()]
    _fields_ += [("in_use", ctypes.c_int32 * 8), ("name", ctypes.c_char * 16), ("calls", Call * 40)]

    # The nth call of this name from now on fails, and with `lasting` all behind it; none without a name.
    def arm(self, name="", nth=0, error="", lasting=0):
        self.nth = 0
        for call, known in zip(self.calls, ERRORS):
            call.name, call.seen = known.encode(), 0
        self.name, self.lasting = name.encode(), lasting
        self.error, self.value = FAULTS.get(error) or getattr(errno, error, 0), int(error) if error.isdigit() else 0
        self.nth = nth

    def seen(self):
        return {call.name.decode(): call.seen for call in self.calls if call.seen}

    # The pool's waiting blocks are given back to the system. Result: how many of each size are handed out.
    def look(self):
        self.looks_asked += 1
        return wait_until(lambda: self.looks_given == self.looks_asked) and list(self.in_use)


# All cases; or so many of each group, of so many groups at most.
def drawn(groups, at_most=1000, of_each=1):
    dice = random.Random(SEED)
    groups = groups if ALL else [dice.sample(g, min(of_each, len(g))) for g in groups]
    return sum(groups if ALL else dice.sample(groups, min(at_most, len(groups))), [])


class FaultsTest(bench.BenchTest):
    def setUp(self):
        self.simulated, self.fence = self.cards(), 0
        self.folder = self.simulated.folder  # ours too
        with open(PLAN, "w+b") as file:
            file.truncate(ctypes.sizeof(Plan))
            self.plan = Plan.from_buffer(mmap.mmap(file.fileno(), 0))
        self.plan.arm()
        pathlib.Path(self.folder, "picture").write_bytes(bench.content(2, 64 * 4 * 4))
        small = bench.job(UPDATE, self.folder + "/small.bin", kind=0x1A, slot=3)
        # What is told, the answers when nothing fails, and the calls whose failure makes them -1.
        self.jobs = {
            "greeting": ({"code": GREETING}, [0], ""),
            "read": ({"code": READ, "len": 64, **CARD}, [0], "send_frame"),
            "plain": ({"code": WRITE, "payload": HELD, **CARD}, [], ""),
            "write": ({"code": WRITE_ACK, "payload": HELD, **CARD}, [0], "send_frame"),
            "unwaited": ({"code": WRITE_ACK, "payload": bytes(1500), "addr": 0x40}, [], ""),
            "put": (bench.job(FILE_WRITE, self.folder + "/picture", 64, 4, addr=16), [0], ""),
            "get": (bench.job(FILE_READ, self.folder + "/copy", 64, 4, addr=16 << 24), [], ""),
            "update": (small, [0], "stat access open read pwrite fork send_frame"),
        }

    def start(self, **env):
        linked = subprocess.check_output(["ldd", bench.BIN + "/rvkd"], text=True)
        first = re.findall(r"/\S*libasan\S*", linked)  # a sanitizer that is not the first refuses to run
        preload = ":".join([*first, bench.BIN + "/librvk_fault_preload.so"])
        self.rvkd = self._kept(bench.Daemon("-fd", env={"LD_PRELOAD": preload, "RVK_FAULT_PLAN": PLAN, **env}))

    def settle(self):
        self.start()
        self.client = self.requester()
        self.assert_serves()
        self.fds_at_rest = self.rvkd.fds()

    def assert_serves(self):
        self.assertTrue(self.rvkd.alive(), "the daemon has ended")
        other = bench.Requester()
        answers = [other.ask(**self.jobs[name][0]) for name in ("greeting", "write", "put", "read")]
        other.close()
        self.assertTrue(all(answer and answer.result == 0 for answer in answers), answers)
        self.assertEqual(answers[-1].payload, HELD)

    # Tells a job and waits until it is over and its last request has ended. Result: its answers' results.
    def play(self, name):
        self.sent = bench.content(self.fence, 64 if name == "write" else 3000)
        pathlib.Path(self.folder, "small.bin").write_bytes(self.sent)
        self.client.tell(**{**self.jobs[name][0], **({"payload": self.sent} if name == "write" else {})})
        got, end = [], time.monotonic() + bench.PATIENCE
        fence = {"code": FILE_WRITE} if name in ("put", "get", "update") else {"code": READ, "len": 1401}  # both are refused
        while not got or got[-1].seq != self.fence:  # a fence may meet the fault, and is dropped in an update
            self.assertLess(time.monotonic(), end, "what is told behind it is not answered")
            self.fence += 1
            self.client.tell(seq=self.fence, **fence)
            while (not got or got[-1].seq != self.fence) and (answer := self.client.receive(0.03)):
                got.append(answer)
        self.assertTrue(wait_until(lambda: self.plan.look() == [0] * 8), "blocks are not given back")
        got += iter(lambda: self.client.receive(0), None)
        return [answer.result for answer in got if answer.seq == 0]

    # The answers that a job may have when this happens to a call of it.
    def allowed(self, name, call, error):
        _, normal, refusing = self.jobs[name]
        if {"EAGAIN": call != "read", "EINTR": call != "send_frame", "1": True}.get(error):  # it goes on
            return [normal]
        return [normal, *{"malloc": [[-1], []], "send_message": [[]]}.get(call, [[-1]] if call in refusing.split() else [])]

    # What was answered with 0 was carried out; a picture may be black.
    def assert_done(self, name):
        if name == "write":
            self.assertEqual(self.client.read(CARD["addr"], 64, slot=2).payload, self.sent)
        if name == "update":
            self.simulated.child.send_signal(signal.SIGUSR1)
            images = self.folder + "/*-firmware*.bin"
            arrived = wait_until(lambda: self.sent in map(self.simulated.file, glob.glob(images)))
            self.assertTrue(arrived, "another image than was given")

    def play_failing(self, name, call, nth, error):
        self.plan.arm(call, nth, error)
        got = self.play(name)
        self.plan.nth = 0
        self.assertIn(got, self.allowed(name, call, error))
        if got == [0]:
            self.assert_done(name)
        self.assert_serves()
        self.assertTrue(wait_until(lambda: self.rvkd.fds() <= self.fds_at_rest), "descriptors are not given back")
        children = [f"{thread}/children" for thread in self.rvkd.threads().values()]
        self.assertTrue(wait_until(lambda: not any(map(bench.text_of, children))), "a command is not waited for")

    def test_each_call_fails_once(self):
        self.settle()
        groups = {}
        for name in self.jobs:
            self.play(name)  # what is made but once is there then
            self.plan.arm()
            self.play(name)
            for call, n in self.plan.seen().items():
                for error in ERRORS[call]:
                    kind = (call, "" if call in EVERYWHERE else name, error if error in ("EINTR", "0", "1") else "")
                    groups.setdefault(kind, []).extend((name, call, nth + 1, error) for nth in range(n))
        self.assertGreater(len(groups), 50)
        for case in drawn([*groups.values()], of_each=3):
            with self.subTest(case):
                self.play_failing(*case)

    def test_what_goes_on_failing_spins_nothing(self):
        self.settle()
        self.play("greeting")  # makes the image
        stay = {call: [e for e in errors if e.isalpha() and e != "EINTR"] for call, errors in ERRORS.items()}
        names, calls = (self.jobs, ERRORS) if ALL else (["update"], EVERYWHERE)
        for name, call, error in drawn([[(name, c, e) for e in stay[c]] for name in names for c in calls if stay[c]]):
            with self.subTest((name, call, error)):
                self.plan.arm(call, 1, error, lasting=1)
                self.client.tell(**self.jobs[name][0])
                time.sleep(0.5)
                self.plan.nth = 0
                self.assertLess(max(self.plan.seen().values()), 1000, self.plan.seen())
                self.play("greeting")
                self.assert_serves()

    # What could not be had is told by the log and refused; all else works.
    def test_a_call_fails_at_the_start(self):
        self.start()
        self.judge_start()
        if bench.SANITIZED:
            self.counts.pop("sigaltstack", None)  # a sanitizer's, which ends without it
        places = [[(call, nth, e) for e in ERRORS[call]] for call, n in self.counts.items() for nth in range(1, n + 1)]
        # The last threads are those that serve.
        for case in [("thread", self.counts["thread"] - n, "ENOMEM") for n in range(4)] + drawn(places, 8):
            with self.subTest(case):
                self.plan.arm(*case)
                self.start()
                self.judge_start()

    def judge_start(self):
        def said(pattern):
            return re.search(pattern, self.rvkd.output)

        settled = ("create apipc wex|WexApRecvTaskCreate/", "ApMsgFileProc/.*file w|WexApFileTaskCreate/")
        self.assertTrue(wait_until(lambda: all(map(said, settled))), self.rvkd.output)
        self.counts, self.plan.nth = self.plan.seen(), 0
        if said("create apipc wex succeed"):
            other = bench.Requester()
            self.assertTrue(other.greeted())
            no_link = said(r"create/ .*failed to create thread|init_netdev\(0\) failed")
            self.assertEqual(other.ask(**self.jobs["read"][0]).result, -1 if no_link else 0)
            self.assertEqual(other.ask(**self.jobs["put"][0]).result, -1 if said("WexApFileTaskCreate/") else 0)
            other.close()
        self.assertTrue(self.rvkd.alive())
        self.assertEqual(self.rvkd.end(signal.SIGTERM), 0)

    def test_no_memory_for_any_thread(self):
        self.plan.arm("thread", 1, "ENOMEM", lasting=1)
        self.start()
        self.assertTrue(self.rvkd.shows("a signal will end the process without lines in this log"))
        self.assertEqual(self.rvkd.end(signal.SIGTERM), -signal.SIGTERM)

    # A fault of its own, in the main thread or another, or under the log's lock: it ends with the last words, whose it was
    # among them.
    def test_faults_of_its_own(self):
        for call in ("ioctl", "recv_frame", "recv_message", "log"):
            for error, says in ("wild", r"(?s)\(fault_here\+0x.*\(clone|main"), ("endless", r"returned 100 addresses\n"):
                with self.subTest(f"{call} {error}"):
                    self.plan.arm(call, 1, error)
                    self.start(ASAN_OPTIONS="detect_leaks=0")  # a block may be in a register of the thread that was hit
                    self.assertEqual(self.rvkd.end(), 0)
                    for log in self.rvkd.output, bench.text_of(bench.LOGS[0]):
                        self.assertEqual(fault_in_last_words(log), "", log)
                        self.assertRegex(log, says)


if __name__ == "__main__":
    bench.main()
