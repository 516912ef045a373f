# What the process is made of, and a machine that is not as it should be: no link or one that goes, no privilege, a
# daemon that runs already, a status that cannot be written.
import os
import signal
import time

import bench
from bench import READ, WRITE_ACK, ip

FIFO, OTHER, CPUS = os.SCHED_FIFO, os.SCHED_OTHER, os.cpu_count()
ALL, SECOND, FOURTH = set(range(CPUS)), {min(1, CPUS - 1)}, {3} if CPUS > 3 else set(range(CPUS))
THREADS = {
    **dict.fromkeys(("rvkd", "rvk-death", "rvk-signal", "rvk-status"), (OTHER, 0, ALL)),
    **{"rvk-recv": (FIFO, 90, SECOND), "rvk-check": (FIFO, 89, SECOND)},
    **{"rvk-ipc": (FIFO, 88, FOURTH), "rvk-file": (FIFO, 95, FOURTH)},
}
STATUS = "/run/rvkd/status.json"


class Surroundings(bench.BenchTest):
    def up(self, *arguments, **how):
        self.d, self.me = self.daemon("-d", *arguments, **how), self.requester()

    def says(self, text):
        return self.d.output.count(text)

    # At once: with a wait for a card these would take ten seconds and more.
    def assert_refusals(self):
        start = time.monotonic()
        self.assertEqual({self.me.read(0x1000, 16).result for _ in range(40)}, {-1})
        self.assertEqual(self.me.ask(code=WRITE_ACK, slot=2, payload=b"1").result, -1)
        self.assertLess(time.monotonic() - start, 8)
        self.me.tell(code=WRITE_ACK, addr=0x10, payload=b"123")
        self.assertEqual(self.me.ask(**bench.job(bench.FILE_WRITE, "/none", 20, 20)).result, 0)  # frames of 1,400 and 200
        self.assertTrue(self.me.greeted() and self.d.shows("length:200 send fail"))

    def test_threads(self):
        def found():
            facts = os.sched_getscheduler, lambda thread: os.sched_getparam(thread).sched_priority, os.sched_getaffinity
            return {name: tuple(fact(self.d.thread(name)) for fact in facts) for name in self.d.threads()}

        self.up()
        self.assertTrue(bench.wait_until(lambda: found() == THREADS), found())
        self.assertEqual(self.says("sched_setaffinity failed"), 2 * (CPUS < 4))
        self.assertIn("PROMISC", ip("link show eth0"))

    def test_a_link_that_goes_and_comes(self):
        cards = self.cards()
        self.up()
        for turn in range(1, 4):
            ip("link set eth0 down")
            self.assertTrue(bench.wait_until(lambda: self.says(": receive failed") == turn))
            self.assert_refusals()
            ip("link set eth0 up")
            self.assertTrue(bench.wait_until(lambda: self.me.read(0x1000, 16).result == 0))
            self.assertEqual(self.me.ask(code=WRITE_ACK, slot=2, payload=b"1").result, 0)
            self.assertEqual([self.says(": receive failed"), self.says("receives again")], [turn, turn])
        cards.kill()
        self.cards("--loss", "1.0")
        self.me.tell(code=WRITE_ACK, addr=0x1000, payload=b"123")
        self.assertTrue(self.me.greeted())
        ip("link del eth0")
        self.assertEqual(self.me.receive().result, -1, "what is pending meanwhile is given up")
        self.assert_refusals()
        self.assertTrue(self.d.shows("its device is gone"))
        self.assertTrue(bench.wait_until(lambda: '"eth0","open":0' in bench.text_of(STATUS)))
        bench.lay_cable()
        self.cards()
        self.assertTrue(bench.wait_until(lambda: self.me.read(0x1000, 16).result == 0), "another device of that name")
        self.assertTrue(bench.wait_until(lambda: '"eth0","open":1' in bench.text_of(STATUS)))
        ip("link set eth0 promisc off")
        self.assertTrue(bench.wait_until(lambda: "PROMISC" in ip("-o link show eth0")), "whoever clears it")
        self.assertEqual(self.d.end(signal.SIGTERM), 0)
        self.assertLessEqual(self.says(": receive failed"), 5, "one when it goes, none per try")

    # Seven times three expiries, of three ticks of 30 ms, or six for another slot than 1; a tick may wait already.
    def test_ticks(self):
        self.cards("--loss", "1.0")
        self.up()
        os.spawnlp(os.P_NOWAIT, "sh", "sh", "-c", f"while kill -ALRM {self.d.pid}; do sleep 0.005; done")  # no tick
        for slot, expiry, code in (1, 0.09, WRITE_ACK), (1, 0.09, READ), (2, 0.18, READ):
            start = time.monotonic()
            for _ in range(7):
                self.assertEqual(self.me.ask(code=code, slot=slot, addr=0x1000, payload=b"1234").result, -1)
            self.assertTrue(21 * (expiry - 0.045) < time.monotonic() - start < 21 * (expiry + 0.25), (slot, code))


if __name__ == "__main__":
    bench.main()
