# The log: which switch opens what, the form of a line, files that alternate by day, and outputs that fail.
import datetime
import os
import re
import signal
import struct
import subprocess
import time

import bench
from bench import GREETING, LOGS, text_of
from words import fault_in_last_words, lines

DAY = 86_400


# A time zone in which it is noon at `start`, and from so many seconds after it on so many days later than before.
def zone(start, jumps):
    offsets = [DAY // 2 - start % DAY + sum(list(jumps.values())[:n]) * DAY for n in range(len(jumps) + 1)]
    with open("/run/zone", "wb") as file:
        file.write(b"TZif".ljust(20, b"\0") + struct.pack(">6I", 0, 0, 0, len(jumps), len(offsets), 4))
        file.write(struct.pack(f">{len(jumps)}i", *(start + after for after in jumps)) + bytes(range(1, len(offsets))))
        file.write(b"".join(struct.pack(">ibB", offset, 0, 0) for offset in offsets) + b"DAY\0")
    return {"TZ": ":/run/zone"}


def log_of(number):
    return lines(text_of(LOGS[number]))


class Log(bench.BenchTest):
    def test_each_switch_opens_its_output(self):
        for switches in ["", "-d", "-f", "-d -f", "-df -f", "-x --nonsense", "-d -xf word"]:
            with self.subTest(switches):
                start = datetime.datetime.now().replace(microsecond=0)
                daemon, me = self.daemon(*switches.split(), apart=True), self.requester()
                me.ask(code=GREETING, payload=b"who is there")
                me.send(me.message(msg_type=2).pack()[:20])
                dump = me.own.to_bytes(4, "little").hex(" ") + " 44 33 22 11" + " 00" * 8 + " 02 00 1c 00 \n"
                self.assertTrue(daemon.shows(dump), "printed whatever the switches")
                self.assertEqual(daemon.end(signal.SIGTERM), 0)
                self.assertTrue(os.path.exists(LOGS[0]), "created whatever the switches")
                for switch, log in ("d", daemon.output.replace(dump, "")), ("f", text_of(LOGS[0])):
                    open_too = re.search(f"-[a-z]*{switch}( |$)|-{switch}", switches) is not None
                    self.assertEqual(log.count("]:: ++++++++++recv msg: ' who is there ' \n"), open_too)
                    self.assertEqual(log.count("USE MEM_MANAGE\n"), open_too, "it begins anew")
                    self.assertEqual(fault_in_last_words(log) == "", open_too)
                    for line in lines(log):
                        at = datetime.datetime.strptime(line[0], "%Y/%m/%d %H:%M:%S.%f")
                        self.assertTrue(start <= at <= datetime.datetime.now() and int(line[1]) == daemon.pid, line)
                        self.assertRegex("/".join(line[2:5]), r"^ *\w+/ *\w+/ *[1-9]\d*$")

    # The day changes in the middle of a flood, and again, then the month without the day of the month.
    def test_the_files_alternate_by_the_day_of_the_month(self):
        start = int(time.time()) + 2
        days = [datetime.date.fromordinal(719_163 + start // DAY + n) for n in range(3)]
        days.append(next(d for n in range(28, 100) if (d := days[2] + datetime.timedelta(n)).day == days[2].day))
        dates, n = [f"{day:%Y/%m/%d}" for day in days], 0
        self.daemon("-f", env=zone(start, {0: 1, 3: 1, 5: (days[3] - days[2]).days}))
        me = self.requester()
        while time.time() < start + 0.2:
            for n in range(n + 1, n + 50):
                me.tell(code=GREETING, payload=b"%d." % n)
            while me.receive(0):
                pass
        self.assertTrue(bench.wait_until(lambda: f"' {n}. '" in text_of(LOGS[1])))
        old, new = log_of(0), log_of(1)
        texts = "".join(line[5] for line in old + new)
        self.assertEqual(re.findall(r"recv msg: ' (\d+)\. '", texts), [str(i) for i in range(1, n + 1)], "each once, whole")
        self.assertEqual([line[0][:10] for line in old], [dates[0]] * (len(old) - 1) + [dates[1]], "the next opens the other")
        self.assertEqual({line[0][:10] for line in new}, {dates[1]})
        for seconds in (3.1, 5.1):
            bench.wait_until(lambda: time.time() > start + seconds)
            self.assertTrue(me.greeted() and me.greeted())
        self.assertEqual(log_of(1)[-1][0][:10], dates[2])
        self.assertEqual(sorted({line[0][:10] for line in log_of(0)}), dates[2:], "the same day of another month")

    def test_a_file_that_cannot_be_opened_or_written(self):
        disk = "mount -t tmpfs -o size=64k none /var/log && head -c 40000 /dev/zero > /var/log/other && mkdir " + LOGS[0]
        subprocess.check_call(disk, shell=True)
        self.addCleanup(subprocess.check_call, ["umount", "/var/log"])
        daemon, me = self.daemon("-d", "-f"), self.requester()
        os.rmdir(LOGS[0])
        while os.statvfs("/var/log").f_bfree:
            self.assertTrue(me.greeted())
        self.assertTrue(me.greeted())
        self.assertNotIn(None, log_of(0)[:-1])
        os.unlink("/var/log/other")
        self.assertTrue(me.ask(code=GREETING, payload=b"again"))
        self.assertTrue(bench.wait_until(lambda: "' again '" in text_of(LOGS[0])))
        self.assertEqual(daemon.end(signal.SIGTERM), 0)
        self.assertEqual([fault_in_last_words(log) for log in (daemon.output, text_of(LOGS[0]))], ["", ""])


if __name__ == "__main__":
    bench.main()
