#!/usr/bin/env python3
"""picture_test.py TOOL [SECONDS]: what the drawing tool makes of reports, whole and damaged."""

import importlib.machinery
import importlib.util
import random
import re
import subprocess
import sys
import time

HEAD = "******** ZOVA deadlock log ********\n{}\n\n******** traces ********\n"
FIRST = HEAD.format("Wed Nov 25 16:50:00 2026") + """\
ZoThread 0x10 wants critical section a "b" owned by thread 0x1 \\ 0xa1 owned by thread 0x20
ZoThread 0x20 is waiting to write RW_Mutex 0xa2 read by thread 0x30
ZoThread 0x30 is waiting for c 0xa3 owned by thread 0x10

ZoThread 0x20 is kernel thread 4711 "worker"
    at Work()+0x4c in engine
"""
SECOND = HEAD.format("Thu Nov 26 03:00:00 2026") + """\
ZoThread 0x40 wants to write RW_Mutex 0xa2 read by thread 0x50
ZoThread 0x50 is waiting for nothing !!!
"""
# Words, input, exit status, what is said of lines, and what a line of the output must match.
CASES = [
    ("", FIRST, 0, [], [r'"1 0x10" -> "1 section 0xa1" .*waits for.*cc0000',
                        r'"1 section 0xa1" .*a \\"b\\" owned by thread 0x1 \\\\\\n0xa1"',
                        r'"1 section 0xa2" -> "1 0x30" .*read by.*cc0000', r'"1 section 0xa3" -> "1 0x10" .*held by',
                        r'"1 0x20" .*4711 \\"worker\\".*tooltip="Work\(\)\+0x4c in engine"']),
    ("", FIRST + SECOND, 0, [], [r'"1 section 0xa2" -> "1 0x30"', r'"2 0x40" -> "2 section 0xa2" \[label=" waits to write"\]']),
    ("--list", FIRST + SECOND, 0, [], [r"^1  line 1  Wed Nov 25 16:50:00 2026  3 threads in a ring: a ",
                                       r"^2  line 11  Thu .* 2 threads in a chain that breaks off: RW_Mutex$"]),
    ("--list --last", FIRST + SECOND, 0, [], [r"^2 "]),
    ("", "torn\n" + FIRST + "more\nZoThread 0x9 is waiting for nothing !!!\n", 1, [1, 12, 13], [r'"1 0x10" -> "1 section 0xa1"']),
    ("", FIRST.replace("0x20 owned", "0x2 owned").replace("0x20 is waiting", "0x21 is waiting"), 1, [6], [r'"1 0x21" -> .*waits to write']),
    ("", FIRST.replace("wants", "wonts"), 1, [5], [r'"1 0x20" \[label="thread 4711 .*0x20", ', r'"1 0x20" -> "1 section 0xa2"']),
    ("", FIRST.replace("Wed", "wed") + SECOND[:-2], 1, [2, 16], [r'label="Report 1, without a date"']),
    ("", "", 1, [], []),
    ("-o /nowhere/ring.svg", FIRST, 2, [], []),
]

# Damaged at random: the reader takes or complains of each line, and what is drawn is quoted well.
loader = importlib.machinery.SourceFileLoader("tool", sys.argv[1])
sys.dont_write_bytecode = True
tool = importlib.util.module_from_spec(importlib.util.spec_from_loader("tool", loader))
loader.exec_module(tool)
WELL_QUOTED = re.compile(r'[^"]*("([^"\\\n]|\\.)*"[^"]*)*')


def damage(text):
    lines = text.splitlines(keepends=True)
    for _ in range(random.randint(1, 4)):
        at, other = random.randrange(len(lines)), random.randrange(len(lines))
        cut = random.randrange(len(lines[at]) + 1)
        noise = "".join(random.choice('"\\\n\r\t\0 x0()<>\u2028\xff') for _ in range(random.randint(0, 3)))
        lines[at] = random.choice([lines[other], lines[at][:cut] + noise + lines[at][cut + random.randint(0, 3):],
                                   lines[at] + lines[other], noise + "\n"])
    return "".join(lines)


def read_damaged():
    text = damage((FIRST + SECOND) * random.randint(1, 2))
    lines, complaints = text.split("\n"), []
    reports = tool.Reader(lambda number, line: complaints.append(line == lines[number - 1])).read(
        line + "\n" for line in lines)
    drawn = "\n".join(tool.draw(list(enumerate(reports, 1))))
    good = all(complaints) and len(reports) == lines.count(tool.HEADER) and WELL_QUOTED.fullmatch(drawn)
    return good, text


seed = random.randrange(1 << 32) if len(sys.argv) > 2 else 1
random.seed(seed)
end = time.monotonic() + (float(sys.argv[2]) if len(sys.argv) > 2 else 0)
damaged = 0
while damaged < 300 or time.monotonic() < end:
    damaged += 1
    good, text = read_damaged()
    if not good:
        sys.exit(f"FAILED with seed {seed}, number {damaged}:\n{text}")
print(f"{damaged} damaged files")

failures = 0
for words, text, status, lines, patterns in CASES:
    ran = subprocess.run([sys.argv[1], *words.split(), "/dev/stdin"], input=text, capture_output=True, text=True)
    said = [int(number) for number in re.findall(r"^/dev/stdin:(\d+): not understood", ran.stderr, re.M)]
    missing = [pattern for pattern in patterns if not re.search(pattern, ran.stdout, re.M)]
    last = "--last" in words and re.search(r"^1 ", ran.stdout, re.M)
    if ran.returncode != status or said != lines or missing or last:
        failures += 1
        print(f"FAILED: {words} {text}\n{ran.returncode}, lines {said}, missing {missing}\n{ran.stdout}{ran.stderr}")
sys.exit(failures != 0)
