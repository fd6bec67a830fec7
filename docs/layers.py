#!/usr/bin/env python3
"""Compares the includes of src/ and include/ with docs/architecture.dot, and the private headers with
docs/sources.md.

    docs/layers.py          from the root of the repository

A node of the library names its files: files="a.cpp b.*". Of two nodes the one that stands first is
the upper one. There must be an arrow from a node to another one exactly where a file of the first
includes a file of the second, and it must point down. A node marked shared="yes" may be included by
every node above it, without an arrow.
"""
import fnmatch
import pathlib
import re
import sys

text = pathlib.Path("docs/architecture.dot").read_text()
nodes = {}  # in their order, with their patterns
shared = set()
for name, attributes in re.findall(r"^\s*(\w+) \[([^\]]*)\]", text, re.M):
    files = re.search(r'files="([^"]*)"', attributes)
    if files:
        nodes[name] = files[1].split()
    if 'shared="yes"' in attributes:
        shared.add(name)
drawn = {(a, b) for a, b in re.findall(r"(\w+) -> (\w+)", text) if a in nodes and b in nodes}

wrong = []


def node_of(file):
    owners = [n for n, patterns in nodes.items() if any(fnmatch.fnmatch(file, p) for p in patterns)]
    if len(owners) != 1:
        wrong.append(f"{file} is in {' and '.join(owners) or 'no node'}")
        return None
    return owners[0]


paths = [p for folder in ("include", "src") for p in sorted(pathlib.Path(folder).glob("*.[hc]*"))]
owner = {path.name: node_of(path.name) for path in paths}
included = {}
for path in paths:
    for header in re.findall(r'^#include "([^"]+)"', path.read_text(), re.M):
        pair = owner[path.name], owner.get(header)
        if None not in pair and pair[0] != pair[1]:
            included.setdefault(pair, f"{path.name} includes {header}")

order = list(nodes)
for (a, b), why in included.items():
    if order.index(a) > order.index(b):
        wrong.append(f"{a} -> {b} points up: {why}")
    elif b not in shared and (a, b) not in drawn:
        wrong.append(f"{a} -> {b} is missing: {why}")
for a, b in sorted(drawn - set(included)):
    wrong.append(f"{a} -> {b} is drawn, and no file includes one")
listed = re.findall(r"^\| `(\w+\.h)` \|", pathlib.Path("docs/sources.md").read_text(), re.M)
private = [path.name for path in paths if path.parent.name == "src" and path.suffix == ".h"]
wrong += [f"{name} is in only one of src/ and docs/sources.md" for name in sorted({*listed} ^ {*private})]
wrong += [f"docs/sources.md: {b} does not follow {a}" for a, b in zip(listed, listed[1:]) if a >= b]
print("\n".join(wrong) or f"{len(nodes)} nodes, {len(included)} arrows")
sys.exit(bool(wrong))
