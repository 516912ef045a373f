# A daemon that lies: it holds the daemon's endpoint and a small card memory, keeps what it is asked, and answers as it
# is told to.
#
#     greetings=N answers=no     falls silent behind N greetings; answers no command but those
#     result=N good=N            result of its answers, behind so many good ones
#     strays=yes                 before each answer come others': of another code, sender, number, address, slot, model, a runt
#     report=ADDR                a write there is reported as failed before each greeting
#     late=yes                   an answer that says no to a write at 0x20, of a number past, comes before each greeting
#     spoilt=ADDR from=N         that byte is read as another, from the N-th read on
import os
import threading

import bench

NAMES = {bench.READ: "read", bench.WRITE: "plain", bench.WRITE_ACK: "write"}
MANNERS = "greetings answers result good strays report late spoilt from"


# A command as a transcript has it: code, model.slot, address and length.
def told(m):
    name = NAMES.get(m.code, f"code {m.code:02x}")
    return "hello" if m.code == bench.GREETING else f"{name} {m.model:x}.{m.slot:x} {m.addr:x}+{m.len}"


class Liar(threading.Thread):
    def __init__(self, board=1, **how):
        super().__init__(daemon=True)
        self.how = {key: value if value in ("yes", "no") else int(value, 0) for key, value in how.items()}
        if unknown := set(how) - set(MANNERS.split()):
            raise ValueError(f"no such manner: {unknown}")
        os.makedirs("/run/apipc", exist_ok=True)
        self.own = bench.identity(board=int(board))
        self.end, self.stranger = bench.Requester(self.own), bench.Requester(self.own + 1)
        self.memory, self.asked, self.reads, self.running = {}, [], 0, True
        self.start()

    def stop(self):
        self.running = False
        self.join()
        self.end.close()
        self.stranger.close()

    def run(self):
        while self.running:
            if (m := self.end.receive(0.02)) is not None:
                self.asked.append(told(m))
                self.handle(m)

    # Result: one of a number was left, and is used up.
    def use(self, what):
        self.how[what] = self.how.get(what, 0) - 1
        return self.how[what] >= 0

    def say(self, to, message, by=None):
        (by or self.end).try_to_send(message.pack(), to)  # it may be gone

    def handle(self, m):
        if self.how.get("strays"):
            self.say_strays(m)
        if m.code == bench.GREETING:
            return self.greet(m)
        if m.code in (bench.WRITE, bench.WRITE_ACK):
            self.memory.update({m.addr + i: byte for i, byte in enumerate(m.payload)})
        companion = m.aptid & 0xFFFFFF == 0x0A3C00
        unwaited = m.code == bench.WRITE_ACK and not companion and m.slot == 1 and m.model == 0 and m.addr < 0x10000000
        if unwaited or m.code == bench.WRITE or self.how.get("answers") == "no":
            return None
        result = 0 if self.use("good") else self.how.get("result", 0)
        data = self.data_of(m) if m.code == bench.READ and result == 0 else b""
        return self.say(m.aptid, m._replace(aptid=self.own, result=result, length=len(data), payload=data))

    def greet(self, m):
        failed = bench.Message(self.own, length=40, result=-1, data_len=14, code=bench.WRITE_ACK, slot=0, addr=0x20)
        if self.how.get("late"):
            self.say(m.aptid, failed._replace(seq=m.seq - 1 or 9))
        if "report" in self.how:
            self.say(m.aptid, failed._replace(addr=self.how["report"]))
        if "greetings" not in self.how or self.use("greetings"):
            text = b"Hello, I am rvk module!".ljust(72, b"\0")
            self.say(m.aptid, bench.Message(self.own, length=72, data_len=46, code=bench.GREETING, len=32, payload=text))

    def data_of(self, m):
        self.reads += 1
        data = bytearray(self.memory.get(m.addr + i, 0) for i in range(m.len))
        place = self.how.get("spoilt", -1) - m.addr
        if 0 <= place < len(data) and self.reads >= self.how.get("from", 1):
            data[place] ^= 1
        return bytes(data)

    def say_strays(self, m):
        no = m._replace(aptid=self.own, result=-1, payload=b"")
        self.say(m.aptid, no._replace(code=m.code ^ 0x40))
        self.say(m.aptid, no._replace(aptid=self.own + 1), self.stranger)
        if m.code != bench.GREETING:
            for field in ("seq", "addr", "slot", "model"):
                self.say(m.aptid, no._replace(**{field: getattr(no, field) ^ 1}))
            self.end.try_to_send(no.pack()[:20], m.aptid)
