"""The Wireshark dissector, as tshark runs it, on what the bench tool and simulated cards said to each other."""
import random
import struct
import subprocess

import bench
import transcript

bench.needs("tshark")


class Broken(bench.BenchTest):
    def test_no_frame_is_too_much(self):
        cards, dice = self.cards(links=(1,)), random.Random(1)
        for line in ("fpga 1 readw 3 2 10000 4", "fpga 1 writea 3 2 10000 01000080", "bus read 1 0x20000 900 /run/back"):
            self.assertEqual(bench.run("rvkdiag", *line.split())[0], 0)
        cards.stop()
        frames = transcript.frames_in(f"{cards.folder}/pcap/card1.pcap")
        ours, ends = 0, [bytes(frame[:12]) for frame in frames[:2]]  # a request's and a reply's; blocks have others
        with open("/run/broken.pcap", "wb") as file:
            file.write(struct.pack("<IHHIIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
            for _ in range(2000):  # cut, longer, or with a few other bytes behind the addresses
                frame = bytearray(dice.choice(frames))
                for place in dice.sample(range(12, 30), dice.randrange(5)):
                    frame[place : place + 1] = dice.choice([b"\0", b"\x7f", b"\xff", dice.randbytes(1)])[: len(frame) - place]
                frame = (frame + b"\xa5" * dice.randrange(9))[: dice.choice([dice.randrange(14, 60), 9000])]
                ours += frame[:12] in ends
                file.write(struct.pack("<IIII", 0, 0, len(frame), len(frame)) + frame)
        command = ["tshark", "-2", "-n", "-X", f"lua_script:{transcript.TEXTS}/../../tools/wireshark/rvk.lua", "-V"]
        told = subprocess.run([*command, "-r", "/run/broken.pcap"], capture_output=True, text=True, check=True, errors="replace")
        for fault in ("Lua", "traceback", "Dissector bug", "Malformed Packet: RVK"):
            self.assertNotIn(fault, told.stdout + told.stderr)
        self.assertEqual(told.stdout.count("\nRequest to the cards") + told.stdout.count("\nReply of a card"), ours)


transcript.main("dissector")
