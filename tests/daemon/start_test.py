# The start: the kernel's limits, then the demo, nine pictures that are shown from the first on, while commands are
# served.
import os
import pathlib

import bench
from bench import FILE_READ, FILE_WRITE, content, job, text_of

FOLDER, LINES = "/usr/kup/etc/demo", 60


class Start(bench.BenchTest):
    def test_the_demo_and_its_files(self):
        files = {n: content(n, n * 100_003) for n in (1, 2, 5, 9)}  # the last is 58.6 lines long
        os.makedirs(FOLDER, exist_ok=True)
        for n, data in files.items():
            pathlib.Path(f"{FOLDER}/demo_{n}").write_bytes(data)
        pathlib.Path(bench.SYSCTL_RECORD).write_text("")
        cards, daemon, me, served = self.cards(kept=False), self.daemon("-d"), self.requester(), 0
        limits = "-w|net.core.wmem_max=|8388608|\n-w|net.core.wmem_default=|8388608|\n"
        self.assertEqual(text_of(bench.SYSCTL_RECORD), limits)
        self.assertTrue(daemon.shows("DDR2Write begin"))
        while daemon.output.count("write demo pic total time:") < 9:
            self.assertTrue(me.greeted() and me.read(0x1000, 4))  # a card may answer too late behind a picture
            served += 1
        self.assertGreater(served, 2, "not only when it is over")
        for n in range(1, 10):
            me.tell(**job(FILE_READ, "/run/back", 3840, LINES, addr=15 + n << 24))
            self.assertEqual(me.ask(**job(FILE_WRITE, "/none", addr=30, slot=2)).result, 0)
            shown = pathlib.Path("/run/back").read_bytes()
            self.assertTrue(shown == files.get(n, b"").ljust(3840 * LINES * 4, b"\0"), f"picture {n}")
        self.assertIn("playback: in order, up to 'picture 24'", summary := cards.stop())
        self.assertIn("9 with a whole picture, 0 with", summary.replace("10 with", "9 with"))


if __name__ == "__main__":
    bench.main()
