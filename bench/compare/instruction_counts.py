"""Instruction counts from the callgrind runs that scripts/lib/callgrind.sh leaves, and the
budgets they are held to: shared by the budget check (budget.py) and the performance page
(perf_report.py)."""

import glob
import os
import re
import subprocess

ACTIVES = [1, 10, 100]
CALLGRIND_PAIRS = 1000

# Dispatch: at most this many instructions per callback over the raw epoll loop, at these A.
MAX_EXTRA_DISPATCH_INSTRUCTIONS = 25
EXTRA_DISPATCH_ACTIVES = [10, 100]
# Dispatch: fewer instructions per callback than each of these libraries, at every A.
LIBRARIES_TO_BEAT = ["libev", "libuv"]
# Each wrapper: at most this many instructions per call over the bare call it makes.
MAX_WRAPPER_INSTRUCTIONS = 25
# Each wrapper and the libc function it calls.
WRAPPED_CALLS = {"EPollWait": "epoll_wait", "Write": "write", "Read": "read", "Ioctl": "ioctl"}
# The dispatch's test that skips entries detached within their batch: at most this many
# instructions per callback at A = 1, counted on its source line, found by its text (a line
# not found fails the check: keep the text here in step with the code).
MAX_SKIP_INSTRUCTIONS = 3
SKIP_FILE = "utils/sys/EpollMonitor.cpp"
SKIP_LINE = "== &sDetachedEntry) continue;"

NUMBER = r"[0-9][0-9,]*"


def number(text):
    return int(text.replace(",", ""))


def per_callback(base):
    """Instructions per callback of one counted run (BASE.out and BASE.callbacks), and its
    callbacks."""
    with open(base + ".out") as f:
        totals = next(number(l.split()[1]) for l in f if l.startswith("totals:"))
    with open(base + ".callbacks") as f:
        callbacks = int(f.read().strip())
    return totals / callbacks, callbacks


def callback_runs(directory):
    """{(backend, active): [instructions per callback of each run]} and, for each key, the
    first run's (path, callbacks), from BACKEND-ACTIVE[-REPEAT].out in `directory`."""
    counts, files = {}, {}
    for path in sorted(glob.glob(os.path.join(directory, "*.out"))):
        name = os.path.basename(path)[: -len(".out")]
        if name.startswith("wrapper-"):
            continue
        backend, active = name.split("-")[:2]
        count, callbacks = per_callback(path[: -len(".out")])
        key = (backend, int(active))
        counts.setdefault(key, []).append(count)
        files.setdefault(key, (path, callbacks))
    return counts, files


def annotate(path, *options):
    return subprocess.run(
        ["callgrind_annotate", *options, path], capture_output=True, text=True, check=True
    ).stdout


def source_lines(path, callbacks):
    """[(instructions per callback, file, line text)] of every line of the library's own
    sources, those that ran no instruction included."""
    lines = []
    source = None
    for line in annotate(path, "--auto=yes").splitlines():
        m = re.match(r"-- Auto-annotated source: (.*)$", line)
        if m:
            source = m.group(1)
            continue
        library = re.search(r"(?:^|/)src/(utils/.*)$", source or "")
        if library is None or "=>" in line or "events annotated" in line:
            continue  # not the library, or calls out and the summary: not the line's own cost
        m = re.match(rf"\s*({NUMBER}|\.) (?:\([ 0-9.]+%\)\s+)?(\S.*)$", line)
        if m:
            cost = 0 if m.group(1) == "." else number(m.group(1))
            lines.append((cost / callbacks, library.group(1), m.group(2).strip()))
    return lines


def skip_cost(path, callbacks):
    """Instructions per callback on the skip test's line; None when the line is not found."""
    costs = [c for c, f, text in source_lines(path, callbacks)
             if f == SKIP_FILE and SKIP_LINE in text]
    return sum(costs) if costs else None


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


def all_wrapper_overheads(directory, files):
    """Every wrapper's overhead: EPollWait from the monitor's run at A = 1, the others from
    the wrapped micro-benchmarks (wrapper-*.out in `directory`)."""
    found = {}
    paths = [files[("monitor", 1)][0]] if ("monitor", 1) in files else []
    for path in paths + sorted(glob.glob(os.path.join(directory, "wrapper-*.out"))):
        found.update(wrapper_overheads(path))
    return found


def within(value, limit):
    """Whether `value` is at most `limit` as printed, to one decimal: a figure per callback
    also carries the few events that are not callbacks (the start of each round)."""
    return round(value, 1) <= limit


def budgets(directory):
    """[(budget, measured, met)] for every budget, from the runs in `directory`; a budget
    whose figures are missing is not met."""
    counts, files = callback_runs(directory)
    median = {key: sorted(v)[len(v) // 2] for key, v in counts.items()}
    rows = []
    for active in ACTIVES:
        monitor = median.get(("monitor", active))
        if active in EXTRA_DISPATCH_ACTIVES:
            raw = median.get(("raw", active))
            label = (f"dispatch at A = {active}: at most raw epoll + "
                     f"{MAX_EXTRA_DISPATCH_INSTRUCTIONS} instructions per callback")
            if monitor is None or raw is None:
                rows.append((label, "not counted", False))
            else:
                rows.append((label, f"raw + {monitor - raw:.1f} ({monitor:.1f} vs {raw:.1f})",
                             within(monitor - raw, MAX_EXTRA_DISPATCH_INSTRUCTIONS)))
        for library in LIBRARIES_TO_BEAT:
            other = median.get((library, active))
            label = f"dispatch at A = {active}: fewer instructions per callback than {library}"
            if monitor is None or other is None:
                rows.append((label, "not counted", False))
            else:
                rows.append((label, f"{monitor:.1f} vs {other:.1f}", monitor < other))
    wrappers = all_wrapper_overheads(directory, files)
    for wrapper, bare in WRAPPED_CALLS.items():
        label = (f"System::{wrapper}: at most {MAX_WRAPPER_INSTRUCTIONS} instructions per call "
                 f"over {bare}")
        if wrapper not in wrappers:
            rows.append((label, "not counted", False))
        else:
            extra, calls = wrappers[wrapper]
            rows.append((label, f"+{extra:.1f} ({calls} calls)",
                         within(extra, MAX_WRAPPER_INSTRUCTIONS)))
    label = (f"same-batch skip at A = 1: at most {MAX_SKIP_INSTRUCTIONS} instructions per "
             "callback")
    skip = skip_cost(*files[("monitor", 1)]) if ("monitor", 1) in files else None
    if skip is None:
        rows.append((label, f"line `{SKIP_LINE}` not found in {SKIP_FILE}", False))
    else:
        rows.append((label, f"{skip:.1f}", within(skip, MAX_SKIP_INSTRUCTIONS)))
    return rows
