# What the daemon says in its log: the form of a line, and whether a dying one said all that it should.
import re
import signal

from bench import EMULATOR

# Time, process, module, function, line of the source, text.
LINE = re.compile(
    r"\[(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}) pid=(\d+)\] "
    r"\[ (?=.{10,}?/)( *[^ ]*?)/(?=.{30,}?/)( *[^ ]*)/(?=[\d ]{5})( *\d+) \]:: (.*)"
)
# An emulator dies itself of a SIGSEGV that another process sends while threads are being started.
DEADLY = [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT] + ([] if EMULATOR else [signal.SIGSEGV])


# The log's lines, taken apart; None for what is no such line.
def lines(log):
    return [found.groups() if (found := LINE.fullmatch(line)) else None for line in log.splitlines()]


# How many lines there would be without the file's limits: all, or those of a function.
def lines_meant(log, function=r"\w*"):
    said = re.findall(rf"\[ .*/ *{function}/ *\d+ \]:: (?:\((\d+) more\)$)?", log, re.MULTILINE)
    return sum(int(n or 1) for n in said)


# What is wrong with the last words: they come once, and as many frames as announced. Empty: nothing.
def fault_in_last_words(log):
    before, death, after = log.partition("task_die!!!\n")
    if not re.search(r"ended by signal \d+, SIG[A-Z]+\n", before):
        return "no signal is named"
    if not death or "task_die!!!" in after:
        return f"{log.count('task_die!!!')} times task_die!!!"
    last = [line[5] for line in lines(after) if line]
    counts = [int(n) for text in last for n in re.findall(r"^backtrace\(\) returned (\d+) addresses$", text)]
    frames = sum(re.search(r"\[0x[0-9a-f]+\]$", text) is not None for text in last)
    return "" if frames >= 3 and counts == [frames] else f"{frames} frames, {counts} announced"
