# Many requesters at once: over a bad link, over one that goes down and up, and beside some that die or do not read.
# RVK_SOAK=n makes each longer, as scripts/soak does: n commands a round.
import json
import os
import signal
import subprocess
import time

import bench
from bench import GREETING, PATIENCE, text_of
from load import Load

SOAK = int(os.environ.get("RVK_SOAK", 0))
QUEUE = "/proc/sys/net/unix/max_dgram_qlen"  # of sockets made from then on; the bench's own


def set_queue(messages):
    with open(QUEUE, "w", encoding="ascii") as file:
        file.write(str(messages))


class Loads(bench.BenchTest):
    # Readiness reads that are not answered keep the demo away for a while.
    def start_load(self, *faults, **how):
        self.at = self.cards("--readiness-silent", "--pcap-frames", 1_000_000, *faults)
        self.d = self.daemon()
        return Load(self, **how)

    # Until nothing is pending; every block of the pool is back then.
    def settle(self, load):
        now = time.clock_gettime(time.CLOCK_BOOTTIME) * 1000

        def settled():
            f = json.loads(text_of("/run/rvkd/status.json"))
            return f["boot_ms"] > now and not any([*f["links"][0]["queued"].values(), *f["pool_in_use"].values()])

        self.assertTrue(bench.wait_until(settled), text_of("/run/rvkd/status.json"))
        load.run(0)

    def test_a_bad_link_loses_nothing_and_doubles_nothing(self):
        faults = [f"--{fault}={0.003 if SOAK else 0.005}" for fault in ("loss", "corrupt", "duplicate", "reorder")]
        load = self.start_load(*faults)
        stop, go = iter([signal.SIGSTOP]), iter([signal.SIGCONT])  # what comes between is given up, then answered late

        def stop_half_way():
            at_half = load.commands * 2 > (SOAK or 5000)
            for number in (stop if load.reports < 20 else go) if at_half else ():
                self.at.child.send_signal(number)
            return True

        load.run(SOAK or 5000, stop_half_way)
        self.settle(load)
        summary = self.at.stop()
        load.judge(self.at)
        print(f"{load.commands} commands, {load.reports} writes reported; {summary}")
        self.assertTrue(SOAK or "refused: none" in summary, "but for a demo over such a link")

    # Cards and link threads above the sender on one processor: most answers are there before a send returns.
    def test_a_sender_that_gets_no_processor(self):
        load = self.start_load("--duplicate", "0.1", "--processor", 1, "--priority", 94)
        os.sched_setaffinity(int(self.d.threads()["rvk-ipc"].rpartition("/")[2]), {1})
        load.run(SOAK or 3000)
        self.settle(load)
        self.assertLess(load.reports, load.commands / 20, "nothing is lost")
        self.assert_clean(self.at)
        load.judge(self.at)

    def test_a_link_that_goes_down_and_up(self):
        load, flaps, until = self.start_load(unwaited=False, requesters=4), 0, 0

        def flap():
            nonlocal flaps, until
            if time.monotonic() > until:
                end, way = ("eth0", "card0")[flaps // 2 % 2], ("down", "up")[flaps % 2]
                subprocess.check_call(["ip", "link", "set", end, way])
                flaps, until = flaps + 1, time.monotonic() + 0.15
            return flaps < (400 if SOAK else 16)

        load.run(1_000_000, flap)
        self.assertTrue(bench.wait_until(lambda: load.asking[0].read(0x1000, 4).result == 0))
        self.at.stop()
        load.judge(self.at, broken=True)

    # Each round every deaf one asks, one that is slow takes a single answer, and one that asks without end is killed.
    def test_requesters_that_die_or_do_not_read(self):
        load, dying, until, rounds = self.start_load(unwaited=False, requesters=2), [], 0, 0
        set_queue(10)
        deaf = [self.requester() for _ in range(20)]
        set_queue(4096)

        def disturb():
            nonlocal rounds, until
            if time.monotonic() > until:
                until, rounds = time.monotonic() + 0.025, rounds + 1
                for who in deaf:
                    who.tell(code=GREETING)
                deaf[0].receive(0)
                dying.append(self.start("rvkctl", "read", 3, "0x1000", 16, "--repeat", 100_000))
                if len(dying) > 3:
                    dying.pop(0).kill()
            return rounds < (200 if SOAK else 60)

        load.run(1_000_000, disturb)
        self.assertGreater(len(load.seconds), 5 * rounds)
        self.assertLess(max(load.seconds), PATIENCE / 10)
        for who in deaf:
            while who.receive(0):
                pass
            self.assertTrue(who.greeted(), "it reads again, and is answered again")
        self.assert_clean(self.at)


if __name__ == "__main__":
    bench.main()
