# Many requesters at once: over a bad link, over one that goes down and up beside requesters that die. scripts/soak has its
# long forms of them.
import json
import os
import signal
import time

import bench
from bench import UPDATE, ip, text_of
from load import Load

FAULTS = ["--loss", 0.005, "--corrupt", 0.005, "--duplicate", 0.005, "--reorder", 0.005]


class Loads(bench.BenchTest):
    d, silenced, turns = None, 0, 16

    # Readiness reads that are not answered keep the demo away for a while.
    def start_load(self, *options, **how):
        self.at = self.cards("--readiness-silent", "--pcap-frames", 1_000_000, *options)
        self.d = self.d or self.daemon()
        return Load(self, **how)

    # Until nothing is pending; every block of the pool is back then.
    def settle(self, load):
        now = time.clock_gettime(time.CLOCK_BOOTTIME) * 1000

        def settled():
            self.figures = json.loads(text_of("/run/rvkd/status.json"))
            still = [*self.figures["links"][0]["queued"].values(), *self.figures["pool_in_use"].values()]
            return self.figures["boot_ms"] > now and not any(still)

        self.assertTrue(bench.wait_until(settled), self.figures)
        load.run(0)

    # So many commands over a bad link, and whether all was as it should. At half of them the cards are stopped until 20
    # writes were given up, whose late answers then come; before and after it firmware is updated, over that link or by a tool.
    def relay(self, load, commands):
        due = [(0.8, 0x16), (0.4, 0x16), (0.2, 0x1A)]  # at which part of the commands, type
        bench.lay_tool("/usr/vexo/bin/mcu_isp", "sleep 0.2")
        bench.lay_tool("/run/image.bin", "any bytes")

        def disturb():
            if load.commands * 2 > commands:
                self.at.child.send_signal(signal.SIGSTOP if load.reports < 20 else signal.SIGCONT)
            if due and load.commands > due[-1][0] * commands and (load.reports >= 20 or len(due) > 1):
                load.update(**bench.job(UPDATE, "/run/image.bin", kind=due.pop()[1]))
            return True

        load.run(commands, disturb)
        self.settle(load)
        summary = self.at.stop()
        load.judge(self.at)
        self.silenced += load.silenced
        self.assertEqual(self.figures["dropped_in_update"], self.silenced)
        return f"{load.commands} commands, {load.reports} writes reported, updates {load.updates}; {summary}"

    # Then with the cards and the link's threads above the sender on its processor: most answers come before a send returns.
    # Its pictures at the start are over before: cards that are stopped have no space for a frame behind one.
    def test_a_bad_link_loses_nothing_and_doubles_nothing(self):
        others = self.cards(kept=False)
        self.d = self.daemon()
        status, sent = "/run/rvkd/status.json", '"frames":{"sent":213'  # the demo's frames: 213 thousand
        self.assertTrue(bench.wait_until(lambda: text_of(status).partition(sent)[2][3:4] == ",", 4 * bench.PATIENCE))
        others.kill()
        for options in [], ["--processor", 1, "--priority", 94]:
            load = self.start_load(*FAULTS, *options)
            os.sched_setaffinity(self.d.thread("rvk-ipc"), {1} if options else {0, 1})
            self.assertIn("refused: none\n", self.relay(load, 2500))

    # At each turn a requester begins, and one is gone that may not have its answers.
    def test_a_link_that_goes_down_and_up_and_requesters_that_die(self):
        load, dying, turns, until = self.start_load(unwaited=False, requesters=4), [], 0, 0

        def disturb():
            nonlocal turns, until
            if time.monotonic() > until:
                end, way = ("eth0", "card0")[turns // 2 % 2], ("down", "up")[turns % 2]
                ip(f"link set {end} {way}")
                turns, until = turns + 1, time.monotonic() + 0.15
                dying.append(self.requester())
                dying[-1].tell(slot=3, addr=0x1000, len=16)
                if len(dying) > 3:
                    (dying.pop(0).close if turns % 2 else dying.pop(0).socket.close)()  # with its socket file, or without
            return turns < self.turns

        load.run(1_000_000, disturb)
        self.assertTrue(bench.wait_until(lambda: load.asking[0].read(0x1000, 4).result == 0))
        self.at.stop()
        load.judge(self.at, broken=True)


if __name__ == "__main__":
    bench.main()
