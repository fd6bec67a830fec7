#!/usr/bin/env python3
"""night_page.py BIN PAGE [--write]: types the commands of the page beside a zohost that hangs, and finds
every line that the page shows, numbers aside, in what they print. --write renews the page's lines."""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

programs, page = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2])
folder = pathlib.Path(tempfile.mkdtemp())
DATA = "".join(f"{code:04X};LETTER {code:X};Lu;0;L;;;;;N;;;;;\n" for code in range(0x41, 0x47))


def typed(command, environment):
    ran = subprocess.run(["sh", "-c", command], stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd=folder,
                         env=environment, timeout=120, start_new_session=True)
    return ran.stdout.splitlines()


def without_numbers(line):
    without_days = re.sub(r"[A-Z][a-z]{2} [A-Z][a-z]{2} (?= ?\d)", "DAY ", line)
    return re.sub(r"\s+", " ", re.sub(r"0x[0-9a-f]+|\d+", "N", without_days))


def all_sleep(process):
    tasks = pathlib.Path(f"/proc/{process.pid}/task")
    return all("\nState:\tS" in (task / "status").read_text() for task in tasks.iterdir())


def run_page(environment):
    lines, missing = [], []
    for part in re.split(r"(?<=```console\n)(.*?)(?=```)", page.read_text(), flags=re.S):
        if not part.startswith("$ "):
            lines.append(part)
            continue
        for block in re.split(r"^(?=\$ )", part, flags=re.M)[1:]:
            command, *shown = block.splitlines()
            said = typed(command[2:], environment)
            known = {without_numbers(line) for line in said}
            missing += [(command, line, said) for line in shown if without_numbers(line) not in known]
            missing += [(command, "anything", said)] if not said or not shown else []
            lines.append("\n".join([command, *said]) + "\n")
    return "".join(lines), missing


(folder / "UnicodeData.txt").write_text(DATA)
(folder / "gdb").mkdir()
(folder / "gdb" / "gdbinit").write_text(f"add-auto-load-safe-path {programs.parent / 'lib'}\n")
with open(folder / "err", "w") as errors:
    process = subprocess.Popen([programs / "zohost", "--data=.", "--workers=1", "--deadlock", "--stay"], cwd=folder,
                               stdout=subprocess.DEVNULL, stderr=errors, env=os.environ | {"TMPDIR": str(folder)})
try:
    while "message: Deadlock" not in (folder / "err").read_text() or not all_sleep(process):
        time.sleep(0.05)
    made, missing = run_page(os.environ | {"PID": str(process.pid), "XDG_CONFIG_HOME": str(folder), "LC_ALL": "C",
                                           "PATH": f"{programs}:{os.environ['PATH']}"})
finally:
    process.kill()
    process.wait()
    shutil.rmtree(folder)
if "--write" in sys.argv:
    page.write_text(made)
else:
    for command, line, said in missing:
        print(f"FAILED: {command}\nshows no line as: {line}\nbut:", *said, sep="\n    ")
    sys.exit(bool(missing))
