"""The long forms of tests/daemon/load_test.py, for scripts/soak.

    RVK_SOAK=1000000 scripts/in-bench python3 scripts/soak_load.py Soak.relay_all     so many commands
    RVK_SOAK=400 scripts/in-bench python3 scripts/soak_load.py Soak.flaps             so many times down or up
"""
import os
import sys
import time

here = os.path.dirname(__file__)
sys.path += [os.path.join(here, "../tests/daemon"), os.path.join(here, "../bench")]

import bench  # noqa: E402
import fairness  # noqa: E402
import load_test  # noqa: E402

PART = 25_000  # commands, with cards of their own, after which everything is compared
FAULTS = ["--loss", 0.05, "--duplicate", 0.02, "--corrupt", 0.01, "--delay", 0.01]
WARM_SECONDS = 60  # with twice the requesters: the pool keeps blocks for as many requests as ever were pending at once
GROWTH_KB = 64  # from then on, the pool's blocks left out
SIZE = int(os.environ.get("RVK_SOAK", 0))


class Soak(load_test.Loads, fairness.Field):
    turns = SIZE

    # The daemon when nothing is pending and no block of its pool is in use: files that it has open, kB that the pool keeps
    # in blocks, its memory in kB.
    def held(self):
        pages = int(bench.text_of(f"/proc/{self.d.pid}/statm").split()[1])
        kept = sum(int(size) * made for size, made in self.figures["pool_made"].items()) // 1024
        return self.d.fds(), kept, pages * os.sysconf("SC_PAGESIZE") // 1024

    def relay_all(self):
        commands, requests, reports, updates, held = 0, 0, 0, [], []
        with_demo = self.cards(kept=False)
        self.d = self.daemon()
        self.wait_for_demo()
        with_demo.kill()
        begin = time.monotonic()
        while commands < SIZE:
            warm = time.monotonic() > begin + WARM_SECONDS
            load = self.start_load("--seed", commands + 1, *FAULTS, requesters=8 if warm else 16)
            self.relay(load, min(PART, SIZE - commands))
            commands, requests = commands + load.commands, requests + len(load.ledger)
            reports, updates = reports + load.reports, updates + load.updates
            held += [self.held()] if time.monotonic() > begin + WARM_SECONDS else []
            self.at.kill()
            for who in load.asking:
                who.close()
        print(f"{commands} commands, {requests} requests in {time.monotonic() - begin:.0f} s; {reports} reported "
              f"as lost; {len(updates)} updates, {updates.count(0)} of them good, which silenced {self.silenced} commands")
        self.assertTrue(held, "it ended within a minute: too few commands to say whether the daemon grows")
        print("files open, kB of the pool, kB resident, after each part from the first minute on:", *held)
        self.assertEqual(held[-1][0], held[0][0])
        # A machine that is stopped for a moment has more requests pending than ever: the pool keeps their blocks.
        self.assertLessEqual((held[-1][2] - held[-1][1]) - (held[0][2] - held[0][1]), GROWTH_KB)

    def flaps(self):
        self.test_a_link_that_goes_down_and_up_and_requesters_that_die()


if __name__ == "__main__":
    bench.main()
