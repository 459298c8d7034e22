#!/usr/bin/env python3
"""Writes the performance page from the raw outputs scripts/perf.sh leaves in one directory.

usage: perf_report.py OUT_DIR PAGE.md TIME_PLOT.dat INSTRUCTIONS_PLOT.dat

Every figure on the page comes from OUT_DIR. A target is "met" or "missed" only when the
spread of its comparison lies wholly on one side of the limit; otherwise the page says it is
not resolved on this machine and gives the spread.
"""

import csv
import glob
import json
import math
import os
import re
import statistics
import sys

from instruction_counts import (ACTIVES, CALLGRIND_PAIRS, NUMBER, annotate, budgets,
                                callback_runs, number, source_lines)

BACKENDS = ["raw", "monitor", "libevent", "libev", "libuv"]
LIBRARIES = ["libevent", "libev", "libuv"]
SCHEDULES = {"normal": "normal priority (SCHED_OTHER, nice 0)", "fifo": "SCHED_FIFO"}
TIMER_PROGRAMS = {"timer": "Timer on EpollMonitor (tavrel-timerlat)",
                  "raw": "raw timerfd loop (tavrel-raw-timerlat)", "cyclictest": "cyclictest"}

# The targets the page reports against, besides the instruction budgets of
# instruction_counts.py.
MAX_TIME_RATIO = 1.03
MAX_SCALING = 1.05
MAX_DISABLED_NS = 2.0
MAX_MEDIAN_GAP_US = 2.0
MAX_P99_GAP_US = 10.0
MAX_P99_OVER_CYCLICTEST = 2.0
MAX_BYTES_PER_DESCRIPTOR = 64.0
# Source lines of the library worth listing: at least this many instructions per callback.
MIN_LINE_INSTRUCTIONS = 1.0
# How sure the interval of a median of block-wise figures is.
CONFIDENCE = 0.95

UNRESOLVED = "not resolved on this machine"


def judge(low, high, limit, strict=False):
    """The verdict on "at most `limit`" (strict: "below") of a figure known to lie in
    [low, high]."""
    if high < limit or (high == limit and not strict):
        return "met"
    if low > limit or (low == limit and strict):
        return "**missed**"
    return UNRESOLVED


def median_interval(values):
    """The order statistics that hold the median with at least CONFIDENCE, whatever the
    distribution: the k-th smallest and the k-th largest for the largest k with
    P(Binomial(n, 1/2) < k) <= (1 - CONFIDENCE) / 2. Too few values: min and max."""
    ordered = sorted(values)
    n = len(ordered)
    k, below = 0, 0.0
    while k < n:
        below += math.comb(n, k) / 2 ** n
        if below > (1 - CONFIDENCE) / 2:
            break
        k += 1
    if k == 0:
        return ordered[0], ordered[-1]
    return ordered[k - 1], ordered[n - k]


def span(low, high, digits=1, unit=""):
    return f"[{low:.{digits}f}..{high:.{digits}f}]{unit}"


def read_machine(out):
    machine = {}
    with open(os.path.join(out, "machine.txt")) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition(": ")
            machine[key] = value
    return machine


def cpu_busy(path):
    """Share of all CPUs' time that was busy, and that the hypervisor took (steal), between
    the two /proc/stat "cpu" lines in `path`; None when it is missing."""
    if not os.path.exists(path):
        return None
    with open(path) as f:
        lines = [list(map(int, l.split()[1:])) for l in f if l.startswith("cpu ")]
    if len(lines) != 2:
        return None
    delta = [b - a for a, b in zip(*lines)]
    total = sum(delta[:8])  # guest time is already in user and nice
    idle = delta[3] + delta[4]
    return (total - idle) / total, delta[7] / total


def read_compare(out):
    with open(os.path.join(out, "compare.csv")) as f:
        rows = list(csv.DictReader(f))
    for row in rows:
        for key, value in row.items():
            if key != "backend" and value != "":
                row[key] = float(value)
    return rows


def read_blocks(out):
    """{(N, A, backend): {"wall": [ns per block], "cpu": [...]}}"""
    blocks = {}
    with open(os.path.join(out, "compare-blocks.csv")) as f:
        for row in csv.DictReader(f):
            key = (int(row["pairs"]), int(row["active"]), row["backend"])
            entry = blocks.setdefault(key, {"wall": [], "cpu": []})
            entry["wall"].append(float(row["wall_ns"]))
            entry["cpu"].append(float(row["cpu_ns"]))
    return blocks


def block_ratios(blocks, n, a, backend, other, metric):
    """backend over other, block by block (both ran in every block)."""
    mine = blocks[(n, a, backend)][metric]
    theirs = blocks[(n, a, other)][metric]
    return [m / t for m, t in zip(mine, theirs)]


# --- callgrind -------------------------------------------------------------------------


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


# --- timer latency -----------------------------------------------------------------------


def read_histogram(path):
    """min, p50, p99 and max (us) of a histogram in cyclictest's format (1 us buckets, nearest
    rank; a percentile among the overflows is the maximum); None if unreadable."""
    if not os.path.exists(path):
        return None
    buckets, overflows, maximum = [], 0, None
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
    if total == 0 or maximum is None:
        return None

    def percentile(p):
        rank = max(1, -(-total * p // 100))
        seen = 0
        for us, count in buckets:
            seen += count
            if seen >= rank:
                return float(us)
        return maximum

    minimum = next((float(us) for us, c in buckets if c > 0), maximum)
    return {"min": minimum, "p50": percentile(50), "p99": percentile(99), "max": maximum,
            "count": total}


def timer_runs(out):
    """{schedule: [{program: figures}]}, only runs in which every program finished."""
    found = {}
    for schedule in SCHEDULES:
        runs = []
        for path in sorted(glob.glob(os.path.join(out, "timer", f"timer-{schedule}-*.txt"))):
            run = path.rsplit("-", 1)[1][: -len(".txt")]
            figures = {p: read_histogram(os.path.join(out, "timer", f"{p}-{schedule}-{run}.hist"))
                       for p in TIMER_PROGRAMS}
            if all(figures.values()):
                runs.append(figures)
        if runs or glob.glob(os.path.join(out, "timer", f"*-{schedule}-*")):
            found[schedule] = runs
    return found


def timer_header(out, schedule):
    """The header line tavrel-timerlat printed in its first run: what the thread really ran
    with."""
    for path in sorted(glob.glob(os.path.join(out, "timer", f"timer-{schedule}-*.txt"))):
        with open(path) as f:
            first = f.readline().strip()
        if first.startswith("clock "):
            return " ".join(first.split())
    return None


# --- timer latency under load ------------------------------------------------------------


def loaded_runs(out):
    """(schedule, [{program: figures}]) of the timer runs under stress-ng, only runs in which
    every program finished; None when there were none."""
    paths = sorted(glob.glob(os.path.join(out, "loaded", "timer-*-*.txt")))
    if not paths:
        return None
    schedule = os.path.basename(paths[0]).split("-")[1]
    runs = []
    for path in paths:
        run = path.rsplit("-", 1)[1][: -len(".txt")]
        figures = {p: read_histogram(os.path.join(out, "loaded", f"{p}-{schedule}-{run}.hist"))
                   for p in TIMER_PROGRAMS}
        if all(figures.values()):
            runs.append(figures)
    return schedule, runs


def loaded_targets(loaded):
    if not loaded or not loaded[1]:
        return [("Timer p99 wake-up latency over cyclictest's under load",
                 f"≤ {MAX_P99_OVER_CYCLICTEST}×", "no complete run", "", "not measured")]
    schedule, runs = loaded
    ratios = [r["timer"]["p99"] / r["cyclictest"]["p99"] for r in runs]
    return [(f"Timer p99 wake-up latency over cyclictest's under load (stress-ng on every core), "
             f"{SCHEDULES[schedule]}", f"≤ {MAX_P99_OVER_CYCLICTEST}×",
             f"{statistics.median(ratios):.2f}×",
             span(min(ratios), max(ratios), 2, "×") + f" over {len(runs)} runs",
             judge(min(ratios), max(ratios), MAX_P99_OVER_CYCLICTEST))]


def write_latency_table(page, runs):
    """Each timer program's min, median, p99 and max in µs: median over runs [spread]."""
    table = []
    for key, label in TIMER_PROGRAMS.items():
        cells = [label]
        for stat in ("min", "p50", "p99", "max"):
            values = [r[key][stat] for r in runs]
            cells.append(f"{statistics.median(values):.0f} {span(min(values), max(values), 0)}")
        table.append(cells)
    page.table(["program", "min", "median", "p99", "max"], table)


def write_loaded_timers(page, out, machine, loaded):
    page.add("## Timer wake-up latency under load")
    page.add()
    load = machine.get("stress-ng load", "stress-ng")
    page.add(f"The three programs of the previous section, run the same way "
             f"({machine.get('timer runs', '?')} runs of {machine.get('timer expiries', '?')} "
             f"expiries at 1 ms each, back to back), while `{load}` keeps every core busy: CPU workers, and I/O workers that call sync() over and "
             "over, all at normal priority. The timer programs run at SCHED_FIFO where this "
             "machine permits it, so that the workers wait for them, else at normal priority, "
             "competing with the workers. Figures as above, in µs: median over runs [min..max "
             "over runs].")
    page.add()
    if not loaded or not loaded[1]:
        page.add("No run in which all three programs finished (see perf.sh's output).")
        page.add()
        return
    schedule, runs = loaded
    page.add(f"### {SCHEDULES[schedule]}, under load")
    page.add()
    with open(sorted(glob.glob(os.path.join(out, "loaded", "timer-*.txt")))[0]) as f:
        header = " ".join(f.readline().split())
    if header.startswith("clock "):
        page.add(f"tavrel-timerlat's header: `{header}`.")
        page.add()
    page.add(f"{len(runs)} complete runs.")
    page.add()
    write_latency_table(page, runs)


# --- the rest ---------------------------------------------------------------------------


def read_mapmem(out):
    with open(os.path.join(out, "mapmem.txt")) as f:
        text = f.read()
    return {k: float(v) for k, v in re.findall(r"(\w+)=([0-9.]+)", text)}


def read_benchmarks(out):
    """[(program, name, [repetitions], {aggregate name: entry})] in the order run."""
    results = []
    for path in sorted(glob.glob(os.path.join(out, "bench", "*.json"))):
        with open(path) as f:
            data = json.load(f)
        program = os.path.basename(path)[: -len(".json")]
        by_name = {}
        for b in data.get("benchmarks", []):
            name = b.get("run_name", b["name"])
            if name not in by_name:
                by_name[name] = ([], {})
                results.append((program, name) + by_name[name])
            if b.get("run_type") == "aggregate":
                by_name[name][1][b["aggregate_name"]] = b
            elif "error_occurred" not in b:
                by_name[name][0].append(b)
    return results


def to_ns(benchmark, key):
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[benchmark.get("time_unit", "ns")]
    return benchmark[key] * scale


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


# --- targets ----------------------------------------------------------------------------


def cell_text(n, a, median, low, high, digits=3):
    return f"N = {n}, A = {a}: {median:.{digits}f} {span(low, high, digits)}"


def summarize_cells(cells, limit, strict=False):
    """One verdict for a target checked at many (N, A): missed if missed anywhere, met if met
    everywhere, else not resolved. `cells` are (text, median, low, high)."""
    verdicts = [judge(low, high, limit, strict) for _, _, low, high in cells]
    missed = [c[0] for c, v in zip(cells, verdicts) if v != "met" and v != UNRESOLVED]
    open_ = [c[0] for c, v in zip(cells, verdicts) if v == UNRESOLVED]
    if missed:
        return "**missed**", "missed at " + "; ".join(missed)
    if open_:
        # The one whose interval reaches furthest past the limit stands for the rest.
        widest = max((c for c, v in zip(cells, verdicts) if v == UNRESOLVED), key=lambda c: c[3])
        return UNRESOLVED, (f"{len(open_)} of {len(cells)} not resolved, furthest over the "
                            f"limit {widest[0]}")
    return "met", f"met at all {len(cells)}"


def time_targets(blocks, pair_counts, actives):
    targets = []
    for metric, label in (("wall", "elapsed"), ("cpu", "loop-thread CPU")):
        cells = []
        for n in pair_counts:
            for a in actives:
                ratios = block_ratios(blocks, n, a, "monitor", "raw", metric)
                low, high = median_interval(ratios)
                median = statistics.median(ratios)
                cells.append((cell_text(n, a, median, low, high), median, low, high))
        worst = max(cells, key=lambda c: c[1])
        verdict, where = summarize_cells(cells, MAX_TIME_RATIO)
        targets.append((f"time per callback ({label}), median block ratio to raw, every (N, A)",
                        f"≤ {MAX_TIME_RATIO}", f"worst median {worst[0]}", where, verdict))
        cells = []
        for n in pair_counts:
            for a in actives:
                for lib in LIBRARIES:
                    ratios = block_ratios(blocks, n, a, "monitor", lib, metric)
                    low, high = median_interval(ratios)
                    cells.append((f"{lib} at {cell_text(n, a, statistics.median(ratios), low, high)}",
                                  statistics.median(ratios), low, high))
        verdict, where = summarize_cells(cells, 1.0)
        ahead = sum(1 for c in cells if c[1] <= 1.0)
        targets.append((f"time per callback ({label}), monitor over each library, block by block",
                        "≤ 1 against each library", f"median at or below 1 in {ahead} of "
                        f"{len(cells)} comparisons", where, verdict))
        if len(pair_counts) > 1:
            small, large = pair_counts[0], pair_counts[-1]
            for a in actives:
                def growth(backend):
                    lo_s, hi_s = median_interval(blocks[(small, a, backend)][metric])
                    lo_l, hi_l = median_interval(blocks[(large, a, backend)][metric])
                    mid = (statistics.median(blocks[(large, a, backend)][metric]) /
                           statistics.median(blocks[(small, a, backend)][metric]))
                    return mid, lo_l / hi_s, hi_l / lo_s
                grow, low, high = growth("monitor")
                raw_grow, _, _ = growth("raw")
                targets.append((f"per-callback cost ({label}) at N = {large} over N = {small}, "
                                f"A = {a}", f"≤ {MAX_SCALING}",
                                f"{grow:.3f} (raw loop: {raw_grow:.3f})", span(low, high, 3),
                                judge(low, high, MAX_SCALING)))
    return targets


def timer_targets(timers):
    targets = []
    for schedule, runs in timers.items():
        if not runs:
            continue
        checks = (
            ("Timer median wake-up latency over the raw timerfd loop", f"≤ {MAX_MEDIAN_GAP_US} µs",
             [r["timer"]["p50"] - r["raw"]["p50"] for r in runs], MAX_MEDIAN_GAP_US, " µs"),
            ("Timer p99 wake-up latency over the raw timerfd loop", f"≤ {MAX_P99_GAP_US} µs",
             [r["timer"]["p99"] - r["raw"]["p99"] for r in runs], MAX_P99_GAP_US, " µs"),
            ("Timer p99 wake-up latency over cyclictest's", f"≤ {MAX_P99_OVER_CYCLICTEST}×",
             [r["timer"]["p99"] / r["cyclictest"]["p99"] for r in runs], MAX_P99_OVER_CYCLICTEST,
             "×"),
        )
        for label, wanted, values, limit, unit in checks:
            digits = 2 if unit == "×" else 1
            targets.append((f"{label}, {SCHEDULES[schedule]}", wanted,
                            f"{statistics.median(values):+.{digits}f}{unit}" if unit != "×" else
                            f"{statistics.median(values):.{digits}f}{unit}",
                            span(min(values), max(values), digits, unit) + f" over {len(runs)} runs",
                            judge(min(values), max(values), limit)))
    return targets


def benchmark_target(benchmarks, label, pattern):
    for _, name, repetitions, _ in benchmarks:
        if re.search(pattern, name) and repetitions:
            values = [to_ns(b, "cpu_time") for b in repetitions]
            return (f"{label} ({name})", f"< {MAX_DISABLED_NS} ns",
                    f"{statistics.median(values):.2f} ns",
                    span(min(values), max(values), 2, " ns") + f" over {len(values)} repetitions",
                    judge(min(values), max(values), MAX_DISABLED_NS, True))
    return (label, f"< {MAX_DISABLED_NS} ns", "no benchmark", "", "not measured")


# --- the page ---------------------------------------------------------------------------


def write_time_plot(path, blocks, pair_counts, actives):
    """One data set per A, a row per N: N, then median, min and max of each backend's
    per-block elapsed time per callback."""
    with open(path, "w") as f:
        for a in actives:
            f.write(f"# A = {a}\n# N " + " ".join(f"{b} {b}_min {b}_max" for b in BACKENDS) + "\n")
            for n in pair_counts:
                cells = []
                for b in BACKENDS:
                    wall = blocks[(n, a, b)]["wall"]
                    cells.append(f"{statistics.median(wall):.1f} {min(wall):.1f} {max(wall):.1f}")
                f.write(f"{n} " + " ".join(cells) + "\n")
            f.write("\n\n")


def write_instructions_plot(path, counts):
    """A row per A, a column per backend: instructions per callback (median of repeats)."""
    with open(path, "w") as f:
        f.write("# A " + " ".join(BACKENDS) + "\n")
        for a in ACTIVES:
            f.write(f"{a} " + " ".join(f"{statistics.median(counts.get((b, a), [0])):.1f}"
                                       for b in BACKENDS) + "\n")


# --- the sections of the page -----------------------------------------------------------


class Run:
    """Everything one run of scripts/perf.sh left in OUT_DIR, read once."""

    def __init__(self, out):
        self.out = out
        self.machine = read_machine(out)
        self.rows = read_compare(out)
        self.blocks = read_blocks(out)
        self.pair_counts = sorted({int(r["pairs"]) for r in self.rows})
        self.actives = sorted({int(r["active"]) for r in self.rows})
        self.counts, self.files = callback_runs(os.path.join(out, "callgrind"))
        self.timers = timer_runs(out)
        self.mapmem = read_mapmem(out)
        self.benchmarks = read_benchmarks(out)
        self.loaded = loaded_runs(out)
        for section, stat in (("event-loop comparison", "compare.stat"),
                              ("timer runs", "timer.stat"), ("timer runs under load", "loaded.stat")):
            busy = cpu_busy(os.path.join(out, stat))
            if busy:
                self.machine[f"CPU busy during the {section}"] = (
                    f"{100 * busy[0]:.0f} % of {self.machine.get('cores', '?')} cores, all "
                    f"processes (these programs too); hypervisor steal {100 * busy[1]:.1f} %")


def write_introduction(page, run):
    page.add("# Performance")
    page.add()
    page.add("Generated by `scripts/perf.sh` (`--full` for more blocks, rounds, timer runs and "
             "benchmark repetitions); every figure below comes from that one run. A target is "
             "*met* or *missed* only when the spread of its comparison lies wholly on one side "
             "of the limit; otherwise it is *not resolved on this machine*, and the spread is "
             "given. Spreads: for time per callback, the interval that holds the median of the "
             f"block-wise figures with at least {CONFIDENCE:.0%} confidence (order statistics, "
             "whatever their distribution); for timer latency, the lowest and highest of the "
             "runs; for micro-benchmarks, of the repetitions. Instruction counts (callgrind) "
             "are exact and repeat: they are the firm figures, and `scripts/budget.sh` holds "
             "them to their budgets on every change.")
    page.add()
    page.add("## Machine and run")
    page.add()
    page.table(["", ""], [(k, v) for k, v in run.machine.items()])


def write_targets(page, run):
    targets = [(label, "", measured, "exact (instruction count)", "met" if met else "**missed**")
               for label, measured, met in budgets(os.path.join(run.out, "callgrind"))]
    targets += time_targets(run.blocks, run.pair_counts, run.actives)
    targets.append(benchmark_target(run.benchmarks, "disabled log statement",
                                    r"DisabledLogStatement"))
    targets.append(benchmark_target(run.benchmarks, "disabled trace section",
                                    r"DisabledTraceSection"))
    targets += timer_targets(run.timers)
    targets += loaded_targets(run.loaded)
    per_fd = run.mapmem.get("bytes_per_descriptor")
    if per_fd is not None:
        mapmem = run.mapmem
        note = "" if mapmem["descriptors"] == mapmem["wanted"] else (
            f" (only {int(mapmem['descriptors'])} of {int(mapmem['wanted'])} distinct "
            f"descriptors: RLIMIT_NOFILE {int(mapmem['fd_limit'])})")
        targets.append(("registry heap bytes per distinct descriptor ever attached",
                        f"≤ {MAX_BYTES_PER_DESCRIPTOR:.0f}", f"{per_fd:.1f}{note}",
                        "one run; the heap's growth for a fixed sequence of calls",
                        judge(per_fd, per_fd, MAX_BYTES_PER_DESCRIPTOR)))
    page.add("## Targets")
    page.add()
    page.add("The instruction budgets say what they want in their own words; the other targets "
             "give it in the second column.")
    page.add()
    page.table(["target", "wanted", "measured", "spread", "verdict"], targets)


def write_event_loops(page, run):
    rows, blocks = run.rows, run.blocks
    callbacks = int(rows[0]["callbacks_per_round"] - rows[0]["active"])
    page.add("## Event loops side by side: time per callback")
    page.add()
    page.add(f"Workload: N socket pairs, A of them written at the start of a round; every read "
             f"callback reads its byte and, until {callbacks} writes have happened, writes one "
             f"byte to the next pair. Each backend's loop runs on its own thread at the same "
             f"(normal) priority; the driver thread starts a round through an eventfd the loop "
             f"watches and waits for the last callback to post another. Backends are "
             f"interleaved in {int(rows[0]['blocks'])} blocks of {int(rows[0]['rounds'])} timed "
             f"rounds each (after warm-up rounds); each block's figure is the median round, and "
             f"the ratio to raw is taken within the block. *wall* is elapsed time per callback; "
             f"*cpu* is the loop thread's CPU time per callback, which time taken by other "
             f"processes does not inflate. ns/cb: median over blocks [min..max]; ratio: median "
             f"over blocks, then its {CONFIDENCE:.0%} interval.")
    page.add()
    table = []
    for n in run.pair_counts:
        for a in run.actives:
            for b in BACKENDS:
                if (n, a, b) not in blocks:
                    continue
                cells = [n, a, b]
                for metric in ("wall", "cpu"):
                    ns = blocks[(n, a, b)][metric]
                    ratios = block_ratios(blocks, n, a, b, "raw", metric)
                    cells.append(f"{statistics.median(ns):.0f} {span(min(ns), max(ns), 0)}")
                    cells.append(f"{statistics.median(ratios):.3f} "
                                 f"{span(*median_interval(ratios), 3)}")
                table.append(cells)
    page.table(["N", "A", "backend", "wall ns/cb", "wall ratio", "cpu ns/cb", "cpu ratio"], table)
    page.add("![elapsed time per callback by backend and N: median and range of the blocks]"
             "(performance.svg)")
    page.add()


def write_instructions(page, run):
    counts, files = run.counts, run.files
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
            raw = counts.get(("raw", a))
            if not v or not raw:
                continue
            same = "exactly" if max(v) == min(v) else f"within {max(v) - min(v):.3f}"
            table.append((b, a, f"{statistics.median(v):.1f}",
                          f"{statistics.median(v) - statistics.median(raw):+.1f}", same))
    page.table(["backend", "A", "instructions/cb", "over raw", "repeats"], table)
    page.add("![instructions per callback by backend and A](performance-instructions.svg)")
    page.add()
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
                   [(f"{c:.1f}", f, f"`{t}`") for c, f, t in source_lines(mon_path, mon_cb)
                    if c >= MIN_LINE_INSTRUCTIONS])


def write_timer_latency(page, run):
    machine, timers, out = run.machine, run.timers, run.out
    page.add("## Timer wake-up latency")
    page.add()
    page.add(f"One periodic timer at 1 ms on CLOCK_MONOTONIC, {machine.get('timer runs', '?')} "
             f"runs of {machine.get('timer expiries', '?')} expiries each for each of three "
             "programs: `tavrel-timerlat` (a Timer on an EpollMonitor), the bare timerfd + "
             "epoll loop `tavrel-raw-timerlat` (same options, same report code), and "
             "`cyclictest`. The three run alike: memory "
             f"{machine.get('memory lock', '?')}; /dev/cpu_dma_latency "
             f"{machine.get('cpu_dma_latency', '?')} (cyclictest holds it itself); the same "
             "policy and priority: `--policy other -p 0` for ours and `--policy=other` for "
             "cyclictest at normal priority, `-p N` for all three at SCHED_FIFO (real-time "
             f"priority here: {machine.get('real-time priority', '?')}). They run back to back, "
             "each run starting with the next program. Every figure comes from each program's "
             "histogram in cyclictest's format (1 µs buckets, nearest rank), in µs: median over "
             "runs [min..max over runs]. Each section shows the header tavrel-timerlat printed: "
             "the policy and priority its monitor thread really ran with.")
    page.add()
    if not timers:
        page.add("No complete run: a timer program failed or was missing (see perf.sh's output).")
        page.add()
    for schedule, runs in timers.items():
        page.add(f"### {SCHEDULES[schedule]}")
        page.add()
        header = timer_header(out, schedule)
        if header:
            page.add(f"tavrel-timerlat's header: `{header}`.")
            page.add()
        if not runs:
            page.add("No run in which all three programs finished.")
            page.add()
            continue
        page.add(f"{len(runs)} complete runs.")
        page.add()
        write_latency_table(page, runs)


def write_loaded_latency(page, run):
    write_loaded_timers(page, run.out, run.machine, run.loaded)


def write_registry(page, run):
    mapmem = run.mapmem
    per_fd = mapmem.get("bytes_per_descriptor")
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


def write_benchmarks(page, run):
    machine, benchmarks = run.machine, run.benchmarks
    page.add("## Micro-benchmarks (Google Benchmark)")
    page.add()
    page.add(f"Median of {machine.get('benchmark repetitions', '?')} repetitions, cpu time "
             "[min..max over them].")
    page.add()
    table = []
    for program, name, repetitions, aggregates in benchmarks:
        if not repetitions:
            continue
        real = statistics.median(to_ns(b, "real_time") for b in repetitions)
        cpu = [to_ns(b, "cpu_time") for b in repetitions]
        extra = ", ".join(f"{k}={v:g}" for k, v in repetitions[0].items()
                          if isinstance(v, (int, float)) and k not in (
                              "real_time", "cpu_time", "iterations", "repetitions",
                              "repetition_index", "threads", "family_index",
                              "per_family_instance_index"))
        table.append((program, f"`{name}`", f"{real:.1f}",
                      f"{statistics.median(cpu):.1f} {span(min(cpu), max(cpu))}",
                      repetitions[0].get("iterations", ""), extra))
    page.table(["program", "benchmark", "real ns", "cpu ns", "iterations", "counters"], table)


def write_notes(page, run):
    # Why a target stays missed or unresolved: kept by hand beside this script, without
    # figures of its own, and carried over into every regenerated page.
    notes_path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "gaps.md")
    if os.path.exists(notes_path):
        with open(notes_path) as f:
            page.add(f.read().rstrip())
            page.add()


# The page, section by section.
SECTIONS = [write_introduction, write_targets, write_event_loops, write_instructions,
            write_timer_latency, write_loaded_latency, write_registry, write_benchmarks,
            write_notes]


def main():
    out, page_path, plot_path, instructions_path = sys.argv[1:5]
    run = Run(out)
    page = Page()
    for section in SECTIONS:
        section(page, run)
    with open(page_path, "w") as f:
        f.write("\n".join(page.lines).rstrip() + "\n")
    write_time_plot(plot_path, run.blocks, run.pair_counts, run.actives)
    write_instructions_plot(instructions_path, run.counts)


if __name__ == "__main__":
    main()
