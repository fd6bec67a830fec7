#!/usr/bin/env python3
"""Runs the scenarios of faults.cpp and judges what they tell.

    faults.py PROGRAM LIBRARIES [SCENARIO ...]

PROGRAM and the libraries in the folder LIBRARIES are of one debug build. points.txt says for each call
of the libraries that can fail what a failure ends in, or why no scenario reaches it; anything else is
wrong. Prints how many of the calls of each function of the system library were reached.
"""

import collections
import pathlib
import re
import subprocess
import sys

MODULE = 1 << 28  # as in points.h
# What differs from run to run.
CHANGING = re.compile(r"0x[0-9a-f]+|[0-9TZ:.-]{24}|written by [^;]*|x{9,}|/[^ ]*/faults\w{6}/")
# Functions of the system library that nothing can happen in: they do not fail with what the libraries
# pass to them, or do not return.
OTHERS = set(
    """abort exit free get_nprocs getpid gettid gnu_get_libc_version memchr memcmp memcpy memmove memset
    pause pthread_equal pthread_exit pthread_getspecific pthread_once pthread_self sigaddset sigdelset sigemptyset
    sigfillset snprintf stderr strcmp strerror strerrordesc_np strftime strlen strncmp strncpy strrchr
    vsnprintf""".split()
)

program, folder, scenarios = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3:]
modules = [folder / "libzo95Kex.so", folder / "libzo95Kbs.so", program]
wrong = []


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def plain(function):
    """Namespace, class and name, without parameters and arguments of templates."""
    function = re.sub(r"\(anonymous namespace\)::|\[abi:\w+\]", "", function).split("(")[0]
    while "<" in function and "operator<" not in function:
        function, before = re.sub(r"<[^<>]*>", "", function), function
        if function == before:
            break
    return "::".join(function.split(" ")[-1].split("::")[-2:])


def look_up(places):
    """The function and the file of each place."""
    found = {}
    for number, module in enumerate(modules, 1):
        offsets = sorted({place % MODULE for place in places if place // MODULE == number})
        # The call stands before the return address.
        lines = output("addr2line", "-fCe", module, *(hex(at - 1) for at in offsets)).splitlines()
        for at, function, line in zip(offsets, lines[::2], lines[1::2]):
            found[number * MODULE + at] = plain(function), line.split(":")[0]
    return found


def calls_in(module):
    """The function and the return address of each call of the system library in a library."""
    code = output("objdump", "-d", "--no-show-raw-insn", module)
    for name, after in re.findall(r"\tcall .*<(\w+)@\S*>\n *([0-9a-f]+):", code):
        name = {"_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE": "condition_variable_wait"}.get(
            name, "new" if re.match("_Zn[wa]", name) else name
        )
        yield name, int(after, 16)


told = subprocess.run([program, *scenarios], stdout=subprocess.PIPE, text=True, errors="replace")
if told.returncode != 0:
    wrong.append(f"{program} ends with {told.returncode}")
runs = collections.Counter()
faults, reached, all_places, functions = [], set(), set(), {}
for line in told.stdout.splitlines():
    kind, *fields = line.split("\t")
    if kind == "wrong":
        wrong.append("\n    ".join(fields))
    elif kind == "runs":
        runs[fields[0]] += int(fields[1])
    elif kind in ("place", "fault"):
        frames = [int(frame, 16) for frame in fields[1].split()]
        all_places.update(frames)
        reached.add(frames[0])
        if kind == "fault":
            faults.append((fields[0], frames, fields[2:]))
    else:
        functions[kind] = set(fields)
can_fail, met = functions["can fail"], functions["can fail"] | functions["cannot fail"]

calls = [(name, n * MODULE + at) for n, m in enumerate(modules[:2], 1) for name, at in calls_in(m)]
for name in sorted({name for name, _ in calls if not name.startswith("_")} - met - OTHERS):
    wrong.append(f"{name} is called, and no fault is made of it")
calls = [call for call in calls if call[0] in met]
known = look_up(all_places | {at for _, at in calls})


def site(frames, function):
    """The innermost function of the project's own, and what is called."""
    own = [known[at] for at in frames if re.search(r"/(src|base|include|platform)/[^/]*$", known[at][1])]
    name, file = (own + [known[frames[0]]])[0]
    return f"{pathlib.PurePath(file).stem} {name} {function}"


seen = collections.defaultdict(set)
for function, frames, lines in faults:
    new = {CHANGING.sub("*", line) for line in lines}
    seen[site(frames, function)] |= new or {"nothing"}
unreached = {site([at], name) for name, at in calls if name in can_fail and at not in reached}

points = {}
for line in (pathlib.Path(__file__).parent / "points.txt").read_text().splitlines():
    if line and line[0] != "#":
        where, _, ends = line.partition(": ")
        points[where] = ends
for where, ends in sorted(seen.items()):
    allowed = set(points.get(where, "").split(" | "))
    if not ends <= allowed:
        wrong.append(f"not expected: {where}: " + " | ".join(sorted(ends - allowed)))
if not scenarios:
    missed = unreached - set(seen)
    wrong += [f"no scenario reaches {where}" for where in sorted(missed - set(points))]
    # Some calls are made, and some failures are met again, in a certain order of threads only.
    absent = [where for where, ends in points.items() if not ends.startswith("unreached, ") and where not in seen]
    absent = absent if len(absent) > 3 else []
    absent += [where for where, ends in points.items() if ends.startswith("unreached, ") and where not in missed]
    wrong += [f"points.txt has, and there is not: {where}" for where in absent]

for function in sorted({name for name, _ in calls}):
    places = [at for name, at in calls if name == function]
    print(f"{function:32} {len([at for at in places if at in reached]):4} of {len(places):4} calls")
print(*wrong, sep="\n")
print(", ".join(f"{count} {how}" for how, count in runs.items()), end="; ")
print(f"{len(seen)} places of failures, {len(unreached - set(seen))} not reached, {len(wrong)} wrong")
sys.exit(1 if wrong else 0)
