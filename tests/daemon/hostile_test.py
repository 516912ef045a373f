# Peers and surroundings that are not as they should be: others are served all the same, the disk does not fill, and a
# line says what it was.
import fcntl
import json
import os
import select
import signal
import socket
import subprocess

import bench
from bench import FILE_READ, GREETING, LOGS, identity, job, socket_file, summed, text_of
from words import lines_meant


# Messages, two each, by the socket that they come from: its path, which identity they name, what becomes of it before,
# and what the log says, if they are not heard.
def leads_to_the_daemon(path):
    return os.rename(path, path + ".away"), os.symlink(socket_file(identity()), path)


def is_led_here_later(_):
    return os.rename("/run/other", "/run/away"), os.symlink("/run/apipc", "/run/other"), os.lchown("/run/other", 1000, -1)


SENDERS = [
    ("/run/./apipc/010a7f70.sock", 0x010A7F70, str, None),
    ("/run/010a3b00.sock", identity(), str, "no endpoint in /run/apipc"),
    ("/run/other/010a7f74.sock", 0x010A7F74, is_led_here_later, "no endpoint in /run/apipc"),
    (None, 0, str, "no endpoint in /run/apipc"),
    ("/run/apipc/010a7f72.sock", 0x010A7F72, leads_to_the_daemon, "no endpoint in /run/apipc"),
    ("/run/apipc/020a3b00.sock", 0x020A3B00, str, "a daemon asks for nothing"),
]


class Hostile(bench.BenchTest):
    def up(self, *options, **how):
        self.at, self.d, self.me = self.cards(*options), self.daemon("-f", **how), self.requester()

    def figure(self, name):
        return json.loads(text_of("/run/rvkd/status.json") or "{}").get(name, {})

    def test_senders(self):
        self.up()
        for path, named, then, said in SENDERS:
            with self.subTest(path), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
                if path:
                    os.makedirs(os.path.dirname(path), exist_ok=True)
                    sender.bind(path)
                then(path)
                before = text_of(LOGS[0])
                for _ in range(2):
                    sender.sendto(self.me.message(code=GREETING)._replace(aptid=named).pack(), socket_file(identity()))
                self.assertTrue(self.me.greeted(1))
                self.assertEqual(text_of(LOGS[0])[len(before) :].count("send ' Hello"), 1 if said else 3)
                self.assertIn(said or "", text_of(LOGS[0])[len(before) :])
        self.assertEqual([oct(os.stat(path).st_mode)[-4:] for path in ("/run/apipc", LOGS[0])], ["3770", "0640"])

    # What is left out is counted: each is told of, whether or not its line is there.
    def test_floods(self):
        self.up()
        with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as link:
            link.bind(("card0", 0))
            for n in range(1500):
                select.select([], [], [], 0.001)  # more at once than the kernel has space for would be lost, untold
                self.me.tell(code=0x55, payload=b"a\n\x1b[2J\x7f" * 50)
                link.send(summed(bench.TO_HOST + bench.TO_CARD + b"\0\0\xaa\x55" + bytes(60))[:-1] + b"\1")
        self.assertTrue(bench.wait_until(lambda: text_of("/run/rvkd/status.json").count(":1500") == 2))
        self.assertEqual(self.d.end(signal.SIGTERM), 0)
        log = text_of(LOGS[0])
        self.assertTrue(r"recv msg: ' a\x0a\x1b[2J\x7fa\x0a" in log and "\x1b" not in log and len(log) < 2_000_000)
        for place, sent in ("log_text", 1501), ("RawMsgHeaderUnpack", 1500):
            self.assertTrue(lines_meant(log, place) == sent and log.count(f"{place}/") < 1400, place)

    def test_nobody_reaches_it_any_more(self):
        alive = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        alive.bind("\0rvk-manager")
        self.up(env={"NOTIFY_SOCKET": "@rvk-manager"})
        self.assertEqual(alive.recv(64), b"WATCHDOG=1")
        os.mkdir("/run/locked")
        fcntl.flock(os.open("/run/locked", os.O_RDONLY), fcntl.LOCK_EX)
        for folder in "/run/apipc", "/run/locked":  # the identity is another's; nobody gets an identity
            second = self.daemon("-d", serves=False, env={"RVK_STATUS_DIR": "/run/second", "APIPC_DIR": folder})
            self.assertTrue(second.shows("create apipc wex fail"))
            self.assertTrue(bench.wait_until(lambda: '"endpoint":0' in text_of("/run/second/status.json")))
            second.kill()
            os.unlink("/run/second/status.json")
        os.rename("/run/apipc", "/run/gone")
        self.assertTrue(bench.wait_until(lambda: self.figure("endpoint") == 0))
        if os.environ["RVK_SANITIZE"] != "thread":  # else there is no rvkctl
            said = subprocess.run([*bench.program("rvkctl"), "hello"], capture_output=True, text=True)
            self.assertIn(f"rvkd runs (process {self.d.pid}), but has no endpoint", said.stderr)
        self.assertTrue(bench.wait_until(lambda: not select.select([alive], [], [], 3)[0] or not alive.recv(64)))

    # A card that answers nothing is asked to the end, which a person sees; a full disk is known before.
    def test_a_read_back_without_a_card_and_without_space(self):
        self.up("--loss", "1.0")
        subprocess.check_call("mount -t tmpfs -o size=16k none /opt; head -c 16k /dev/zero > /opt/x", shell=True)
        self.addCleanup(subprocess.check_call, ["umount", "/opt"])
        for seq, path, unanswered in (7, "/run/back", 1), (8, "/opt/back", 0):
            self.me.tell(**job(FILE_READ, path, 16, 16, seq=seq))
            last = {"number": seq, "requester": self.me.own, "steps": unanswered, "unanswered": unanswered}
            said = lambda: {n: self.figure(f"last_{n}").get("read_back") for n in last}  # noqa: E731
            self.assertTrue(bench.wait_until(lambda: said() == last), (path, said()))


if __name__ == "__main__":
    bench.main()
