#!/usr/bin/env python3
"""gdb_test.py GDB STRIP STUCK LIBRARY [READELF PERF_WAITS]: the debugger's commands on a process, on its
core, and without debug information; with READELF the probes, and what is made of perf's output."""

import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

debugger, strip, stuck, library, *probes = sys.argv[1:]
library = pathlib.Path(library).resolve()
folder = pathlib.Path(tempfile.mkdtemp())
failed = False


def gdb(*words):
    command = [debugger, "-nx", "-batch", "-iex", f"add-auto-load-safe-path {library.parent}:{folder}", *words]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd=folder, timeout=120,
                          start_new_session=True)


def expect(ran, *patterns):
    global failed
    for pattern in patterns:
        if not re.search(pattern, ran.stdout + ran.stderr, re.M):
            failed = True
            print(f"FAILED: no match of {pattern} in\n{ran.stdout}{ran.stderr}")


@contextlib.contextmanager
def standing_still(**environment):
    process = subprocess.Popen([stuck], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, cwd=folder,
                               env=os.environ | environment)
    queue = process.stdout.readline().strip()
    tasks = pathlib.Path(f"/proc/{process.pid}/task")
    while any("\nState:\tS" not in (task / "status").read_text() for task in tasks.iterdir()):
        time.sleep(0.01)
    try:
        yield str(process.pid), queue
    finally:
        process.kill()
        process.wait()


def look(*target, queue):
    commands = ["zo locks", "zo threads", "zo deadlock", f"zo queue {queue}", "zo queue &csDLD", "print *FirstSynchro"]
    return gdb(*target, *(word for command in commands for word in ("-ex", command)))


# Threads by their order: 1 main, 2 reader, 3 writer, 4 and 5 the plain ring, 6 the worker.
SEEN = (
    r'^detecting section "accounts" \w+: thread 3, owning count 2, wait count 2; waiting: thread 2, thread 6$',
    r'^section "left" \w+: thread 4, owning count 1, wait count 1; waiting: thread 5$',
    r'^mutex "RW_Mutex" \w+: thread 3 writes or is admitted next, level 0; read by thread 2; waiting: thread 3$',
    r'^condition "WorkQueue" \w+: value \d+, of queue 0x',
    r'^condition "slept" \w+: value 0; 1 waits before, \d+\.\d ms in all, \d+\.\d ms at most$',
    r'^detecting section "CS chain" \w+: is available$',
    r'^Thread 2 .*\n    holds mutex \w+, 1 reads, 0 writes\n'
    r'    waits to enter detecting section "accounts" \w+, held by thread 3, since \d\d:',
    r'^Thread 3 .*\n    holds detecting section "accounts" \w+, owning count 2, wait count 2\n'
    r'(    holds .*RW_Excl.*\n)?    waits to write mutex "RW_Mutex" \w+, read by thread 2, since \d\d:',
    r'^A ring of 2 threads:\n    Thread 2 .*\n    Thread 3 (.*\n)*Thread 2 .* stands at:\n#0 (.*\n)*.*ZoDLDCritSect::WaitAndTake',
    r'^A ring of 2 threads:\n    Thread 4 .*\n    Thread 5 (.*\n)*Thread 5 .* stands at:\n#0 ',
    r'^queue \w+: open, 1 workers, 2 units wait, context 0x0\n    unit \w+ \(anonymous namespace\)::Blocked$',
    r"^zo: there is no work queue at &csDLD$",
    r'^\$1 = condition "ResourceWatcher" ',
)

with standing_still() as (process, queue):
    expect(look("-p", process, queue=queue), *SEEN)
    gdb("-p", process, "-ex", "generate-core-file core")
expect(look(stuck, "core", queue=queue), *SEEN)

shutil.copy(library, folder / "libzo95Kex.so.1")
subprocess.run([strip, folder / "libzo95Kex.so.1"], check=True)
shutil.copy(f"{library}-gdb.py", folder / "libzo95Kex.so.1-gdb.py")
with standing_still(LD_LIBRARY_PATH=str(folder)) as (process, queue):
    expect(look("-p", process, queue=queue), "^zo: libzo95Kex.so has no debug information here")
expect(gdb("-ex", f"source {library}-gdb.py", "-ex", "zo locks"), "^zo: there is no process")
# Each probe's arguments. The second table has them as they are met one after the other, in words of gdb.
PROBES = {"deadlock_found": 3, "reader_admitted": 3, "thread_ended": 3, "thread_started": 3, "unit_appended": 4,
          "unit_done": 4, "unit_taken": 4, "wait_begun": 4, "wait_ended": 4, "writer_admitted": 3}
NAME = "((ZoSynchroObj*)$_probe_arg0)->name"
MET = (("wait_begun", NAME, "$_probe_arg3", "slept slept 0 1"), ("wait_ended", NAME, "$_probe_arg3", "slept slept 0 1"),
       ("reader_admitted", NAME, "0", "RW_Mutex RW_Mutex 0 1"),
       ("thread_started", "((ZoThread*)$_probe_arg0)->name", "0", "QueueWorker QueueWorker 0 1"),
       ("unit_appended", '"-"', "0", "WorkQueue - 0 1"),
       ("unit_taken", '"-"', "0", "WorkQueue - 0 1"))
RING = (("deadlock_found", NAME, "0", r"(accounts accounts|RW_Mutex RW_Mutex) 0 1"),)
PERF = """
   7   1.000100: sdt_zo95Kex:wait_begun: (7f00) arg1=0x10 arg2=0x1 arg3=0x5 arg4=1
            7f00 PosixCritSect::WaitAndTake
            7f01 Rarely

   8   1.000200: sdt_zo95Kex:wait_begun: (7f00) arg1=0x20 arg2=0x1 arg3=0x5 arg4=1
            7f00 PosixCritSect::WaitAndTake
            7f02 Often

   9   1.000200: sdt_zo95Kex:wait_begun: (7f00) arg1=0x30 arg2=0x1 arg3=0x5 arg4=0
   7   1.001100: sdt_zo95Kex:wait_ended_1: (7f00) arg1=0x10 arg2=0x1 arg3=0x5 arg4=1
   8   1.002200: sdt_zo95Kex:wait_ended: (7f00) arg1=0x20 arg2=0x1 arg3=0x5 arg4=1
            7f02 Often
   9   3.000000: sdt_zo95Kex:wait_ended: (7f00) arg1=0x30 arg2=0x1 arg3=0x5 arg4=0
"""
if probes:
    readelf, perf_waits = probes
    notes = subprocess.run([readelf, "-n", library], capture_output=True, text=True).stdout
    seen = {(name, len(arguments.split())) for name, arguments in
            re.findall(r"Provider: zo95Kex\n +Name: (\w+)\n.*\n +Arguments: (.*)", notes)}
    if seen != set(PROBES.items()):
        failed = True
        print(f"FAILED: the library's notes tell of {sorted(seen)}")
    for met in MET, RING:
        steps = ["start"]
        for probe, name, more, _ in met:
            steps += [f"tbreak -probe-stap zo95Kex:{probe}", "continue",
                      f'printf "{probe}: %s %s %d %d\\n", $_probe_arg1, {name}, {more}, '
                      "$_probe_arg2 == (long)'zotls.cpp'::currentRecord"]
        ran = gdb(*(word for step in steps for word in ("-ex", step)), stuck)
        expect(ran, *(f"^{probe}: {told}$" for probe, _, _, told in met))
    told = subprocess.run([sys.executable, perf_waits, "--read"], input=PERF, capture_output=True, text=True)
    expect(told, r'^"\?" 0x20 +1 +2\.0 +2\.0\n"\?" 0x10 +1 +1\.0 +1\.0\n\n2\.0 ms in 1 waits for "\?" 0x20 at\n'
           r"    PosixCritSect::WaitAndTake\n    Often\n\n1\.0 ms in 1 waits for .* at\n.*\n    Rarely\n\Z")
shutil.rmtree(folder)
sys.exit(failed)
