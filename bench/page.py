"""Tables of figures, and the page docs/performance.md that is made of them.

The page shows results and ratios. Targets, and whether they were met, are printed
while the benchmarks run and stand on no page.
"""
import contextlib
import datetime
import os
import platform
import re
import statistics
import subprocess
from pathlib import Path

PYTHON = "/usr/bin/python3"  # Debian's, which has Debian's httpx


def number(value, digits=3):
    return f"{value:.{digits}g}" if abs(value) < 10**digits else f"{value:,.0f}"


def median(values, unit=1.0):
    return number(statistics.median(values) * unit)


def spread(values, unit=1.0):
    """The median of several runs and, in brackets, the lowest and the highest."""
    values = [value * unit for value in values]
    return number(statistics.median(values)) + (f" ({number(min(values))} to {number(max(values))})" if len(values) > 1 else "")


def ratios(ours, theirs):
    return [a / b for a, b in zip(ours, theirs)]


class Target:
    """A limit that a figure should keep; text says which figure it is."""

    def __init__(self, text, value, limit):
        self.text = f"{text} at most {number(limit, 5)}"
        self.met = "met" if value <= limit else "not met" + (f", {value / limit:.2f} times the target" if limit else "")


class Table:
    def __init__(self, title, note, head):
        self.title, self.note, self.head, self.rows = title, note, head, []
        print("  " + " | ".join([*head, "target", "met"]), flush=True)

    def add(self, *cells, targets=()):
        self.rows.append([str(cell) for cell in cells])
        ends = ["; ".join(t.text for t in targets), "; ".join(t.met for t in targets)]
        print("  " + " | ".join(self.rows[-1] + ends), flush=True)

    def markdown(self, level):
        lines = [f"{level} {self.title}", ""] + ([self.note, ""] if self.note else [])
        lines += ["| " + " | ".join(self.head) + " |", "|---" * len(self.head) + "|"]
        return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in self.rows]) + "\n"


class Summary:
    """What the library costs beside what a user would write instead: one row each."""

    def __init__(self):
        self.rows = []

    def add(self, what, ours, instead, theirs, unit, scale=1.0):
        ratio = statistics.median(ratios(ours, theirs))
        self.rows.append([what, f"{median(ours, scale)} {unit}", instead, f"{median(theirs, scale)} {unit}",
                          f"{ratio:.2f}" if ratio >= 0.1 else f"{ratio:.3f}"])  # fmt: skip

    def markdown(self):
        head = ["", "vision", "instead", "", "ratio"]
        lines = ["| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *self.rows]]
        return "\n".join(lines) + "\n"


def version(*command):
    with contextlib.suppress(OSError):
        text = subprocess.run(command, capture_output=True, text=True).stdout.strip()
        return text.splitlines()[0] if text else "unknown"
    return "absent"


def machine():
    model = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    memory_gb = int(re.search(r"MemTotal:\s*(\d+)", Path("/proc/meminfo").read_text())[1]) / 1e6
    httpx = version(PYTHON, "-c", "import httpx; print(httpx.__version__)")
    return "; ".join([
        f"{model[1] if model else platform.machine()}, {os.cpu_count()} processors, {memory_gb:.0f} GB",
        f"{platform.freedesktop_os_release()['PRETTY_NAME']}, Linux {platform.release()}",
        version("g++", "--version") + " with the release preset",
        "libcurl " + version("pkg-config", "--modversion", "libcurl"),
        " ".join(version("openssl", "version").split()[:2]),
        f"{version(PYTHON, '--version')} with httpx {httpx}",
        "Node " + version("node", "--version"),
        version("chromium", "--version").split(" built on")[0],
        "load at the start " + " ".join(f"{x:.1f}" for x in os.getloadavg()),
    ])  # fmt: skip


def page(date, surroundings, summary, tables, notes):
    """The text of docs/performance.md."""
    return "\n".join([
        "# Performance\n",
        f"Written by `scripts/bench` on {date}; do not edit.\n",
        "## What it costs\n",
        "The library beside what you would write instead. A ratio below 1 means that the library takes less.\n",
        summary.markdown(),
        "## Running it\n",
        "<!-- shown: takes long -->\n```sh\n"
        "scripts/bench               # all benchmarks; writes this page\n"
        "scripts/bench floor start   # only these; writes nothing\n"
        "scripts/bench --smoke       # each for about a second: do they build and run?\n```\n",
        "Each run prints its figures, the target of each and whether it was met. The load of the machine matters: run "
        "it with nothing else to do.\n",
        f"This page: {surroundings}.\n",
        "## Results\n",
        "Processor times are user and system time of the measured process. Figures are medians; a ratio has its lowest "
        "and highest run in brackets. Two sides alternate, and a ratio is the median over the pairs.\n",
        *(table.markdown("###") for table in tables),
        notes,
    ])  # fmt: skip


def today():
    return datetime.date.today().isoformat()
