# Plays transcripts: what a person types and reads, and what cards are sent and say. RVK_TEXT names the texts, `cards` is
# cards.txt and cards-*.txt. In the installed library's, RVK_SOURCE and RVK_BUILD are folders, RVK_CXX and RVK_CXXFLAGS the
# compiler; the LVDS test's pauses of 2 and 30 s end at once where strace says so.
#
#     # title                 a scene: everything below it happens in one world, which ends with it, in a folder of its own
#     ~ cards [0,2] OPTION…   simulated cards on link 0 or on those named, in place of the last ones
#     ~ daemon, ~ liar …      rvkd; a daemon that lies (liar.py says how), in place of the last one
#     ~ file NAME BYTES       a file without a byte alike elsewhere; `~ do COMMAND`: a shell's, that must end well
#     ~ until COMMAND         waits until it ends well; `~ needs TOOL`: where that is missing, the whole program is skipped
#     & COMMAND               runs beside all that follows
#     > STEPS                 frames that the test sends to the cards itself, and their answers (controller.py)
#     $ COMMAND               a shell's. Below it stands all that it says
#       a line                on standard output; `| a line` where it would look like something else
#       {"exit_status": 0}    with --json: an object of the answer's has these members; each must be as its schema says
#       ? code, code          what the liar was asked since the last such line, or `nothing`
#       % 3                   so many frames came to the cards, which end then
#       = 3 a text            its exit status, where it is not 0; with a text: the last line on standard error has this
# `$ frames 1 2` and `$ summary` end the cards and show what those links were asked, which must be the same, and their own
# words; .state is what they held then, .pcap/all1.pcap what went over link 1 in this scene. In a line … is any text, {n} a
# number; a line of … alone is any lines; empty ones do not count. What is not understood fails, and so does a command of which
# nothing is said. On one line: `~ cards … $ COMMAND -> a line`, `-> =3 a text`, and behind two blanks `% 3` or `? codes`.
import glob
import json
import os
import pathlib
import re
import shlex
import shutil
import struct
import subprocess
import sys

import bench
from controller import Controller
from liar import Liar

HERE, PROGRAMS = "/run/play", "/run/played-programs"  # every scene's folder, and ours: in the bench's own /run
TEXTS = os.path.dirname(os.path.abspath(__file__))
SCHEMA = os.path.join(TEXTS, "../../docs/rvkctl.schema.json")


class Step:
    def __init__(self, place, kind, text):
        self.place, self.kind, self.text = place, kind, text
        self.out, self.err, self.objects = [], [], []
        self.asked = self.status = self.requests = None

    # A line below a command. Result: it was understood.
    def takes(self, line):
        mark, rest = line[:2], line[2:]
        if mark == "= " and self.status is None and rest[0].isdigit():
            status, _, says = rest.partition(" ")
            self.status, self.err = int(status), ["…", f"…{says}…"] * (says != "")
        elif mark == "% " and self.requests is None:
            self.requests = int(rest)
        elif mark == "? " and self.asked is None:
            self.asked = rest
        elif line[0] == "{" and "--json" in self.text:
            self.objects.append(json.loads(line))
        elif mark == "| " or line[0] not in "=!?%{|":
            self.out.append(rest if mark == "| " else line)
        else:
            return False
        return True

    # What is said of a command on its own line. Result: it was understood.
    def takes_its_own(self):
        if self.kind != "$":
            return True
        self.text, _, rest = self.text.partition(" -> ")
        said = re.split(r"  (?=[?%] )", rest)
        first = re.sub("^=", "= ", said[0]) if said[0][:1] in ("=", "{") else "| " + said[0]
        return all(self.takes(line) for line in [first] * bool(said[0]) + said[1:])

    def is_told(self):
        return self.kind != "$" or self.out or self.objects or (self.status, self.requests) != (None, None)


# Result: title and steps of each scene.
def scenes_of(path):
    scenes, steps = [], None
    for tool in re.findall("^~ needs (.*)$", bench.text_of(path), re.MULTILINE):
        bench.needs(tool)
    for number, line in enumerate(bench.text_of(path).splitlines(), 1):
        place, line = f"{os.path.basename(path)}:{number}", line.rstrip()
        if line.startswith("# "):
            steps = []
            scenes.append((line[2:], steps))
        elif line[:2] in ("~ ", "$ ", "> ", "& ") and steps is not None:
            world, kind, rest = re.fullmatch(r"(~ (?:cards|liar|file)\b.*?) ([$>]) (.*)|.*", line).groups()
            steps += [Step(place, world[0], world[2:]), Step(place, kind, rest)] if world else [Step(place, line[0], line[2:])]
            if not steps[-1].takes_its_own():
                sys.exit(f"{place}: not understood: {line}")
        elif line and not (steps and steps[-1].kind == "$" and steps[-1].takes(line)):
            sys.exit(f"{place}: not understood: {line}")
    if not scenes or not all(steps and all(step.is_told() for step in steps) for _, steps in scenes):
        sys.exit(f"{path} has no scene, one without a step, or a command of which nothing is said")
    return scenes


# Whether lines are what the patterns say.
def matches(patterns, lines):
    if not patterns or patterns[0] == "…":
        rest = patterns[1:]
        return any(matches(rest, lines[i:]) for i in range(len(lines) + 1)) if patterns else not lines
    pattern = re.escape(patterns[0]).replace("…", ".*").replace(r"\{n\}", r"\d+(\.\d+)?")
    return bool(lines) and re.fullmatch(pattern, lines[0]) is not None and matches(patterns[1:], lines[1:])


def is_part(wanted, got):
    if isinstance(wanted, dict):
        return isinstance(got, dict) and all(key in got and is_part(wanted[key], got[key]) for key in wanted)
    return matches([wanted], [str(got)]) if isinstance(wanted, str) else wanted == got


# Requests of a capture file, a line each; data is named by the scene's file that holds it.
def requests_in(path):
    files = {path.name: path.read_bytes() for path in sorted(pathlib.Path().iterdir()) if path.is_file()}
    for frame in bench.frames_in(path):
        if frame[14:16] != b"\x55\xaa":
            continue
        model, slot, seq, code, addr, size = struct.unpack_from("<HBHBIH", frame, 16)
        data = frame[28 : 28 + size] if code else b""
        names = [f"{name}[{held.find(data)}]" for name, held in files.items() if data in held]
        text = data.hex() if len(data) <= 8 or not names else names[0]
        yield f"{code:02x} {model:x}.{slot:x} #{seq} {addr:x}+{size} {text}".rstrip()


class Play:
    def __init__(self, test):
        self.test, self.cards, self.liar, self.rows, self.said = test, None, None, 0, ""

    def step(self, step):
        try:
            {"~": self.world, "$": self.command, ">": self.frames, "&": self.beside}[step.kind](step)
        except Exception as problem:
            raise AssertionError(f"{step.place}: {step.kind} {step.text}\n{problem}") from None

    def world(self, step):
        what, _, rest = step.text.partition(" ")
        words = shlex.split(rest)
        if what == "cards":
            self.end_cards()
            named = bool(words) and re.fullmatch("[0-2](,[0-2])*", words[0])
            self.links = [int(link) for link in words.pop(0).split(",")] if named else [0]
            # The dissector's captures need no state.
            self.cards, self.said = self.test.cards(*words, links=self.links, kept=os.environ["RVK_TEXT"] != "dissector"), ""
            subprocess.run(["ln", "-sfn", self.cards.folder, ".state"], check=True)
        elif what == "daemon":
            self.test.daemon(*words)
        elif what == "liar":
            if self.liar:
                self.liar.stop()
            self.liar = Liar(**dict(word.split("=") for word in words))
            self.test.addCleanup(self.liar.stop)
        elif what == "file":
            pathlib.Path(words[0]).write_bytes(bench.content(int(words[1]), int(words[1])))
        elif what == "do":
            subprocess.run(["sh", "-ec", rest], check=True, env=environment())
        elif what == "until":
            held = bench.wait_until(lambda: subprocess.run(["sh", "-c", rest], env=environment()).returncode == 0)
            self.test.assertTrue(held, "did not come about")
        elif what != "needs":
            raise AssertionError("no such world")

    # Once they have ended, the frames of each link stand behind those of the cards before them.
    def end_cards(self):
        if self.cards and not self.said:
            self.said = self.cards.stop()
            for link in self.links:
                with open(f".pcap/all{link}.pcap", "ab") as kept:
                    kept.write(self.cards.file(f"pcap/card{link}.pcap")[24 if kept.tell() else 0 :])

    def start(self, command):
        process = bench.Process(["bash", "-c", command], environment(), apart=True, start_new_session=True, cwd=HERE)
        return self.test._kept(process)

    def beside(self, step):
        os.environ["LAST"] = str(self.start(step.text).pid)

    def command(self, step):
        status, err = 0, ""
        if (out := self.built_in(step.text)) is None:
            process = self.start(step.text)
            status, out, err = process.end(), process.output, process.errors
        said = f"said: {out}\n! {err}\n= {status}"
        if step.objects:
            self.check_objects(step.objects, [json.loads(text) for text in re.split("^(?={)", out, flags=re.M) if text], said)
        self.test.assertTrue(step.objects or matches(step.out, [line for line in out.splitlines() if line]), said)
        self.test.assertTrue(matches(step.err, err.splitlines()) and status == (step.status or 0), said)
        if step.requests is not None:
            self.test.assertIn(f": received {step.requests} frames:", self.built_in("summary"), said)
        if step.asked is not None:
            wanted = [] if step.asked == "nothing" else step.asked.split(", ")
            heard = bench.wait_until(lambda: matches(wanted, self.liar.asked))
            self.test.assertTrue(heard, f"asked: {self.liar.asked}")
            self.liar.asked.clear()

    def check_objects(self, wanted, got, said):
        import jsonschema  # a module of Debian's that not every machine has: only its own test needs it

        for each in got:
            jsonschema.validate(each, json.loads(bench.text_of(SCHEMA)), cls=jsonschema.Draft202012Validator)
        self.test.assertTrue(len(got) == len(wanted) and all(map(is_part, wanted, got)), said)

    # Result: what it says; None when it is none.
    def built_in(self, text):
        what, *links = text.split()
        if what not in ("frames", "summary"):
            return None
        self.end_cards()
        seen = {"\n".join(requests_in(f".state/pcap/card{link}.pcap")) for link in links}
        return self.said if what == "summary" else "\nor, on another link:\n".join(seen)

    def frames(self, step):
        self.rows += 1
        self.test._kept(Controller(self.cards, model=self.rows)).play(step.text)


def environment():
    return {**os.environ, "PATH": f"{PROGRAMS}:{os.environ['PATH']}", "LC_ALL": "C.UTF-8", "TEXTS": TEXTS}


# A script for each program, so that a shell finds it, and its emulator where it needs one.
def wrap_programs():
    for name in os.listdir(bench.BIN):
        bench.lay_tool(f"{PROGRAMS}/{name}", f'exec {shlex.join(bench.program(name))} "$@"')


def test_of(steps):
    def test(self):
        for folder in (HERE, "/run/apipc"):
            shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(HERE + "/.pcap")
        os.chdir(HERE)
        play = Play(self)
        for step in steps:
            play.step(step)

    return test


def main(stem):
    texts = sorted(glob.glob(f"{TEXTS}/{stem}.txt") + glob.glob(f"{TEXTS}/{stem}-*.txt"))
    if not texts:
        sys.exit(f"no text is called {stem}")
    for path in texts:
        tests = {f"test_{n:02}_{title}": test_of(steps) for n, (title, steps) in enumerate(scenes_of(path), 1)}
        name = os.path.basename(path).removesuffix(".txt")
        setattr(sys.modules["__main__"], name, type(name, (bench.BenchTest,), tests))
    if bench.BIN:
        wrap_programs()
    bench.main()


if __name__ == "__main__":
    main(os.environ["RVK_TEXT"])
