#!/usr/bin/env python3
"""Makes one table of what the benchmark programs measured.

    report.py [--check] [--docs FOLDER] OUTPUT RESULTS.json ...

A benchmark's name is CASE/WHO or, on a curve, CASE/WHO/NUMBER; WHO is "zo" for ours. Its figure is the time of an
iteration or an item; or else its counters "NAME [ns]" and "NAME [B]", each the figure of "CASE: NAME". Prints the
table, writes it to OUTPUT/table.json and draws it as OUTPUT/performance.svg. A target is missed when it is exceeded by
more than the noise: half the distance of the quartiles of the repetitions, of ours and the peer's
together. --check: a missed target makes the status 1. --docs: also puts the table, the charts and
the curves into that folder's performance.md.
"""

import argparse
import collections
import fnmatch
import itertools
import json
import math
import pathlib
import re
import statistics
import subprocess
import sys

SUFFIX = re.compile(r"/(real_time|manual_time|process_time|iterations:\d+|min_time:[\d.]+|repeats:\d+)\b")
UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

LONGEST = 64
COUNTER = re.compile(r"(.+) \[(ns|B)\]")

Row = collections.namedtuple("Row", "facility case unit ours peer_name peer value noise target met")


class Figure:
    """The repetitions of one benchmark, in nanoseconds ("ns") or bytes ("B")."""

    def __init__(self):
        self.all = []
        self.unit = "ns"

    def median(self):
        return statistics.median(self.all)

    def spread(self):
        """Half the distance of the quartiles."""
        if len(self.all) < 2:
            return 0.0
        low, _, high = statistics.quantiles(self.all, n=4)
        return (high - low) / 2


def figures(run):
    """What follows the case's name, unit and amount of each figure of a run."""
    counters = [(found, run[key]) for key in run if (found := COUNTER.fullmatch(key))]
    if counters:
        return [(f": {found[1]}", found[2], amount) for found, amount in counters]
    if "items_per_second" in run:
        return [("", "ns", 1e9 / run["items_per_second"])]
    return [("", "ns", run["real_time"] * UNITS[run["time_unit"]])]


def read_results(path):
    """The figures of one program: case -> who -> Figure."""
    cases = collections.defaultdict(lambda: collections.defaultdict(Figure))
    runs = json.loads(path.read_text())["benchmarks"]
    # They ran in a random order; told in that of the program.
    runs.sort(key=lambda run: (run["family_index"], run["per_family_instance_index"]))
    for run in runs:
        if run.get("run_type") == "aggregate":
            continue
        if run.get("error_occurred"):
            sys.exit(f"{path}: {run['name']}: {run['error_message']}")
        name = SUFFIX.sub("", run["name"])
        threads = ""
        if found := re.search(r"/threads:(\d+)$", name):
            name = name[: found.start()]
            threads = ", 1 thread" if found[1] == "1" else f", {found[1]} threads"
        size = ""
        if found := re.search(r"/\d+$", name):
            name, size = name[: found.start()], found[0]
        case, _, who = name.rpartition("/")
        case += size + threads
        for suffix, unit, amount in figures(run):
            figure = cases[case + suffix][who]
            figure.unit = unit
            figure.all.append(amount)
    return cases


def read_targets(path):
    targets = []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        fields = [field.strip() for field in line.split("|")]
        if len(fields) != 4:
            sys.exit(f"{path}:{number}: expected: program | case | peer | target")
        targets.append(fields + [number])
    return targets


def compare(facility, case, ours, peer_name, peer, target):
    """One row: the figure that the target is about, its noise and whether the target is met."""
    own = ours.median()
    if peer is None:
        limit, value, noise = float(target.removesuffix("ns")), own, ours.spread()
    elif target.startswith("+"):
        limit, value = float(target[1:].removesuffix("ns")), own - peer.median()
        noise = math.hypot(ours.spread(), peer.spread())
    else:
        limit, value = float(target), own / peer.median()
        noise = value * math.hypot(ours.spread() / own, peer.spread() / peer.median())
    met = "yes" if value <= limit else "noise" if value - noise <= limit else "NO"
    other = peer.median() if peer else None
    return Row(facility, case, ours.unit, own, peer_name, other, value, noise, target, met)


def make_rows(results, targets):
    rows, used = [], set()
    for facility, cases in results.items():
        for case, times in cases.items():
            if "zo" not in times:
                continue
            for who in [*(name for name in times if name != "zo"), "-"]:
                for program, pattern, peer, target, number in targets:
                    if (program, peer) == (facility, who) and fnmatch.fnmatch(case, pattern):
                        used.add(number)
                        rows.append(compare(facility, case, times["zo"], who, times.get(who), target))
                        break
                else:
                    if who != "-":
                        rows.append(
                            compare(facility, case, times["zo"], who, times[who], "inf")
                            ._replace(target="", met="")
                        )
    unused = [t for t in targets if t[0] in results and t[4] not in used]
    for target in unused:
        print(f"targets.txt:{target[4]}: fits nothing that was measured", file=sys.stderr)
    return rows, unused


def shown(amount, unit):
    if amount is None:
        return ""
    if unit == "B":
        return f"{amount:.1f} B"
    for larger, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if amount >= size:
            return f"{amount / size:.2f} {larger}"
    return f"{amount:.2f} ns"


def is_ratio(row):
    return row.peer is not None and not row.target.startswith("+")


def shown_value(row):
    if not is_ratio(row):
        return f"{row.value:.2f} {row.unit} ± {row.noise:.2f}"
    return f"{row.value:.2f} ± {row.noise:.2f}"


def table(rows):
    head = ("facility", "case", "ours", "peer", "peer's", "ratio", "target", "met")
    body = [
        (r.facility, r.case, shown(r.ours, r.unit), r.peer_name, shown(r.peer, r.unit), shown_value(r),
         r.target, r.met)
        for r in rows
    ]
    widths = [max(len(line[i]) for line in [head, *body]) for i in range(len(head))]
    lines = ["| " + " | ".join(f.ljust(w) for f, w in zip(line, widths)) + " |" for line in [head, *body]]
    lines.insert(1, "|" + "|".join("-" * (w + 2) for w in widths) + "|")
    return "\n".join(lines)


def gnuplot(script):
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def draw_ratios(rows, path):
    """A bar a row from 1 to its ratio, on a logarithmic scale; the facilities under headings of their own.

    A bar longer than LONGEST is cut, so that one extreme does not shrink all others; its number tells.
    """
    rows = [r for r in rows if is_ratio(r)]
    if not rows:
        return
    colours = {"yes": 0x3A7D44, "noise": 0xC9A227, "NO": 0xB23A48, "": 0x8D99AE}
    meanings = {"yes": "target met", "noise": "missed within the noise", "NO": "target missed", "": "no target"}
    escape = lambda text: re.sub(r'([_^@&~{}"\\])', r"\\\\\1", text).replace("%", "%%")
    bars, labels, place = [], [], 0
    for facility, members in itertools.groupby(rows, key=lambda r: r.facility):
        labels.append(f'"{{/:Bold {escape(facility)}}}" {place}')
        for r in members:
            place += 1
            number = f"{r.value:.0f}" if r.value >= 100 else f"{r.value:.3g}"
            drawn = min(max(r.value, 1 / LONGEST), LONGEST)
            bars.append(f'{place} {drawn:.4f} {colours[r.met]} "{number}"')
            labels.append(f'"{escape(r.case)} : {escape(r.peer_name)}" {place}')
        place += 2
    legend = ", ".join(
        f'keyentry with boxes fillstyle solid lc rgb {colours[met]} title "{meanings[met]}"' for met in colours
    )
    gnuplot(f"""
set terminal svg size 1200,{170 + 15 * place} font "sans,10" background "white"
set output "{path}"
set title "Ours divided by the peer's: left of 1 ours is faster or smaller, right of 1 slower or larger" \\
    font "sans,13"
set lmargin {0.85 * max(len(r.case + r.peer_name) for r in rows) + 3:.0f}
set tmargin 7
set key outside above center horizontal
set logscale x 2
set logscale x2 2
set format x "%g"
set format x2 "%g"
set xrange [{0.3 / LONGEST}:{3 * LONGEST}]
set x2range [{0.3 / LONGEST}:{3 * LONGEST}]
set yrange [{place - 1}:-1]
set xtics nomirror
set x2tics
set ytics scale 0 ({", ".join(labels)})
set grid xtics
set arrow from 1,{place - 1} to 1,-1 nohead lw 2
$bars << END
{chr(10).join(bars)}
END
plot $bars using (1):1:(1):2:($1-0.35):($1+0.35):3 with boxxyerror fillstyle solid lc rgb variable notitle, \\
    $bars using 2:($2 < 1 ? $1 : NaN):4 with labels right offset -0.5,0 notitle, \\
    $bars using 2:($2 < 1 ? NaN : $1):4 with labels left offset 0.5,0 notitle, {legend}
""")


def draw_curves(cases, path):
    """One picture of every case NAME/N: the time of one operation against N."""
    curves = collections.defaultdict(list)
    for case, times in cases.items():
        name, _, size = case.rpartition("/")
        if name and size.isdigit() and "zo" in times:
            curves[name].append((int(size), times["zo"].median()))
    if not curves:
        return
    data = "".join(
        f"$c{i} << END\n" + "\n".join(f"{n} {t}" for n, t in sorted(points)) + "\nEND\n"
        for i, points in enumerate(curves.values())
    )
    plots = ", ".join(
        f'$c{i} with linespoints pointtype 7 title "{name}"' for i, name in enumerate(curves)
    )
    gnuplot(f"""
set terminal svg size 900,560 font "sans,11"
set output "{path}"
set title "How the cost of one operation grows"
set logscale xy 10
set xlabel "number"
set ylabel "nanoseconds"
set grid
set key outside below
{data}
plot {plots}
""")


def put_into(page, mark, text):
    """Replaces what stands between the mark's two comments."""
    old = page.read_text()
    pattern = re.compile(rf"(<!-- {mark} -->\n).*?(<!-- end -->)", re.S)
    if not pattern.search(old):
        sys.exit(f"{page}: no place marked {mark}")
    page.write_text(pattern.sub(lambda m: m[1] + text + "\n" + m[2], old))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--docs", type=pathlib.Path)
    parser.add_argument("output", type=pathlib.Path)
    parser.add_argument("results", type=pathlib.Path, nargs="+")
    options = parser.parse_args()

    results = {path.stem: read_results(path) for path in options.results}
    targets = read_targets(pathlib.Path(__file__).with_name("targets.txt"))
    rows, unused = make_rows(results, targets)
    text = table(rows)
    print(text)
    missed = [r for r in rows if r.met == "NO"]
    print(f"{len(rows)} compared, {len(missed)} missed")

    (options.output / "table.json").write_text(
        json.dumps([r._asdict() for r in rows], indent=1, ensure_ascii=False)
    )
    draw_ratios(rows, options.output / "performance.svg")
    draw_curves(results.get("growth", {}), options.output / "growth.svg")
    if options.docs:
        put_into(options.docs / "performance.md", "table", text)
        for picture in ("performance.svg", "growth.svg"):
            if (options.output / picture).exists():
                (options.docs / picture).write_bytes((options.output / picture).read_bytes())
    return 1 if unused or (options.check and missed) else 0


sys.exit(main())
