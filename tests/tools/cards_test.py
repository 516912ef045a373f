"""The simulated cards themselves: a card that is wrong about a frame makes every test above it wrong."""
import random

import bench
import transcript
from controller import Controller


class Frames(bench.BenchTest):
    def said_to(self, seed, *faults):
        """What comes back to reads and writes in turn, before the answer to a read of another address."""
        cards = self.cards("--seed", seed, *[f"--{fault}=0.1" for fault in faults])
        said = []
        with Controller(cards, model=0) as controller:
            for i in range(200):
                verb, what = ("r", "40") if i % 2 else ("w", "77")
                controller.socket.send(controller.tampered(verb, "1000", what, []))
            last = controller.tampered("r", "2000", "1", [])
            controller.socket.send(last)
            for _ in range(1000):
                if (frame := controller.reply(2, bytes)) is None:
                    controller.socket.send(last)  # it is lost like others
                elif frame[23:27] == b"\0\x20\0\0":
                    break
                else:
                    said.append(frame)
        cards.stop()
        return said

    def test_the_same_seed_brings_the_same_again(self):
        first = self.said_to(7, "loss", "duplicate", "corrupt", "trailing")
        self.assertGreater(len(first), 150)
        self.assertEqual(first, self.said_to(7, "loss", "duplicate", "corrupt", "trailing"))
        self.assertNotEqual(self.said_to(7, "loss", "duplicate"), self.said_to(8, "loss", "duplicate"))

    def test_memory_is_what_was_written_last(self):
        cards, held, dice = self.cards(), {}, random.Random(1)
        with Controller(cards, model=3) as controller:
            for _ in range(300):  # around the ends of the address space, where pages meet and stretches join
                at, data = dice.randrange(-6000, 6000), dice.randbytes(dice.randrange(1, 200))
                held.update({at + i: byte for i, byte in enumerate(data)})
                controller.exchange("write", [controller.write(at & 0xFFFFFFFF, data)], ["11/0/0"])
        cards.stop()
        saved, text = {}, cards.file("card0-model3-slot1.txt").decode().splitlines()[1:]
        for line in text:
            place, _, data = line.partition("  ")
            saved.update({int(place, 16) + i: byte for i, byte in enumerate(bytes.fromhex(data))})
        self.assertEqual(saved, {at & 0xFFFFFFFF: byte for at, byte in held.items()})


transcript.main("cards")
