# The load: requesters with many commands on their way over a link as bad as the cards make it, and a ledger. Each piece
# of a command has an address of its own, so that every answer, every frame and what the cards hold belong to one. While
# firmware is updated silence is the rule: a command that comes then is neither answered nor sent.
import collections
import random
import time

import bench
from bench import READ, WRITE_ACK

WAITED, UNWAITED = 2, 1  # slots: a write to the one is answered, a lost one to the other reported
PIECE, GAP = 1400, 16  # bytes; the gap shows what is written too far
BYTES = bench.content(9, 70_000)


# A frame's worth of a command; an answer to its command is about the piece that decides.
class Piece:
    def __init__(self, code, slot, addr, size, decides):
        self.code, self.slot, self.addr, self.size, self.decides = code, slot, addr, size, decides
        self.data = BYTES[addr % 65_521 :][:size]
        self.answers = self.result = self.frames = 0
        self.command, self.in_update = (), False  # its pieces; of the last one, whether an update ran when it was sent


class Load:
    def __init__(self, test, requesters=8, unwaited=True):
        self.test, self.unwaited, seed = test, unwaited, time.time_ns()
        print(f"seed {seed}")
        self.dice = random.Random(seed)
        self.asking = [test.requester() for _ in range(requesters)]
        self.awaited = dict.fromkeys(self.asking)  # each one's piece whose answer it waits for
        self.unsent = {who: collections.deque() for who in self.asking}
        self.at = {WAITED: 0x30000000, UNWAITED: 0x1000000}  # where the next write goes
        self.ledger, self.deciding, self.held, self.commands, self.reports = {}, {}, [], 0, 0
        self.updating, self.updates, self.silenced = False, [], 0  # updates by result; what was dropped beside them

    # The next command, or a burst of those that nobody waits for; reads are of what was acknowledged.
    def draw(self, who):
        kind = self.dice.randrange(5 if self.unwaited else 2)
        if kind == 0 and self.held:
            return self.book(who, READ, WAITED, self.held[-1].addr, self.held.pop().size)
        slot = WAITED if kind < 2 else UNWAITED
        for _ in range(1 if slot == WAITED else self.dice.randrange(1, 20)):
            size = self.dice.choice([4, 100, 100, 100, 3000])
            self.book(who, WRITE_ACK, slot, self.at[slot], size)
            self.at[slot] += size + GAP

    def book(self, who, code, slot, first, size):
        starts = range(0, size, PIECE)
        pieces = [Piece(code, slot, first + n, min(PIECE, size - n), slot == UNWAITED or n == starts[-1]) for n in starts]
        self.ledger.update({(code, piece.addr): piece for piece in pieces})
        pieces[-1].command = pieces
        self.deciding[code, first] = pieces[-1 if slot == WAITED else 0]
        data = b"".join(piece.data for piece in pieces) if code == WRITE_ACK else b""
        self.unsent[who].append((pieces[-1], who.message(code=code, slot=slot, addr=first, len=size, payload=data).pack()))
        self.commands += 1

    # Until so many commands were sent, or no more shall be, and none is waited for any more.
    def run(self, commands, goes_on=lambda: True):
        last, more = time.monotonic(), True
        while more or any(self.awaited.values()) or any(self.unsent.values()):
            more = more and self.commands < commands and goes_on()
            if any([self.step(who, more) for who in self.asking]):
                last = time.monotonic()
            else:
                time.sleep(0.0002)
            self.test.assertLess(time.monotonic() - last, bench.PATIENCE, "a command is not answered")

    # An update, commands beside it, until those are answered or certainly will not be: in their order the last read is last.
    def update(self, **fields):
        asking, most, self.updating = self.test.requester(), self.commands + 100, True
        asking.tell(**fields)
        while (answer := asking.receive(0.0002)) is None:
            any([self.step(who, self.commands < most) for who in self.asking])
        self.test.assertIn(answer.result, (0, -1))
        asked = heard = last = 0
        while last != asked or not asked:
            asked += 1
            asking.tell(seq=asked, slot=WAITED, addr=0x1000, len=4)
            while late := asking.receive(2):
                heard, last = heard + 1, late.seq
        self.silenced += asked - heard
        self.updating = False
        self.updates.append(answer.result)
        for who in self.asking:
            while came := who.receive(0):
                self.take(who, came)
            self.awaited[who] = None

    # Takes what came, sends up to a command that is waited for. Result: whether there was anything to do.
    def step(self, who, more):
        moved = False
        while answer := who.receive(0):
            self.take(who, answer)
            moved = True
        if self.awaited[who] is None and not self.unsent[who] and more:
            self.draw(who)
        while self.awaited[who] is None and self.unsent[who]:
            piece, datagram = self.unsent[who][0]
            if not who.try_to_send(datagram):
                break
            self.unsent[who].popleft()
            piece.in_update = self.updating
            self.awaited[who] = piece if piece.slot == WAITED else None
            moved = True
        return moved

    def take(self, who, answer):
        piece = self.deciding.get((answer.code, answer.addr)) or self.ledger.get((answer.code, answer.addr))
        self.test.assertTrue(piece and answer.result in (0, -1) and answer.aptid == bench.identity(), answer)
        piece.answers, piece.result = piece.answers + 1, answer.result
        if piece.slot == UNWAITED:
            self.reports += 1
            return self.test.assertEqual((answer.length, answer.result), (40, -1))
        self.test.assertIs(self.awaited[who], piece, "another's, or one too many")
        self.awaited[who] = None
        self.test.assertEqual(answer.payload, piece.data if piece.code == READ and answer.result == 0 else b"")
        self.held += [piece] if piece.code == WRITE_ACK and answer.result == 0 and piece.addr == answer.addr else []

    # Afterwards, with the cards stopped: everything sent once, or three times before it is given up; what counts as done
    # is held, what is lost was reported. `broken`: the link was, so that a frame may be missing.
    def judge(self, cards, broken=False):
        for frame in bench.frames_in(f"{cards.folder}/pcap/card0.pcap"):
            code, addr = WRITE_ACK if frame[21] == 0x11 else frame[21], int.from_bytes(frame[22:26], "little")
            if frame[:6] == bench.TO_CARD and (piece := self.ledger.get((code, addr))):
                piece.frames += 1
        for last in [piece for piece in self.ledger.values() if piece.in_update]:
            if not any(piece.frames or piece.answers for piece in last.command):
                self.silenced += 1
                for piece in last.command:
                    del self.ledger[piece.code, piece.addr]
        written = [*cards.held(WAITED).items(), *cards.held(UNWAITED).items()]
        held = {at + n: there[n : n + PIECE] for at, there in written for n in range(0, len(there), PIECE)}
        faults = [(why, vars(p)) for p in self.ledger.values() if (why := fault_of(p, held.get(p.addr, b""), broken))]
        self.test.assertEqual(faults[:5], [])


def fault_of(p, there, broken):
    if there not in (b"", p.data) and p.code == WRITE_ACK:
        return "the card holds something else"
    if p.slot == UNWAITED:
        good = 1 <= p.frames <= 3 and (p.answers == 0 and there or p.answers == 1 and p.frames == 3)
        return "" if good else "lost, or not sent or reported as it should be"
    if p.answers != p.decides or p.frames not in ((0, 1) if broken else (1,)):
        return "not one answer and one frame"
    return "called good, but no card has it" if p.decides and p.answers and p.result == 0 and not there else ""
