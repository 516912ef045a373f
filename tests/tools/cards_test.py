# The simulated cards themselves: a card that is wrong about a frame makes every test above it wrong.
import random

import bench
import transcript
from controller import Controller


class Frames(bench.BenchTest):
    def test_memory_is_what_was_written_last(self):
        cards, held, dice = self.cards(), {}, random.Random(1)
        with Controller(cards, model=3) as controller:
            for _ in range(300):  # around the ends of the address space, where pages meet and stretches join
                at, data = dice.randrange(-6000, 6000), dice.randbytes(dice.randrange(1, 200))
                held.update({at + i: byte for i, byte in enumerate(data)})
                controller.exchange("write", [controller.write(at & 0xFFFFFFFF, data)], ["11/0/0"])
        cards.stop()
        saved = {at + i: byte for at, data in cards.held(model=3).items() for i, byte in enumerate(data)}
        self.assertEqual(saved, {at & 0xFFFFFFFF: byte for at, byte in held.items()})


transcript.main("cards")
