#!/usr/bin/env python3
"""picture_test.py TOOL: what the drawing tool makes of reports, whole and damaged."""

import re
import subprocess
import sys

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
