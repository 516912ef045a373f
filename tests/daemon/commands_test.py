# Commands as another process sends them: what each is answered, what reaches the cards, and what the status counts.
import json
import re
import socket

import bench
from bench import COMPANION, FILE_WRITE, GREETING, SELF, UPDATE, WRITE, WRITE_ACK, Message, identity

HELD = bench.content(1, 1400)
LONG = {code: bench.job(code, "/" + "x" * 1007)["payload"] for code in (FILE_WRITE, UPDATE)}


# What is told when a write that nobody waits for has failed.
REPORT = Message(identity(), 0, 40, -1, data_len=14, code=WRITE_ACK, slot=0, addr=0x9000)

TEXT = b"Hello, I am rvk module!".ljust(72, b"\0")
HELLO = Message(identity(), 0, 72, data_len=46, id=0, code=GREETING, slot=0, len=32, payload=TEXT)

# What it is, fields, and the answer: a result, data, a whole message, or None.
ROWS = [
    ("a write to slot 2 is waited for", dict(code=WRITE_ACK, slot=2, addr=0x2000, payload=HELD), 0),
    ("one to slot 1 is not", dict(code=WRITE_ACK, addr=0x0FFFFA00, payload=HELD), None),
    ("one of several frames", dict(code=WRITE_ACK, slot=3, addr=0x6000, payload=HELD * 3), 0),
    ("a plain write of several", dict(code=WRITE, slot=4, model=5, addr=0x600, payload=HELD * 4), None),
    ("some", dict(slot=2, id=7, seq=0xABCD, msg_type=1, addr=0x2010, len=16), HELD[16:32]),
    ("all that fits", dict(slot=2, addr=0x2000, id=253, len=1400), HELD),
    ("too much", dict(len=1401), -1),
    ("a cut write", dict(code=WRITE_ACK, addr=0x9000, len=11, payload=b"12345678"), REPORT),
    ("a picture job too long", dict(code=FILE_WRITE, payload=LONG[FILE_WRITE]), -1),
    ("an update too long", dict(code=UPDATE, payload=LONG[UPDATE]), -1),
    ("a greeting", dict(code=GREETING, payload=b"hi"), HELLO),
    ("a code that nobody knows", dict(code=0x55, payload=b"text"), None),
    ("another class", dict(code=GREETING, msg_class=28 + 256), None),
]
WRITTEN = {(0, 2): {0x2000: HELD}, (0, 3): {0x6000: HELD * 3}, (5, 4): {0x600: HELD * 4}}  # by model and slot
WRITTEN[0, 1] = dict.fromkeys((0x2000, 0x4000, 0x0FFFFA00), HELD)
FIGURES = {
    "commands": {"read": 3, "write": 1, "write_ack": 6, "file_write": 1, "file_read": 0, "update": 1, "other": 1},
    "refused": {"wrong_sender": 6, "wrong_type": 3, "broadcast": 0, "too_long": 3, "cut": 1, "no_thread": 0, "no_memory": 0},
}


class Commands(bench.BenchTest):
    # Nothing comes before the next greeting's answer but what is expected.
    def exchange(self, who, fields, expected):
        request = who.message(**fields)
        who.send(request.pack())
        if expected is not None and not isinstance(expected, Message):
            result, data = (0, expected) if isinstance(expected, bytes) else (expected, b"")
            data = request.payload[:4] if request.code == UPDATE else data
            length = 0 if request.code == UPDATE else len(data)
            expected = request._replace(aptid=identity(), module=SELF, length=length, result=result, payload=data)
        if expected is not None:
            self.assertEqual(who.receive(), expected)
        self.assertTrue(who.greeted(), "it is the next answer")

    def test_each_is_answered_as_it_should_be(self):
        cards, _, me = self.cards(), self.daemon(), self.requester()
        companion, other = self.requester(identity(COMPANION)), self.requester(identity(COMPANION, board=2))
        for name, fields, expected in ROWS:
            with self.subTest(name):
                self.exchange(me, fields, expected)
        self.exchange(companion, dict(code=WRITE_ACK, addr=0x2000, payload=HELD), 0)  # it waits for everything
        self.exchange(other, dict(code=WRITE_ACK, addr=0x4000, payload=HELD), None)  # another board's does not
        greeting = me.message(code=GREETING).pack()
        others = [name.to_bytes(4, "little") + greeting[4:] for name in (0, identity(), me.own + 1)]
        for datagram in [b"", greeting[:3], greeting[:4], greeting[:39], greeting.ljust(65_576, b"\0"), *others]:
            me.send(datagram)
            self.assertTrue(me.greeted())
        me.send(greeting.ljust(65_575, b"\0"))
        self.assertEqual(me.receive(), HELLO, "the longest")
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as nameless:
            nameless.sendto(greeting, bench.socket_file(identity()))

        def counted():
            status = json.loads(bench.text_of("/run/rvkd/status.json"))
            return all(FIGURES[group].items() <= status[group].items() for group in FIGURES)

        self.assertTrue(bench.wait_until(counted), bench.text_of("/run/rvkd/status.json"))
        samples = re.findall(r"^(rvkd\w+(?:{\S+})?) ([\d.]+)$", bench.text_of("/run/rvkd/status.prom"), re.MULTILINE)
        within = [int(n) for name, n in samples if name.startswith('rvkd_answer_seconds_bucket{link="0"')]
        self.assertTrue(len(samples) == len(dict(samples)) > 100 and within == sorted(within), samples)
        self.assertIsNone(me.receive(0), "a message of no form or of another's name was answered")
        self.assert_clean(cards)
        self.assertEqual({card: cards.held(card[1], card[0]) for card in WRITTEN}, WRITTEN)

    def test_a_requester_that_is_slow_loses_no_answer(self):
        self.daemon()
        bench.set_queue(10)
        slow, got = self.requester(), []
        bench.set_queue(4096)
        for n in range(200):
            slow.tell(len=1401, seq=n)
            got += [slow.receive().seq] if n % 20 == 19 else []
        self.assertTrue(self.requester().greeted(), "nobody waits for it")
        self.assertEqual(got + [slow.receive().seq for _ in range(190)], [*range(200)])


if __name__ == "__main__":
    bench.main()
