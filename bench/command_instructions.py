"""Instructions that the daemon executes for one command, counted by callgrind: what a change to the path of a command costs.

    scripts/in-bench python3 bench/command_instructions.py FOLDER_OF_THE_PROGRAMS [-f]      -f: the daemon logs to its file

Counts what the thread of commands and the receiving thread do with 1,000 commands of each kind, answers of a simulated card
included; the kernel's part, the check thread's and the status thread's are not in it. The same again within 0.2 %, since the
log looks up the local time once a second.
"""
import os
import socket
import struct
import subprocess
import sys
import time

programs = os.path.realpath(sys.argv[1])
REQUESTER, DAEMON = 0x010A7F05, 0x010A3B00
GREETING = (0xF0, 0, b"hi\0", 3)
KINDS = {  # what is sent: code, slot, payload, len; the last of each is answered
    "acknowledged write, waited for": [(0x02, 2, b"\1\2\3\4", 4)],
    "read": [(0x00, 2, b"", 8)],
    "plain write and greeting": [(0x01, 2, b"\1\2\3\4", 4), GREETING],
    "acknowledged write and greeting": [(0x02, 1, b"\1\2\3\4", 4), GREETING],
}
COMMANDS = 1000


def path(identity):
    return f"/run/apipc/{identity:08x}.sock"


def send(requester, kind):
    for code, slot, payload, length in KINDS[kind]:
        requester.sendto(struct.pack("<IIIIHHIBBBBHHIH", REQUESTER, 0, len(payload), 0, 0, 28, 14 + len(payload), 0x7F,
                                     254, code, slot, 0, 1, 0x100, length) + payload + b"\0\0", path(DAEMON))
    requester.recv(65575)


def control(*arguments):
    subprocess.run(["callgrind_control", *arguments], check=True, capture_output=True)


def count(requester, daemon, kind):
    send(requester, kind)
    control("-z", str(daemon.pid))
    for _ in range(COMMANDS):
        send(requester, kind)
    before = set(os.listdir("."))
    control("-d", str(daemon.pid))
    while not (new := set(os.listdir(".")) - before):
        time.sleep(0.05)
    time.sleep(0.2)  # until it is written
    with open(new.pop(), encoding="utf-8") as dump:
        return next(int(line.split()[1]) for line in dump if line.startswith("summary:"))


os.makedirs("/run/callgrind")
os.chdir("/run/callgrind")
quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
cards = subprocess.Popen([f"{programs}/rvk-cardsim", "--link", "card0"], **quiet)
daemon = subprocess.Popen(["valgrind", "--tool=callgrind", "--callgrind-out-file=counted", "--collect-atstart=no",
                           "--toggle-collect=rvk::ApipcEventDeal*", "--toggle-collect=rvk::receive_step*",
                           f"{programs}/rvkd", *sys.argv[2:]], **quiet)
while subprocess.run([f"{programs}/rvkctl", "hello"], check=False, **quiet).returncode != 0:
    if daemon.poll() is not None:
        sys.exit("rvkd does not start: are the programs in that folder, and is valgrind installed?")
    time.sleep(0.2)
time.sleep(30)  # the pictures at start, which use the same threads
with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as requester:
    requester.settimeout(10)
    requester.bind(path(REQUESTER))
    for name in KINDS:
        print(f"{name}: {count(requester, daemon, name) / COMMANDS:.0f} instructions")
daemon.terminate()
cards.terminate()
