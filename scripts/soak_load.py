"""The long forms of tests/daemon/load_test.py, for scripts/soak.

    RVK_SOAK=1000000 scripts/in-bench python3 scripts/soak_load.py Soak.relay_all     so many commands
    RVK_SOAK=400 scripts/in-bench python3 scripts/soak_load.py Soak.flaps             so many times down or up
"""
import collections
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
GROWTH_KB = 64  # beside what the daemon keeps by design, which is bounded
SIZE = int(os.environ.get("RVK_SOAK", 0))


class Soak(load_test.Loads, fairness.Field):
    turns = SIZE

    # The daemon when nothing is pending: files that it has open, its memory in kB, and how much of that it keeps: blocks of
    # the pool, for as many requests as ever were pending at once, and the queues' index, of which each of the first 65,536
    # requests of a kind takes 8 bytes.
    def held(self, requests):
        pages = int(bench.text_of(f"/proc/{self.d.pid}/statm").split()[1])
        kept = sum(int(size) * n for size, n in self.figures["pool_made"].items())
        kept += sum(min(n, 65_536) for n in requests.values()) * 8
        return self.d.fds(), pages * os.sysconf("SC_PAGESIZE") // 1024, kept // 1024

    def relay_all(self):
        commands, reports, updates, held, requests = 0, 0, [], [], collections.Counter()
        with_demo = self.cards(kept=False)
        self.d = self.daemon()
        self.wait_for_demo()
        with_demo.kill()
        begin = time.monotonic()
        while commands < SIZE:
            load = self.start_load("--seed", commands + 1, *FAULTS)
            self.relay(load, min(PART, SIZE - commands))
            commands, reports, updates = commands + load.commands, reports + load.reports, updates + load.updates
            requests.update((piece.code, piece.slot) for piece in load.ledger.values())
            held += [self.held(requests)] if time.monotonic() > begin + 60 else []
            self.at.kill()
            for who in load.asking:
                who.close()
        print(f"{commands} commands, {sum(requests.values())} requests in {time.monotonic() - begin:.0f} s; {reports} reported "
              f"as lost; {len(updates)} updates, {updates.count(0)} of them good, which silenced {self.silenced} commands")
        self.assertTrue(held, "it ended within a minute: too few commands to say whether the daemon grows")
        print("files open, kB resident, kB kept by design, after each part from the first minute on:", *held)
        self.assertEqual(held[-1][0], held[0][0])
        self.assertLessEqual(held[-1][1] - held[0][1], GROWTH_KB + held[-1][2] - held[0][2])

    def flaps(self):
        self.test_a_link_that_goes_down_and_up_and_requesters_that_die()


if __name__ == "__main__":
    bench.main()
