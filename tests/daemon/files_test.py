# Files between the board and the cards, by the commands themselves: what may stand in a file's place, the programming
# tool, and what a job leaves behind. The many forms of a picture's or an image's bytes are another test's.
import os
import pathlib
import re
import signal
import subprocess

import bench
from bench import FILE_READ, FILE_WRITE, GREETING, UPDATE, WRITE, content, job, text_of

FOLDER, TOOL, SLOT, COPY = "/root/files", "/usr/vexo/bin/mcu_isp", 6, "/home/updatebin.tmp"
PICTURE, BLACK = content(1, 8000), bytes(8000)
# What an ordinary process has: mask, ignored signals, processors, nice value, priority and policy, and what it has open.
FACTS = """umask; grep -E 'SigIgn|allowed_list' /proc/self/status; cut -d' ' -f19,40,41 /proc/self/stat
for fd in 3 4 5 6 7 8 9; do readlink /proc/$$/fd/$fd; done; true"""
WHOLE, IMAGE = (8000, 8054), (None, 54)  # sizes of what a read-back leaves; None: no regular file
# What stands there, and there with .bmp behind it; the picture that it is, the result as firmware; read back over it.
ROWS = [
    ("a.bin", PICTURE, "", PICTURE, 0, WHOLE),
    ("longer.bin", PICTURE * 2, PICTURE * 2, PICTURE, 0, WHOLE),
    ("link.bin", "->longer.bin", "", PICTURE, 0, WHOLE),
    ("short.bin", PICTURE[1:], "", BLACK, 0, WHOLE),
    ("missing.bin", "", "", BLACK, -1, WHOLE),
    ("fifo.bin", "fifo", "", BLACK, -1, IMAGE),
    ("folder.bin", "folder", "", BLACK, -1, IMAGE),
    ("loop.bin", "->loop.bin", "", BLACK, -1, IMAGE),
    ("no/folder.bin", "", "", BLACK, -1, (None, None)),
    ("same.bin", PICTURE, "->same.bin", PICTURE, 0, (8000, 8000)),
    ("image.bin", PICTURE, "folder", PICTURE, 0, (0, None)),
]


def place(name, kind):
    path = f"{FOLDER}/{name}"
    if isinstance(kind, bytes):
        pathlib.Path(path).write_bytes(kind)
    elif kind.startswith("->"):
        os.symlink(kind[2:], path)
    elif kind:
        {"fifo": os.mkfifo, "folder": os.mkdir}[kind](path)
    return path


class Files(bench.BenchTest):
    def up(self, *options, **how):
        subprocess.check_call(["mkdir", "-p", FOLDER])
        self.addCleanup(subprocess.check_call, ["rm", "-rf", FOLDER])
        self.at, self.d, self.me = self.cards(*options), self.daemon("-f", **how), self.requester()

    # A job's result; a read-back has no answer, but the job behind it has.
    def do(self, code, path, hor=100, ver=20, **fields):
        fields = job(code, path, hor, ver, slot=SLOT, **fields)
        if code == FILE_READ:
            self.me.tell(**fields)
            fields = job(FILE_WRITE, "/none", slot=SLOT, addr=30)
        return self.me.ask(**fields).result

    def test_what_stands_in_a_files_place(self):
        self.up("--refuse-piece", 2, "--refuse-piece-times", 2)
        self.assertEqual(self.do(UPDATE, place("refused.bin", PICTURE), kind=0x1A), -1, "a piece that is refused twice")
        for name, kind, image, shown, updated, sizes in ROWS:
            with self.subTest(name):
                path = place(name, kind)
                files = [path, place(f"{name}.bmp", image)]
                self.assertEqual((self.do(FILE_WRITE, path, addr=3), self.do(UPDATE, path, kind=0x1A)), (0, updated))
                self.do(FILE_READ, f"{FOLDER}/back", addr=3 << 24)
                self.assertTrue(pathlib.Path(f"{FOLDER}/back").read_bytes() == shown)
                self.do(FILE_READ, path, addr=3 << 24)
                self.assertEqual(tuple(os.path.getsize(p) if os.path.isfile(p) else None for p in files), sizes)
        for path, stands, kind in ("a.dat", PICTURE, 0x1A), ("a;b", PICTURE, 0x16), ("-a", PICTURE, 0x17), ("m", "fifo", 0x18):
            self.assertEqual(self.do(UPDATE, place(path, stands), kind=kind), -1)
        os.lchown(theirs := place("theirs", "->longer.bin"), 1000, 1000)
        self.do(FILE_READ, theirs, addr=9 << 24)
        self.assertTrue(pathlib.Path(theirs).read_bytes() == PICTURE, "through a link that root did not make")
        pathlib.Path(COPY).write_bytes(PICTURE * 2)
        subprocess.check_call(["mount", "--bind", COPY, COPY])  # so that it cannot be removed
        self.addCleanup(subprocess.check_call, ["umount", COPY])
        self.assertEqual(self.do(UPDATE, f"{FOLDER}/a.bin", kind=0x1A), -1)
        self.assertIn("has 16000 bytes instead of 8256, remove it; nothing is sent", text_of(bench.LOGS[0]))
        self.assertIn("refused-piece 2", self.at.stop())
        self.assertEqual(self.at.file(f"card0-model0-slot{SLOT}-firmware1.bin"), PICTURE)

    # And the tool is an ordinary process, whatever the daemon was started with and the thread that runs it is.
    def test_while_a_tool_runs_nothing_else_is_done(self):
        self.up(pass_fds=[0, 1, 2, os.dup(2)], preexec_fn=lambda: signal.signal(signal.SIGUSR1, signal.SIG_IGN))
        os.sched_setaffinity(self.d.thread("rvk-file"), {0})
        os.mkfifo("/run/go")
        bench.lay_tool("/run/facts", FACTS)
        bench.lay_tool(TOOL, 'echo "$*" > /run/tool; /run/facts > /run/seen; cat /run/go; exit 3')
        self.me.tell(**job(UPDATE, place("mcu", PICTURE), kind=0x17))
        go = os.open("/run/go", os.O_WRONLY)  # waits for the tool
        self.me.tell(code=GREETING)
        self.me.tell(code=WRITE, addr=0x1000, payload=b"dropped")
        self.assertTrue(bench.wait_until(lambda: '"dropped_in_update":2,' in text_of("/run/rvkd/status.json")))
        os.close(go)
        answer = self.me.receive()
        self.assertEqual((answer.code, answer.result, answer.payload[0]), (UPDATE, 3 << 8, 0x17))
        self.assertIn(f"-B output -C 0x31 -b {FOLDER}/mcu", text_of("/run/tool"))
        ordinary = ["nice", "-n", str(-os.nice(0)), "env", "--default-signal", "/run/facts"]  # whatever started this
        seen = subprocess.check_output(ordinary, text=True, umask=0o077) + "/run/mcu_isp.lock\n"
        self.assertEqual(text_of("/run/seen"), seen)
        self.assertTrue(self.me.greeted(), "and nothing was kept for later")
        self.me.tell(**job(UPDATE, place("mcu", PICTURE), kind=0x17))
        go = os.open("/run/go", os.O_WRONLY)
        self.assertEqual(self.d.end(signal.SIGTERM), 0)
        self.d = self.daemon("-f")
        self.assertEqual(self.do(UPDATE, f"{FOLDER}/mcu", kind=0x17), -1, "the tool of the daemon before is at it")
        self.assertIn("/run/mcu_isp.lock: one that was started earlier still runs", text_of(bench.LOGS[0]))
        os.close(go)
        self.assert_clean(self.at)
        self.assertEqual(self.at.held(1), {})

    def test_a_whole_picture_leaves_no_memory_behind(self):
        self.up()
        os.truncate(place("whole", PICTURE), 3840 * 2160 * 4)
        self.assertEqual(self.do(FILE_WRITE, f"{FOLDER}/whole", 3840, 2160, addr=3), 0)

        def small():
            return int(re.search(r"VmRSS:\s*(\d+)", text_of(f"/proc/{self.d.pid}/status"))[1]) < 6000

        self.assertTrue(bench.SANITIZED or bench.EMULATOR or bench.wait_until(small))


if __name__ == "__main__":
    bench.main()
