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
from words import fault_in_last_words, lines, lines_meant

DAY = 86_400


# Sets the machine's time zone to one in which it is noon of one day before `start`, and of the next from then on.
def set_zone(start):
    noon = DAY // 2 - start % DAY
    with open("/etc/zone", "wb") as file:
        file.write(b"TZif".ljust(20, b"\0") + struct.pack(">6IiB", 0, 0, 0, 1, 2, 4, start, 1))
        file.write(struct.pack(">ibBibB", noon, 0, 0, noon + DAY, 0, 0) + b"DAY\0")
    os.rename("/etc/zone", "/etc/localtime")


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

    # The day changes in the middle of a flood.
    def test_the_files_alternate_by_the_day(self):
        daemon = self.daemon("-f")
        me, start, n = self.requester(), int(time.time()) + 2, 0
        dates = [f"{datetime.date.fromordinal(719_163 + start // DAY + n):%Y/%m/%d}" for n in range(2)]
        set_zone(start)  # while it runs, which it learns within a second, or later where others have the processors
        self.assertTrue(bench.wait_until(lambda: me.ask(len=1401) and re.search(" (11:59|12:00):", text_of(LOGS[0]))))
        while time.time() < start + 0.2:
            for n in range(n + 1, n + 50):
                me.tell(code=GREETING, payload=b"%d." % n)
            me.tell(len=1401)
            while me.receive().code == GREETING:
                pass
        self.assertEqual(daemon.end(signal.SIGTERM), 0)
        old, new = (lines(text_of(log)) for log in LOGS)
        log = "".join(map(text_of, LOGS))
        told = [int(i) for i in re.findall(r"recv msg: ' (\d+)\. '", log)]
        self.assertEqual((told, lines_meant(log, "log_text")), (sorted({*told}), n + 1), "each once, whole; or counted")
        old = [line for line in old if " more)" not in line[5]]
        self.assertEqual([line[0][:10] for line in old], [dates[0]] * (len(old) - 1) + [dates[1]], "the next opens the other")
        self.assertEqual({line[0][:10] for line in new}, {dates[1]})

    def test_a_file_that_is_full_and_is_emptied(self):
        daemon, me = self.daemon("-f"), self.requester()
        with open(LOGS[0], encoding="utf-8") as log:
            for size, says in ((1 << 26) + 1, "is full"), (0, "send ' Hello"), (1 << 27, "is full"):
                os.truncate(LOGS[0], size)
                self.assertTrue(bench.wait_until(lambda: me.greeted() and log.seek(size) == size and says in log.read()))
            self.assertEqual(daemon.end(signal.SIGTERM), 0)
            log.seek(size)
            self.assertEqual(fault_in_last_words(log.read()), "")

    def test_a_disk_that_is_full_and_has_room_again(self):
        subprocess.check_call("mount -t tmpfs -o size=64k none /var/log; head -c 40000 /dev/zero > /var/log/x", shell=True)
        self.addCleanup(subprocess.check_call, ["umount", "/var/log"])
        daemon, me = self.daemon("-f"), self.requester()
        while os.statvfs("/var/log").f_bfree:
            self.assertTrue(me.greeted())
        self.assertNotIn(None, lines(text_of(LOGS[0]))[:-1])
        os.unlink("/var/log/x")
        self.assertTrue(me.ask(code=GREETING, payload=b"again"))
        self.assertEqual(daemon.end(signal.SIGTERM), 0)
        self.assertTrue("' again '" in text_of(LOGS[0]) and fault_in_last_words(text_of(LOGS[0])) == "")


if __name__ == "__main__":
    bench.main()
