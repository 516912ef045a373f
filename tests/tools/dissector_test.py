"""The Wireshark dissector, as tshark runs it, on what the bench tool and simulated cards said to each other."""
import os
import random
import struct
import subprocess

import bench
import transcript

bench.needs("tshark")
LUA = os.path.join(transcript.TEXTS, "../../tools/wireshark/rvk.lua")
SPOILT = 3000


def write_pcap(path, frames):
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHIIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i, frame in enumerate(frames):
            file.write(struct.pack("<IIII", i // 1000, i % 1000 * 1000, len(frame), len(frame)) + frame)


def spoilt(frame, dice):
    """What a bad card, a bad cable or a curious person makes of a frame. One in ten loses its addresses too."""
    frame, first, how = bytearray(frame), dice.choice([0] + [12] * 9), dice.randrange(5)
    if how == 0:
        return frame[: dice.randrange(first, max(len(frame), first + 1))]
    if how == 1:
        return frame + b"\xa5" * dice.randrange(1, 41)
    if how == 2:
        frame = frame[: first + dice.randrange(40)]
    for _ in range(dice.randrange(1, 9)):
        if first < len(frame):
            place = dice.randrange(first, min(first + 20, len(frame)))
            frame[place] = dice.choice([0, 1, 0x7F, 0x80, 0xFF, dice.randrange(256)])
    return frame


class Broken(bench.BenchTest):
    def frames(self):
        """One request and reply of each kind, by way of the bench tool."""
        cards = self.cards("--pcap", "/run/talk", links=(1,))
        with open("/run/block", "wb") as file:
            file.write(bench.content(1, 9000))
        for line in ("fpga 1 readw 3 2 10000 4", "fpga 1 writea 3 2 10000 01000080", "fpga 1 write 0 1 a0 00",
                     "bus write 1 0x20000 /run/block", "bus read 1 0x20000 9000 /run/back"):
            self.assertEqual(bench.run("rvkdiag", *line.split())[0], 0)
        cards.stop()
        return transcript.frames_in("/run/talk/card1.pcap")

    def test_no_frame_is_too_much(self):
        frames, dice = self.frames(), random.Random(1)
        broken = [spoilt(dice.choice(frames), dice) for _ in range(SPOILT)]
        ends = {bytes(frames[0][:12]): "Request to the cards", bytes(frames[1][:12]): "Reply of a card"}
        ours = sum(len(frame) >= 14 and bytes(frame[:12]) in ends for frame in broken)
        write_pcap("/run/whole.pcap", broken)
        subprocess.run(["editcap", "-s", "45", "/run/whole.pcap", "/run/cut.pcap"], check=True)
        for capture in ("/run/whole.pcap", "/run/cut.pcap"):
            told = subprocess.run(["tshark", "-2", "-n", "-X", f"lua_script:{LUA}", "-r", capture, "-V"], capture_output=True,
                                  text=True, check=True, errors="replace")
            for fault in ("Lua", "traceback", "Dissector bug", "Malformed Packet: RVK"):
                self.assertNotIn(fault, (told.stdout + told.stderr)[:10_000_000])
            self.assertEqual(told.stdout.count("\n    Frame Length: "), SPOILT)
            self.assertEqual(sum(told.stdout.count(f"\n{name}") for name in ends.values()), ours)


transcript.main(__file__)
