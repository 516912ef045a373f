# Nobody waits for others: the work of bench/fairness.py, small, in both layouts. And nothing is lost to output that is not
# read, or to a link slower than its sender.
import os
import re
import sys

sys.path.append(os.path.join(os.path.dirname(__file__), "../../bench"))

import bench  # noqa: E402
import fairness  # noqa: E402
from bench import FILE_WRITE, ip, job, wait_until  # noqa: E402
from words import lines_meant  # noqa: E402

MOST_MS = 4000 if bench.SANITIZED or bench.EMULATOR else 1000  # far less than if it waited for others
FRAMES = -(-1280 * 720 * 4 // 1400)


class Fairness(fairness.Field):
    queue = 10

    # A busy machine holds a reader up now and then; who waits for others does each time.
    def assert_fair(self, *work):
        for left in (2, 1, 0):
            found = self.beside(*work)
            self.assertEqual((found["failed"], found.get("reports missing", 0)), (0, 0), found)
            if max(found["longest"], found["check gap"]) < MOST_MS:
                return
            self.assertTrue(left, found)

    def test_work_of_others(self):
        for layout in fairness.LAYOUTS:
            with self.subTest(layout):
                self.doCleanups()
                self.up(layout)
                self.assert_fair(fairness.given_up, 150, 0.02, 20, 50)
                self.assert_fair(fairness.read_back, 64, 64, fairness.SILENT, 1)

    # The log's file has every line; the console has each, too, or counts it, and the reports' texts.
    def test_output_that_nobody_reads(self):
        (out, into), (errors, errors_into) = fairness.full_pipe(), fairness.full_pipe()
        self.up(fairness.BOARD, arguments=["-d", "-f"], stdout=into, stderr=errors_into)
        self.assert_fair(fairness.given_up, 100, 0.001)
        ip("link set eth0 down")
        self.assertEqual(self.me.read(0, 4).result, -1)
        ip("link set eth0 up")
        self.assertTrue(wait_until(lambda: self.me.read(0, 4).result == 0))
        os.read(out, 1 << 20), os.read(errors, 1 << 20)
        self.assertEqual(self.me.read(0, 4).result, 0)
        self.assertEqual(self.d.end(15), 0)
        shown, file = os.read(out, 1 << 20).decode(), bench.text_of(bench.LOGS[0])
        lost = re.findall(r"^\((\d+) texts lost: nobody read\)$", shown, re.M)
        ends = lines_meant(file, "log_end") - file.count("no resp msg")  # a read has no report
        missing = lines_meant(file) + ends - int(*lost) - shown.count(" ]:: ")
        self.assertIn(missing, (0, 1), "none, unless a read's end is left out of the file")

    # The sender waits for a link that is slower. Where the interface's queue is shorter than what its socket holds, frames are
    # lost there, and counted.
    def test_a_slow_link(self):
        with open("/run/picture", "wb") as file:
            file.write(bench.content(1, 1280 * 720 * 4))
        for queue, fits in (1000, True), (20, False):
            self.doCleanups()
            self.up(fairness.BOARD, "--readiness-silent")
            fairness.tc("qdisc add dev eth0 root handle 1: htb default 1")
            self.addCleanup(fairness.tc, "qdisc del dev eth0 root")
            fairness.tc("class add dev eth0 parent 1: classid 1:1 htb rate 50mbit")
            fairness.tc(f"qdisc add dev eth0 parent 1:1 pfifo limit {queue}")
            self.assertEqual(self.me.ask(**job(FILE_WRITE, "/run/picture", 1280, 720, addr=3)).result, 0)
            lost = self.status(fresh=True)["links"][0]["send_failed"]["no_buffers"]
            arrived = int(*re.findall(r"(\d+) plain writes", self.at.stop()))
            if fits:
                self.assertEqual((lost, arrived), (0, FRAMES))
            else:
                self.assertLess(arrived, FRAMES)
                self.assertIn(arrived + lost - FRAMES, range(4), "the three around the picture are sent but once")


if __name__ == "__main__":
    bench.main()
