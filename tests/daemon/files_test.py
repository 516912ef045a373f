# Files between the board and the cards, by the commands themselves: what each trouble with a file does, and what a job
# leaves behind. The many forms of a picture's or an image's bytes are another test's.
import os
import re
import struct
import subprocess

import bench
from bench import FILE_READ, FILE_WRITE, GREETING, UPDATE, WRITE, content, job, text_of

FOLDER, TOOL, SLOT = "/root/files", "/usr/vexo/bin/mcu_isp", 6
PICTURE, BLACK = content(1, 8000), bytes(8000)


# Lays out a file of this kind; bytes are its content. Result: its path.
def place(name, kind):
    path = f"{FOLDER}/{name}"
    if isinstance(kind, bytes):
        with open(path, "wb") as file:
            file.write(kind)
    elif kind.startswith("->"):
        os.symlink(kind[2:], path)
    elif kind:
        {"fifo": os.mkfifo, "folder": os.mkdir}[kind](path)
    return path


def bytes_of(path):
    with open(path, "rb") as file:
        return file.read()


class Files(bench.BenchTest):
    def up(self, *options):
        subprocess.check_call(["mkdir", "-p", FOLDER])
        self.addCleanup(subprocess.check_call, ["rm", "-rf", FOLDER])
        self.at, self.d, self.me = self.cards(*options), self.daemon("-f"), self.requester()

    # A job's result; a read-back has no answer, but the job behind it has.
    def do(self, code, path, hor=100, ver=20, **fields):
        fields = job(code, path, hor, ver, slot=SLOT, **fields)
        if code == FILE_READ:
            self.me.tell(**fields)
            fields = job(FILE_WRITE, "/none", slot=SLOT, addr=30)
        return self.me.ask(**fields).result

    def on_card(self, name):
        return self.at.file(f"card0-model0-slot{SLOT}-{name}")

    def test_pictures(self):
        self.up()
        rows = [("good.raw", PICTURE + b"more", PICTURE), ("good.bmp", struct.pack("<10xI40x", 54) + PICTURE, PICTURE)]
        rows += [("link", "->good.raw", PICTURE), ("missing", "", BLACK), ("short", PICTURE[1:], BLACK)]
        rows += [("fifo", "fifo", BLACK), ("folder", "folder", BLACK), ("loop", "->loop", BLACK)]
        images = []
        for n, (name, kind, held) in enumerate(rows):
            with self.subTest(name):
                self.assertEqual(self.do(FILE_WRITE, place(name, kind), addr=n), 0)
                self.do(FILE_READ, f"{FOLDER}/back", addr=n << 24)
                self.assertTrue(bytes_of(f"{FOLDER}/back") == held)
                images.append(bytes_of(f"{FOLDER}/back.bmp"))
        for hor, ver in [(65_536, 1), (1, 65_536), (65_535, 65_535)]:
            self.assertEqual(self.do(FILE_WRITE, "/none", hor, ver, addr=0), -1)
        self.assertEqual(self.me.ask(code=FILE_WRITE, payload=struct.pack("<II", 1, 1) + b"/unended").result, -1)
        self.assert_clean(self.at)
        self.assertTrue([self.on_card(f"buffer{n}.bmp") for n in range(len(rows))] == images)

    def test_read_backs(self):
        self.up()
        self.do(FILE_WRITE, place("picture", PICTURE), addr=3)
        subprocess.check_call(f"mkdir {FOLDER}/full && mount -t tmpfs -o size=12k none {FOLDER}/full", shell=True)
        self.addCleanup(subprocess.check_call, ["umount", f"{FOLDER}/full"])
        whole = (8000, 8054)  # both files' sizes; None: no regular file
        rows = [("new", "", "", whole), ("longer", PICTURE * 2, PICTURE * 2, whole), ("folder", "folder", "", (None, 54))]
        rows += [("link", "->new", "", whole), ("same", b"kept", "->same", (4, 4)), ("fifo", "fifo", "", (None, 54))]
        rows += [("no/folder", "", "", (None, None)), ("image", "", "folder", (0, None)), ("full/b", "", "", (8000, 0))]
        for name, kind, image, sizes in rows:
            with self.subTest(name):
                path, image = place(name, kind), place(f"{name}.bmp", image)
                self.do(FILE_READ, path, addr=3 << 24)
                self.assertEqual(tuple(os.path.getsize(p) if os.path.isfile(p) else None for p in (path, image)), sizes)
        self.assert_clean(self.at)

    def test_updates(self):
        self.up("--refuse-piece", 2, "--refuse-piece-times", 2)
        image = content(5, 3000)
        rows = [("twice.bin", 0x1A, image, -1), ("good.bin", 0x1A, image, 0), ("link.bin", 0x1E, "->good.bin", 0)]
        rows += [("missing.bin", 0x1A, "", -1), ("a.dat", 0x1A, image, -1), ("folder.bin", 0x1A, "folder", -1)]
        rows += [("fifo.bin", 0x1A, "fifo", -1), ("none.bin", 0x1F, image, 0), ("a;b", 0x16, b"", -1), ("-a", 0x17, b"", -1)]
        for name, kind, what, result in rows:
            with self.subTest(name):
                self.assertEqual(self.do(UPDATE, place(name, what), kind=kind), result)
        os.path.exists("/run/go") or os.mkfifo("/run/go")
        bench.lay_tool(TOOL, 'echo "$*" > /run/tool; cat /run/go; exit 3')
        for kind, board in [(0x16, "input"), (0x17, "output"), (0x18, "vpu")]:
            self.me.tell(**job(UPDATE, place("mcu", image), kind=kind))
            go = os.open("/run/go", os.O_WRONLY)  # waits for the tool
            self.me.tell(code=GREETING)
            self.me.tell(code=WRITE, addr=0x1000, payload=b"dropped")
            dropped = f'"dropped_in_update":{2 * (kind - 0x15)},'
            self.assertTrue(bench.wait_until(lambda: dropped in text_of("/run/rvkd/status.json")))
            os.close(go)
            answer = self.me.receive()
            self.assertEqual((answer.code, answer.result, answer.payload[0]), (UPDATE, 3 << 8, kind))
            self.assertIn(f"-B {board} -C 0x31 -b {FOLDER}/mcu", text_of("/run/tool"))
        self.assertTrue(self.me.greeted(), "and nothing was kept for later")
        self.assertIn("refused-piece 2", self.at.stop())
        self.assertEqual([self.on_card(f"firmware{n}.bin") for n in (1, 2)], [image, image])
        self.assertEqual(self.at.held(1), {})

    def test_a_whole_picture_leaves_no_memory_behind(self):
        self.up()
        pixels = content(7, 3840 * 2160 * 4)
        self.assertEqual(self.do(FILE_WRITE, place("whole", pixels), 3840, 2160, addr=3), 0)

        def small():
            return int(re.search(r"VmRSS:\s*(\d+)", text_of(f"/proc/{self.d.pid}/status"))[1]) < 6000

        self.assertTrue(bench.SANITIZED or bench.EMULATOR or bench.wait_until(small))
        self.assertTrue(bench.wait_until(lambda: self.me.read(0x1000, 4).result == 0), "the cards have caught up")
        self.assert_clean(self.at)
        image = self.on_card("buffer3.bmp")[54:]  # from the last line on, and each pixel's bytes the other way
        upright = b"".join(image[at : at + 15360] for at in range(len(image) - 15360, -1, -15360))
        self.assertTrue(all(upright[n::4] == pixels[3 - n :: 4] for n in range(4)))


if __name__ == "__main__":
    bench.main()
