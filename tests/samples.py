#!/usr/bin/env python3
"""samples.py BUILD: compiles every sample of C++ in the headers and the pages, runs it with the library of
the build, and compares what it prints with what tests/samples.txt expects.

A sample of a header is an indented block of a comment, below an empty line of it, with lines that end as
C++ does; one of a page stands between ```cpp and ```. samples.txt has what a sample leaves out:

    == FILE            the samples of this file, in their order
    %dots A || B       what stands for each … of the next sample; else nothing, or {} behind a ).
                       A line that begins with … is left out
    %lines N           the next N lines of the sample
    %sample            the rest of the sample; what follows belongs to the next one
    %run               what follows runs in main(), with the library context set up
    %prints TEXT       a line of standard output, of which there is no other
    %tells TEXT        a line of standard error, among others

Everything else is C++. A page's sample that is a whole program needs no entry but what it prints.
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile

root = pathlib.Path(__file__).resolve().parent.parent
build = pathlib.Path(sys.argv[1]).resolve()
ENTRIES = root / "tests/samples.txt"
HEADERS = [*sorted(root.glob("include/*.h")), *sorted(root.glob("platform/*.h")), root / "base/zobaseservices.h"]
PAGES = [root / "README.md", root / "CONTRIBUTING.md", *sorted(root.glob("docs/*.md")), root / "proofs/README.md"]
CXX = [os.environ.get("CXX", "c++"), "-std=c++17", "-Wall", "-Wextra", "-Werror", "-Wno-unused-variable",
       "-Wno-unused-but-set-variable", *(f"-I{root / folder}" for folder in ("include", "platform", "base"))]
LINK = [f"-L{build / 'lib'}", f"-Wl,-rpath,{build / 'lib'}", "-lzo95Kex", "-lzo95Kbs", "-pthread"]


class Sample:
    def __init__(self, path, first, lines):
        self.path, self.first, self.lines, self.used = path, first, lines, 0

    def take(self, count, dots):
        """The next lines as C++ that compilers place in the file of the sample."""
        taken = self.lines[self.used:self.used + count]
        first = self.first + self.used
        self.used += len(taken)

        def dot(match):
            return (match[1] or "") + (dots.pop(0) if dots else "{}" if match[1] else "")

        text = "\n".join("" if line.startswith("…") else re.sub(r"(\) )?…", dot, line) for line in taken)
        return f'#line {first} "{self.path}"\n{text}\n'


def header_samples(path):
    found, block, before = [], [], ""
    for number, line in enumerate([*path.read_text().splitlines(), ""], 1):
        if (text := re.match(r"\s*//     (.*)", line)) and (block or re.fullmatch(r"\s*//", before)):
            block.append(text[1])
        elif block:
            if any(re.search(r"([;{}]|\) …)$", re.sub(r"\s+// .*", "", code)) for code in block) and \
                    not block[0].startswith("  "):
                found.append(Sample(path.relative_to(root), number - len(block), block))
            block = []
        before = line
    return found


def page_samples(path):
    text = path.read_text()
    return [Sample(path.relative_to(root), text[:block.start(1)].count("\n") + 1, block[1].splitlines())
            for block in re.finditer(r"^```cpp\n(.*?)^```$", text, re.S | re.M)]


def entries():
    """The lines of samples.txt with their numbers, by file."""
    found = {}
    for number, line in enumerate(ENTRIES.read_text().splitlines(), 1):
        if line.startswith("== "):
            current = found.setdefault(line[3:], [])
        elif found and (not line.startswith("#") or line.startswith("#include")):
            current.append((number, line))
    return found


def program(path, samples, entry):
    """The program that has the samples in it, and what it prints and tells."""
    include = f'#include "{path.name}"\n' if path.suffix == ".h" else ""
    text, prints, tells = [include + '#include "_zothrd.h"\n'], [], []
    dots, runs, rest = [], False, list(samples)
    for number, line in entry:
        word, _, argument = line.partition(" ")
        if word == "%dots":
            dots = argument.split(" || ")
        elif word in ("%sample", "%lines"):
            if not rest:
                raise SystemExit(f"{ENTRIES}:{number}: {path} has no further sample")
            text.append(rest[0].take(int(argument or 1000), dots))
            if word == "%sample":
                rest.pop(0)
        elif word == "%prints":
            prints.append(argument)
        elif word == "%tells":
            tells.append(argument)
        elif word == "%run":
            runs = True
            text.append("int main() {\n___ZoExtendedContext(1);\n{\n")
        else:
            text.append(f'#line {number} "tests/samples.txt"\n{line}\n')
    if rest and any("int main" in line for line in rest[0].lines):
        text.append(rest.pop(0).take(1000, dots))
    elif runs:
        text.append("}\n___ZoExtendedContext(0);\n}\n")
    for sample in rest:
        raise SystemExit(f"{sample.path}:{sample.first}: this sample has no entry in tests/samples.txt")
    return "".join(text), prints, tells


def check(name, text, prints, tells, folder):
    base = folder / re.sub(r"\W", "_", name)
    source = base.with_suffix(".cpp")
    source.write_text(text)
    made = subprocess.run([*CXX, str(source), "-o", str(base), *LINK], capture_output=True, text=True, cwd=root)
    if made.returncode:
        return f"{name}: a sample does not compile\n{made.stderr}"
    config = folder / "zova.ini"
    try:
        ran = subprocess.run([str(base)], stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd=folder,
                             timeout=60, env={**os.environ, "ZOVA_CONFIG": str(config)})
    except subprocess.TimeoutExpired:
        return f"{name}: the sample does not end"
    if ran.returncode or ran.stdout.splitlines() != prints or not set(tells) <= set(ran.stderr.splitlines()):
        return f"{name}: status {ran.returncode}, printed\n{ran.stdout}told\n{ran.stderr}expected\n" + \
            "\n".join(prints + tells)
    return None


known = entries()
programs = []
for path in [*HEADERS, *PAGES]:
    name = str(path.relative_to(root))
    samples = header_samples(path) if path.suffix == ".h" else page_samples(path)
    entry = known.pop(name, [])
    if samples or entry:
        programs.append((name, *program(path, samples, entry), len(samples)))
for name in known:
    raise SystemExit(f"{ENTRIES}: no file {name}")
with tempfile.TemporaryDirectory() as temporary:
    folder = pathlib.Path(temporary)
    (folder / "zova.ini").write_text("[debug]\nZOVAConsole = 1\n")
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") or os.cpu_count())) as pool:
        failures = [failure for failure in pool.map(lambda p: check(*p[:4], folder), programs) if failure]
print(*failures, sep="\n\n")
print(f"{sum(p[4] for p in programs)} samples in {len(programs)} files")
sys.exit(bool(failures))
