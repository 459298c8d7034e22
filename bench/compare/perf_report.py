#!/usr/bin/env python3
"""Writes the performance page from the raw outputs scripts/perf.sh leaves in one directory.

usage: perf_report.py OUT_DIR PAGE.md PLOT.dat
"""

import csv
import glob
import json
import os
import re
import statistics
import subprocess
import sys

BACKENDS = ["raw", "monitor", "libevent", "libev", "libuv"]
LIBRARIES = ["libevent", "libev", "libuv"]
ACTIVES = [1, 10, 100]
CALLGRIND_PAIRS = 1000

# The targets the page reports against.
MAX_EXTRA_DISPATCH_INSTRUCTIONS = 25
MAX_TIME_RATIO = 1.03
MAX_SCALING = 1.05
MAX_WRAPPER_INSTRUCTIONS = 25
MAX_DISABLED_NS = 2.0
MAX_MEDIAN_GAP_US = 2.0
MAX_P99_GAP_US = 10.0
MAX_BYTES_PER_DESCRIPTOR = 64.0
# Source lines of the library worth listing: at least this many instructions per callback.
MIN_LINE_INSTRUCTIONS = 1.0

NUMBER = r"[0-9][0-9,]*"


def number(text):
    return int(text.replace(",", ""))


def verdict(ok):
    return "met" if ok else "**missed**"


def read_machine(out):
    machine = {}
    with open(os.path.join(out, "machine.txt")) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition(": ")
            machine[key] = value
    return machine


def read_compare(out):
    with open(os.path.join(out, "compare.csv")) as f:
        rows = list(csv.DictReader(f))
    for row in rows:
        for key, value in row.items():
            if key != "backend" and value != "":
                row[key] = float(value)
    return rows


def compare_row(rows, pairs, active, backend):
    for row in rows:
        if row["pairs"] == pairs and row["active"] == active and row["backend"] == backend:
            return row
    return None


# --- callgrind -------------------------------------------------------------------------


def callgrind_runs(out):
    """{(backend, active): [instructions per callback of each repeat]} and file names."""
    counts = {}
    files = {}
    for path in sorted(glob.glob(os.path.join(out, "callgrind", "*.out"))):
        name = os.path.basename(path)[: -len(".out")]
        if name.startswith("wrapper-"):
            continue
        backend, active, _ = name.rsplit("-", 2)
        with open(path) as f:
            totals = next(number(l.split()[1]) for l in f if l.startswith("totals:"))
        with open(os.path.join(out, "callgrind", name + ".callbacks")) as f:
            callbacks = int(f.read().strip())
        key = (backend, int(active))
        counts.setdefault(key, []).append(totals / callbacks)
        files.setdefault(key, (path, callbacks))
    return counts, files


def annotate(path, *options):
    return subprocess.run(
        ["callgrind_annotate", *options, path], capture_output=True, text=True, check=True
    ).stdout


def self_costs(path, callbacks):
    """Exclusive instructions per callback by function, largest first."""
    costs = []
    for line in annotate(path, "--inclusive=no", "--auto=no").splitlines():
        if "=>" in line:
            continue
        m = re.match(rf"\s*({NUMBER}) (?:\([ 0-9.]+%\)\s+)?(\S.*)$", line)
        if not m or ":" not in m.group(2) or "PROGRAM TOTALS" in line:
            continue
        costs.append((number(m.group(1)) / callbacks, m.group(2)))
    return costs


def library_lines(path, callbacks):
    """Lines of the library's own sources with their instructions per callback."""
    lines = []
    source = None
    for line in annotate(path, "--auto=yes").splitlines():
        m = re.match(r"-- Auto-annotated source: (.*)$", line)
        if m:
            source = m.group(1)
            continue
        library = re.search(r"(?:^|/)src/(utils/.*)$", source or "")
        if library is None:
            continue
        if "=>" in line or "events annotated" in line:
            continue  # calls out and the summary: not the line's own cost
        m = re.match(rf"\s*({NUMBER}) (?:\([ 0-9.]+%\)\s+)?(\S.*)$", line)
        if m and number(m.group(1)) / callbacks >= MIN_LINE_INSTRUCTIONS:
            lines.append((number(m.group(1)) / callbacks, library.group(1), m.group(2).strip()))
    return lines


# Each wrapper and the libc function it calls.
WRAPPED_CALLS = {"EPollWait": "epoll_wait", "Write": "write", "Read": "read", "Ioctl": "ioctl"}


def wrapper_overheads(path):
    """{wrapper: (instructions it adds to its bare libc call per call, calls)}."""
    text = annotate(path, "--auto=yes")
    sections = re.split(r"-- Auto-annotated source: ", text)
    inside = "".join(s for s in sections if re.match(r"\S*src/utils/sys/SystemCall.cpp", s))
    found = {}
    for wrapper, bare in WRAPPED_CALLS.items():
        # Any source file: callgrind names a function after the file of the first line it
        # runs, so a call entered mid-way (at a return, when counting starts) may show
        # under a header the wrapper inlines.
        outer = re.findall(rf"({NUMBER}) (?:\([ 0-9.]+%\)\s+)?=> \S*:"
                           rf"\S*System::{wrapper}\([^)]*\) \(({NUMBER})x\)", text)
        inner = re.findall(rf"({NUMBER}) (?:\([ 0-9.]+%\)\s+)?=> \S*:{bare} "
                           rf"\(({NUMBER})x\)", inside)
        calls = sum(number(c) for _, c in outer)
        if calls == 0 or not inner or sum(number(c) for _, c in inner) != calls:
            continue
        extra = sum(number(i) for i, _ in outer) - sum(number(i) for i, _ in inner)
        found[wrapper] = (extra / calls, calls)
    return found


# --- timer latency -----------------------------------------------------------------------


def all_row(path):
    """min, avg, p50, p99, max (us) of the 'all' row of tavrel-timerlat or the raw loop."""
    with open(path) as f:
        for line in f:
            fields = line.split()
            if fields and fields[0] == "all":
                values = [float(v) for v in fields[2:7]]
                return dict(zip(["min", "avg", "p50", "p99", "max"], values))
    return None


def cyclictest_row(path):
    """min, p50, p99, max (us) from cyclictest's histogram (nearest rank, 1 us buckets)."""
    buckets = []
    overflows = 0
    maximum = None
    with open(path) as f:
        for line in f:
            m = re.match(r"^(\d{6}) (\d+)", line)
            if m:
                buckets.append((int(m.group(1)), int(m.group(2))))
            m = re.match(r"# Histogram Overflows: (\d+)", line)
            if m:
                overflows = int(m.group(1))
            m = re.match(r"# Max Latencies: (\d+)", line)
            if m:
                maximum = float(m.group(1))
    total = sum(c for _, c in buckets) + overflows
    if total == 0:
        return None

    def percentile(p):
        rank = max(1, -(-total * p // 100))
        seen = 0
        for us, count in buckets:
            seen += count
            if seen >= rank:
                return float(us)
        return maximum

    minimum = next(float(us) for us, c in buckets if c > 0)
    return {"min": minimum, "p50": percentile(50), "p99": percentile(99), "max": maximum}


def timer_runs(out):
    runs = []
    for path in sorted(glob.glob(os.path.join(out, "timer", "timerlat-*.txt"))):
        run = path.rsplit("-", 1)[1][: -len(".txt")]
        runs.append({
            "timer": all_row(path),
            "raw": all_row(os.path.join(out, "timer", f"raw-{run}.txt")),
            "cyclictest": cyclictest_row(os.path.join(out, "timer", f"cyclictest-{run}.txt")),
        })
    return [r for r in runs if all(r.values())]


# --- the rest ---------------------------------------------------------------------------


def read_mapmem(out):
    with open(os.path.join(out, "mapmem.txt")) as f:
        text = f.read()
    return {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", text)}


def read_benchmarks(out):
    results = []
    for path in sorted(glob.glob(os.path.join(out, "bench", "*.json"))):
        with open(path) as f:
            data = json.load(f)
        program = os.path.basename(path)[: -len(".json")]
        for b in data.get("benchmarks", []):
            results.append((program, b))
    return results


def to_ns(benchmark, key):
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[benchmark.get("time_unit", "ns")]
    return benchmark[key] * scale


def find_benchmark(benchmarks, pattern):
    for program, b in benchmarks:
        if re.search(pattern, b["name"]) and "error_occurred" not in b:
            return b
    return None


def spread(values):
    return f"{min(values):.1f}..{max(values):.1f}"


class Page:
    def __init__(self):
        self.lines = []

    def add(self, text=""):
        self.lines.append(text)

    def table(self, header, rows):
        self.add("| " + " | ".join(header) + " |")
        self.add("|" + "|".join("---" for _ in header) + "|")
        for row in rows:
            self.add("| " + " | ".join(str(c) for c in row) + " |")
        self.add()


def main():
    out, page_path, plot_path = sys.argv[1:4]
    machine = read_machine(out)
    rows = read_compare(out)
    pair_counts = sorted({int(r["pairs"]) for r in rows})
    actives = sorted({int(r["active"]) for r in rows})
    counts, files = callgrind_runs(out)
    timers = timer_runs(out)
    mapmem = read_mapmem(out)
    benchmarks = read_benchmarks(out)

    page = Page()
    targets = []

    # Dispatch instructions.
    ir = {key: statistics.median(v) for key, v in counts.items()}
    for active in ACTIVES:
        raw = ir.get(("raw", active))
        mon = ir.get(("monitor", active))
        if raw is None or mon is None:
            continue
        extra = mon - raw
        targets.append((f"dispatch instructions per callback, N = {CALLGRIND_PAIRS}, A = {active}",
                        f"≤ raw + {MAX_EXTRA_DISPATCH_INSTRUCTIONS}",
                        f"raw + {extra:.1f} ({mon:.1f} vs {raw:.1f})",
                        verdict(extra <= MAX_EXTRA_DISPATCH_INSTRUCTIONS),
                        f"{extra - MAX_EXTRA_DISPATCH_INSTRUCTIONS:+.1f} instructions"))
        for lib in ("libev", "libuv"):
            other = ir.get((lib, active))
            if other is not None:
                targets.append((f"dispatch instructions, N = {CALLGRIND_PAIRS}, A = {active}",
                                f"below {lib}", f"{mon:.1f} vs {other:.1f}",
                                verdict(mon < other), f"{mon - other:+.1f} instructions"))

    # Time per callback.
    for metric, label in (("wall", "elapsed"), ("cpu", "loop-thread CPU")):
        worst = max(((compare_row(rows, n, a, "monitor")[f"{metric}_ratio"], n, a)
                     for n in pair_counts for a in actives), default=None)
        if worst:
            targets.append((f"time per callback ({label}), median ratio to raw, every (N, A)",
                            f"≤ {MAX_TIME_RATIO}", f"worst {worst[0]:.3f} at N = {worst[1]}, "
                            f"A = {worst[2]}", verdict(worst[0] <= MAX_TIME_RATIO),
                            f"{worst[0] - MAX_TIME_RATIO:+.3f}"))
        behind = []
        for n in pair_counts:
            for a in actives:
                mon = compare_row(rows, n, a, "monitor")[f"{metric}_ratio"]
                for lib in LIBRARIES:
                    other = compare_row(rows, n, a, lib)[f"{metric}_ratio"]
                    if mon > other:
                        behind.append(f"{lib} at N = {n}, A = {a} ({mon:.3f} vs {other:.3f})")
        targets.append((f"time per callback ({label}), never behind the libraries",
                        "monitor ≤ each library", "behind " + "; ".join(behind) if behind
                        else "never behind", verdict(not behind), f"{len(behind)} of "
                        f"{len(pair_counts) * len(actives) * len(LIBRARIES)} comparisons"))
        if len(pair_counts) > 1:
            small, large = pair_counts[0], pair_counts[-1]
            for a in actives:
                grow = (compare_row(rows, large, a, "monitor")[f"{metric}_ns"] /
                        compare_row(rows, small, a, "monitor")[f"{metric}_ns"])
                raw_grow = (compare_row(rows, large, a, "raw")[f"{metric}_ns"] /
                            compare_row(rows, small, a, "raw")[f"{metric}_ns"])
                targets.append((f"per-callback cost ({label}) at N = {large} over N = {small}, "
                                f"A = {a}", f"≤ {MAX_SCALING}", f"{grow:.3f} (raw loop: "
                                f"{raw_grow:.3f})", verdict(grow <= MAX_SCALING),
                                f"{grow - MAX_SCALING:+.3f}"))

    # Wrappers (callgrind) and disabled diagnostics (Google Benchmark).
    wrappers = {}
    wrapper_sources = [files[("monitor", 1)][0]] if ("monitor", 1) in files else []
    wrapper_sources += sorted(glob.glob(os.path.join(out, "callgrind", "wrapper-*.out")))
    for path in wrapper_sources:
        wrappers.update(wrapper_overheads(path))
    for wrapper, (extra, calls) in wrappers.items():
        targets.append((f"instructions System::{wrapper} adds to {WRAPPED_CALLS[wrapper]} "
                        f"(callgrind, {calls} calls)", f"≤ {MAX_WRAPPER_INSTRUCTIONS}",
                        f"{extra:.1f}", verdict(extra <= MAX_WRAPPER_INSTRUCTIONS),
                        f"{extra - MAX_WRAPPER_INSTRUCTIONS:+.1f} instructions"))
    if not wrappers:
        targets.append(("wrapper instructions over the bare call", f"≤ {MAX_WRAPPER_INSTRUCTIONS}",
                        "no callgrind data", "not measured", ""))
    for label, patterns in (("disabled log statement", [r"DisabledLogStatement", r"Log.*Off"]),
                            ("disabled trace section", [r"DisabledTraceSection",
                                                        r"TraceSection.*Disabled"])):
        b = next((found for found in (find_benchmark(benchmarks, p) for p in patterns) if found),
                 None)
        if b is None:
            targets.append((label, f"< {MAX_DISABLED_NS} ns", "no benchmark", "not measured", ""))
            continue
        ns = to_ns(b, "cpu_time")
        targets.append((f"{label} ({b['name']})", f"< {MAX_DISABLED_NS} ns", f"{ns:.2f} ns",
                        verdict(ns < MAX_DISABLED_NS), f"{ns - MAX_DISABLED_NS:+.2f} ns"))

    # Timer.
    if timers:
        gap50 = statistics.median(t["timer"]["p50"] - t["raw"]["p50"] for t in timers)
        gap99 = statistics.median(t["timer"]["p99"] - t["raw"]["p99"] for t in timers)
        targets.append(("Timer median wake-up latency over the raw timerfd loop",
                        f"≤ {MAX_MEDIAN_GAP_US} µs", f"{gap50:+.1f} µs",
                        verdict(gap50 <= MAX_MEDIAN_GAP_US), f"{gap50 - MAX_MEDIAN_GAP_US:+.1f} µs"))
        targets.append(("Timer p99 wake-up latency over the raw timerfd loop",
                        f"≤ {MAX_P99_GAP_US} µs", f"{gap99:+.1f} µs",
                        verdict(gap99 <= MAX_P99_GAP_US), f"{gap99 - MAX_P99_GAP_US:+.1f} µs"))

    # Memory.
    per_fd = mapmem.get("bytes_per_descriptor")
    if per_fd is not None:
        note = "" if mapmem["descriptors"] == mapmem["wanted"] else (
            f" (only {int(mapmem['descriptors'])} of {int(mapmem['wanted'])} distinct "
            f"descriptors: RLIMIT_NOFILE {int(mapmem['fd_limit'])})")
        targets.append(("registry heap bytes per distinct descriptor ever attached",
                        f"≤ {MAX_BYTES_PER_DESCRIPTOR:.0f}", f"{per_fd:.1f}{note}",
                        verdict(per_fd <= MAX_BYTES_PER_DESCRIPTOR),
                        f"{per_fd - MAX_BYTES_PER_DESCRIPTOR:+.1f} bytes"))

    # --- the page ---
    page.add("# Performance")
    page.add()
    page.add("Generated by `scripts/perf.sh` (`--full` for more blocks, rounds and timer runs); "
             "every figure below comes from that one run. The machine is shared: time figures "
             "are noisy, so they are given as medians of block-wise ratios with their spread; "
             "instruction counts (callgrind) repeat and are the firmer figures.")
    page.add()
    page.add("## Machine and run")
    page.add()
    page.table(["", ""], [(k, v) for k, v in machine.items()])

    page.add("## Targets")
    page.add()
    page.table(["target", "wanted", "measured", "verdict", "gap"], targets)

    page.add("## Event loops side by side: time per callback")
    page.add()
    page.add(f"Workload: N socket pairs, A of them written at the start of a round; every read "
             f"callback reads its byte and, until {int(rows[0]['callbacks_per_round'] - rows[0]['active'])} "
             f"writes have happened, writes one byte to the next pair. Each backend's loop runs "
             f"on its own thread at the same (normal) priority; the driver thread starts a round "
             f"through an eventfd the loop watches and waits for the last callback to post "
             f"another. Backends are interleaved in {int(rows[0]['blocks'])} blocks of "
             f"{int(rows[0]['rounds'])} timed rounds each (after warm-up rounds); each "
             f"block's figure is the median round, and the ratio to raw is taken within the "
             f"block. *wall* is elapsed time per callback; *cpu* is the loop thread's CPU "
             f"time per callback, which time taken by other processes on this shared machine "
             f"does not inflate. Ratios: median over blocks [min..max].")
    page.add()
    table = []
    for n in pair_counts:
        for a in actives:
            for b in BACKENDS:
                r = compare_row(rows, n, a, b)
                if r is None:
                    continue
                table.append((n, a, b, f"{r['wall_ns']:.0f}",
                              f"{r['wall_ratio']:.3f} [{r['wall_ratio_min']:.2f}..{r['wall_ratio_max']:.2f}]",
                              f"{r['cpu_ns']:.0f}",
                              f"{r['cpu_ratio']:.3f} [{r['cpu_ratio_min']:.2f}..{r['cpu_ratio_max']:.2f}]"))
    page.table(["N", "A", "backend", "wall ns/cb", "wall ratio", "cpu ns/cb", "cpu ratio"], table)
    page.add("![per-callback cost by backend and N](performance.svg)")
    page.add()

    page.add(f"## Instructions per callback (callgrind, N = {CALLGRIND_PAIRS})")
    page.add()
    page.add("User-space instructions of the whole timed region (both threads) divided by the "
             "callbacks it ran; the kernel's share of each system call is not counted. Each "
             "count was taken twice; *repeats* says whether the two agree.")
    page.add()
    table = []
    for b in BACKENDS:
        for a in ACTIVES:
            v = counts.get((b, a))
            if not v:
                continue
            raw = ir.get(("raw", a))
            same = "exactly" if max(v) == min(v) else f"within {max(v) - min(v):.2f}"
            table.append((b, a, f"{ir[(b, a)]:.1f}", f"{ir[(b, a)] - raw:+.1f}", same))
    page.table(["backend", "A", "instructions/cb", "over raw", "repeats"], table)

    if ("monitor", 1) in files and ("raw", 1) in files:
        page.add("### Where the monitor's extra instructions go")
        page.add()
        page.add("Exclusive instructions per callback by function at A = 1 (one ready "
                 "descriptor per wait, so per-wait and per-event costs both show), monitor "
                 "and raw loop side by side; functions below 1 instruction per callback "
                 "left out.")
        page.add()
        mon_path, mon_cb = files[("monitor", 1)]
        raw_path, raw_cb = files[("raw", 1)]
        raw_costs = {name: c for c, name in self_costs(raw_path, raw_cb)}
        table = []
        for c, name in self_costs(mon_path, mon_cb):
            if c < MIN_LINE_INSTRUCTIONS:
                continue
            table.append((f"`{name.split(' [')[0].split('/')[-1]}`", f"{c:.1f}",
                          f"{raw_costs.get(name, 0.0):.1f}"))
        for c, name in self_costs(raw_path, raw_cb):
            short = name.split(' [')[0].split('/')[-1]
            if c >= MIN_LINE_INSTRUCTIONS and "RawEpollLoop" in name:
                table.append((f"`{short}`", "0.0", f"{c:.1f}"))
        page.table(["function (file:function)", "monitor", "raw"], table)
        # Inlined code is listed under its own file; add it to the function it ran in.
        library = {}
        for c, name in self_costs(mon_path, mon_cb):
            function = name.split(":", 1)[1].split("(")[0]
            if function.startswith("NSCam::NSTavrel"):
                library[function] = library.get(function, 0.0) + c
        loop = sum(c for c, name in self_costs(raw_path, raw_cb) if "RawEpollLoop" in name)
        page.add(f"In all, the library's own code costs {sum(library.values()):.1f} "
                 f"instructions per callback at A = 1 where the raw loop's own code costs "
                 f"{loop:.1f}; by function (inlined code included): " + "; ".join(
                     f"`{f}` {c:.1f}" for f, c in sorted(library.items(), key=lambda i: -i[1])
                     if c >= MIN_LINE_INSTRUCTIONS) + ".")
        page.add()
        page.add("The library's own source lines at A = 1, instructions per callback:")
        page.add()
        page.table(["instructions/cb", "file", "line"],
                   [(f"{c:.1f}", f, f"`{t}`") for c, f, t in library_lines(mon_path, mon_cb)])
        if "EPollWait" in wrappers:
            extra, calls = wrappers["EPollWait"]
            page.add(f"`System::EPollWait` costs {extra:.1f} instructions per call on top "
                     f"of libc's `epoll_wait` (inclusive counts over {calls} calls).")
            page.add()

    page.add("## Timer wake-up latency")
    page.add()
    page.add("One periodic timer at 1 ms, 5000 expiries, normal priority, CLOCK_MONOTONIC: "
             "`tavrel-timerlat --interval 1000 --loops 5000` (a Timer on an EpollMonitor), "
             "the bare timerfd + epoll loop `tavrel-raw-timerlat` with the same settings, "
             "and `cyclictest -m -i 1000 -l 5000 -q -h 20000` (its histogram gives the "
             f"median and p99), run back to back {len(timers)} times. Figures in µs: median "
             "over runs [min..max over runs].")
    page.add()
    if not timers:
        page.add("No complete run: tavrel-timerlat failed or was missing (see perf.sh's output).")
        page.add()
    else:
        table = []
        for key, label in (("timer", "Timer on EpollMonitor"), ("raw", "raw timerfd loop"),
                           ("cyclictest", "cyclictest")):
            cells = [label]
            for stat in ("min", "p50", "p99", "max"):
                values = [t[key][stat] for t in timers]
                cells.append(f"{statistics.median(values):.1f} [{spread(values)}]")
            table.append(cells)
        page.table(["program", "min", "median", "p99", "max"], table)

    page.add("## Registry memory")
    page.add()
    if per_fd is not None:
        page.add(f"{int(mapmem['descriptors'])} distinct descriptor numbers attached and "
                 f"detached once each on one monitor (the registry keeps every number it has "
                 f"seen); heap in use (mallinfo2: `uordblks` + `hblkhd`, so the bucket array "
                 f"that malloc maps on its own counts too) grew from "
                 f"{int(mapmem['heap_before'])} to {int(mapmem['heap_after'])} bytes: "
                 f"**{per_fd:.1f} bytes per descriptor**.")
        page.add()

    page.add("## Micro-benchmarks (Google Benchmark)")
    page.add()
    table = []
    for program, b in benchmarks:
        if b.get("run_type") == "aggregate":
            continue
        extra = ", ".join(f"{k}={v:g}" for k, v in b.items()
                          if isinstance(v, (int, float)) and k not in (
                              "real_time", "cpu_time", "iterations", "repetitions",
                              "repetition_index", "threads", "family_index",
                              "per_family_instance_index"))
        table.append((program, f"`{b['name']}`", f"{to_ns(b, 'real_time'):.1f}",
                      f"{to_ns(b, 'cpu_time'):.1f}", b.get("iterations", ""), extra))
    page.table(["program", "benchmark", "real ns", "cpu ns", "iterations", "counters"], table)

    # What the figures cannot show: why a missed target stays missed. Kept by hand, beside
    # this script, and carried over into every regenerated page.
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "gaps.md")
    if os.path.exists(notes_path):
        with open(notes_path) as f:
            page.add(f.read().rstrip())
            page.add()

    with open(page_path, "w") as f:
        f.write("\n".join(page.lines).rstrip() + "\n")

    # Plot data: one gnuplot data set per A, a row per N, a column per backend.
    with open(plot_path, "w") as f:
        for a in actives:
            f.write(f"# A = {a}\n# N " + " ".join(BACKENDS) + "\n")
            for n in pair_counts:
                f.write(f"{n} " + " ".join(f"{compare_row(rows, n, a, b)['wall_ns']:.1f}"
                                           for b in BACKENDS) + "\n")
            f.write("\n\n")


if __name__ == "__main__":
    main()
