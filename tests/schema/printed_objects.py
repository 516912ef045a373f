"""Every object that the client prints with --json is what its schema says.

    scripts/in-bench python3 tests/schema/printed_objects.py FOLDER_OF_THE_PROGRAMS SCHEMA

Runs each command on the bench, with the real daemon and simulated cards: once so that it goes well and, where it can, once
so that it does not. The schema names every member, so one that was added or renamed fails here too.
"""
import json
import os
import signal
import subprocess
import sys
import time

import jsonschema

programs, schema_file = map(os.path.realpath, sys.argv[1:])
with open(schema_file, encoding="utf-8") as text:
    schema = json.load(text)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)

PUT = "picture put top.raw --size 4x4 --buffer 0"
RUNS = (  # exit status, objects, command line
    (0, 1, "hello"),
    (3, 1, "--board 9 hello"),
    (0, 1, "write 2 0x100 deadbeef --model 3"),
    (0, 1, "write 1 0x100 01"),
    (0, 1, "write 1 0x100 01 --no-ack --verify"),
    (0, 1, "read 2 0x100 8 --out read.bin"),
    (0, 3, "read 2 0x100 4 --repeat 3 --interval 10 --all"),
    (2, 1, "read 2 0x100 1401"),
    (0, 1, PUT + " --verify --addr 0"),
    (1, 1, PUT + " --verify --addr 0x100000"),
    (2, 1, "picture put none.raw --size 4x4 --buffer 0"),
    (0, 1, "picture get back --size 4x4 --addr 0"),
    (0, 1, "update top.bin --type fpga-1a --slot 3"),
    (1, 1, "update none.bin --type fpga-1a --slot 3"),
    (0, 1, "status"),
    (2, 1, "nonsense"),
)
failures = 0


def fail(line, what):
    global failures
    failures += 1
    print(f"rvkctl --json {line}: {what}")


def objects_in(output):
    decoder, at = json.JSONDecoder(), 0
    while at < len(output):
        found, at = decoder.raw_decode(output, at)
        yield found
        at += len(output[at:]) - len(output[at:].lstrip())


def run(status, count, line):
    ended = subprocess.run([f"{programs}/rvkctl", "--json", *line.split()], stdout=subprocess.PIPE, text=True, check=False)
    check(line, status, count, ended.returncode, ended.stdout)


def check(line, status, count, returned, output):
    if returned != status:
        fail(line, f"status {returned}, not {status}")
    objects = list(objects_in(output))
    if len(objects) != count:
        fail(line, f"{len(objects)} objects, not {count}")
    for printed in objects:
        for error in validator.iter_errors(printed):
            fail(line, f"{error.json_path}: {error.message}")
        if printed["exit_status"] != status:
            fail(line, f"its exit_status is {printed['exit_status']}")


def wait_for(what, holds):
    end = time.monotonic() + 30
    while not holds():
        if time.monotonic() > end:
            sys.exit(f"{what} did not come within 30 s")
        time.sleep(0.05)


os.makedirs("/run/schema_test")
os.chdir("/run/schema_test")
for name, size in (("top.raw", 64), ("top.bin", 5000)):
    with open(name, "wb") as file:
        file.write(os.urandom(size))
with subprocess.Popen([f"{programs}/rvk-cardsim", "--link", "card0"], stdout=subprocess.DEVNULL) as cards, \
        subprocess.Popen([f"{programs}/rvkd"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as daemon:
    wait_for("the daemon", lambda: subprocess.run([f"{programs}/rvkctl", "hello"], capture_output=True,
                                                  check=False).returncode == 0)
    wait_for("its status", lambda: os.path.exists("/run/rvkd/status.json"))
    for row in RUNS:
        run(*row)
    with subprocess.Popen([f"{programs}/rvkctl", "--json", "status", "--watch"], stdout=subprocess.PIPE, text=True) as watch:
        time.sleep(2.5)
        watch.send_signal(signal.SIGINT)
        check("status --watch", 0, 3, watch.wait(), watch.stdout.read())
    daemon.send_signal(signal.SIGKILL)
    time.sleep(4)  # its figures are too old to be worth anything after 3 s
    run(3, 1, "status")
    cards.terminate()
print("failed" if failures else f"{len(RUNS) + 2} commands printed what the schema says")
sys.exit(1 if failures else 0)
