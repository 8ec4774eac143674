"""Runs the benchmarks and writes docs/performance.md; scripts/bench calls it.

    run.py BUILD [--smoke] [NAME ...]

Each benchmark is a function that gives a Table. Processor times are those of the
measured process, user and system together. Two sides alternate, A B A B, and the
ratio is the median of the ratios pair by pair.
"""
import contextlib
import datetime
import itertools
import json
import os
import platform
import re
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
PEERS = ROOT / "bench" / "peers"
PYTHON = "/usr/bin/python3"  # Debian's, which has Debian's httpx


class Setup:
    """Where the programs are, how long to run, and a scratch directory."""

    def __init__(self, build, smoke, scratch):
        self.programs, self.smoke, self.scratch = Path(build).resolve() / "bench", smoke, Path(scratch)
        self.rounds = 1 if smoke else 7
        self.request = self.scratch / "request.json"
        self.request.write_text(self.text("ask", "request"))
        self.certificate, self.key = self.scratch / "certificate.pem", self.scratch / "key.pem"
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
             "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
             "-keyout", self.key, "-out", self.certificate],
            check=True, capture_output=True,
        )  # fmt: skip

    def few(self, count):
        return max(1, count // 20) if self.smoke else count

    def text(self, *command, **env):
        command = [str(part) for part in command]
        if not command[0].startswith("/"):
            command[0] = str(self.programs / command[0])
        env = {**os.environ, "KX_VISION_SHADOW_LOG": "/dev/null", **env}
        done = subprocess.run(command, env=env, capture_output=True, text=True, cwd=self.scratch)
        if done.returncode != 0:
            raise SystemExit(f"{' '.join(command)} failed:\n{done.stderr}")
        return done.stdout

    def run(self, *command, **env):
        return json.loads(self.text(*command, **env).splitlines()[-1])

    def image(self, size):
        path = self.scratch / f"{size}.png"
        if not path.exists():
            path.write_bytes(b"\x89PNG\r\n\x1a\n" + os.urandom(size - 8))
        return path

    @contextlib.contextmanager
    def server(self, tls=False):
        options = ["--certificate", self.certificate, "--key", self.key] if tls else []
        server = subprocess.Popen([self.programs / "server", *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            yield int(server.stdout.readline())
        finally:
            server.stdin.close()
            server.wait()


class Table:
    def __init__(self, title, note, head):
        self.title, self.note, self.head, self.rows = title, note, head, []

    def add(self, *cells):
        self.rows.append([str(cell) for cell in cells])
        print("  " + " | ".join(self.rows[-1]), flush=True)

    def markdown(self):
        lines = [f"## {self.title}", "", self.note, "", "| " + " | ".join(self.head) + " |", "|---" * len(self.head) + "|"]
        return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in self.rows]) + "\n"


def show(values, unit=1.0, digits=3):
    """The median of several runs and, in brackets, the lowest and the highest."""
    values = [value * unit for value in values]
    form = f"{{:.{digits}g}}".format
    middle = form(statistics.median(values))
    return middle if len(values) == 1 else f"{middle} ({form(min(values))} to {form(max(values))})"


def ratio_of(ours, theirs):
    return [a / b for a, b in zip(ours, theirs)]


def verdict(value, limit):
    return "yes" if value <= limit else f"no, {value / limit:.2f} times the mark"


def alternate(setup, *sides, rounds=None):
    """Runs the sides in turn, as often as a comparison needs; a list of results each."""
    results = [[] for _ in sides]
    for _ in range(min(setup.rounds, rounds or setup.rounds)):
        for side, kept in zip(sides, results):
            kept.append(side())
    return results


def column(results, name):
    return [result[name] for result in results]


def compare_clients(setup, title, note, tls, mark):
    table = Table(title, note, ["image, in flight", "client", "processor ms per call", "wall ms per call",
                                "peak memory, kB", "ours to it", "mark", "reached"])  # fmt: skip
    with setup.server(tls) as port:
        url = f"http{'s' if tls else ''}://127.0.0.1:{port}"
        env = {"NODE_EXTRA_CA_CERTS": str(setup.certificate)} if tls else {}
        for size, in_flight in [(s, k) for s in (100_000, 500_000, 2_000_000) for k in (1, 32, 256)]:
            calls = setup.few(max(in_flight, 100_000_000 // (size + 400_000)))
            image = setup.image(size)
            ours, httpx, fetch = alternate(
                setup,
                lambda: setup.run("ask", url, image, "--calls", 3 * calls, "--in-flight", in_flight,
                                  *(["--ca", setup.certificate] if tls else [])),
                lambda: setup.run(PYTHON, PEERS / "ask_httpx.py", url, image, setup.request, calls, in_flight,
                                  *([setup.certificate] if tls else [])),
                lambda: setup.run("/usr/bin/env", "node", PEERS / "ask_fetch.mjs", url, image, setup.request, calls,
                                  in_flight, **env),
                rounds=None if in_flight == 32 else 3,
            )  # fmt: skip
            name = f"{size // 1000} kB, {in_flight}"
            memory = statistics.median(column(ours, "memory_kb"))
            allowed = 128 * in_flight + size / 1024
            table.add(name, "vision", show(column(ours, "cpu_s"), 1e3), show(column(ours, "wall_s"), 1e3),
                      show(column(ours, "memory_kb"), digits=6), "", f"memory at most {allowed:.0f}", verdict(memory, allowed))  # fmt: skip
            for peer, results in (("httpx", httpx), ("fetch", fetch)):
                ratios = ratio_of(column(ours, "cpu_s"), column(results, "cpu_s"))
                judged = size > 100_000 and in_flight == 32
                table.add(name, peer, show(column(results, "cpu_s"), 1e3), show(column(results, "wall_s"), 1e3),
                          show(column(results, "memory_kb"), digits=6), show(ratios),
                          f"{mark:g}" if judged else "", verdict(statistics.median(ratios), mark) if judged else "")  # fmt: skip
    return table


def ask(setup):
    """`ask` over plain HTTP"""
    note = ("Beside it a Python client on httpx and a Node client on the built-in fetch, with base64 and JSON of their "
            "standard libraries. Memory is the peak above the process that has asked once and is idle.")  # fmt: skip
    return compare_clients(setup, "ask, plain HTTP on loopback", note, False, 1 / 5)


def ask_tls(setup):
    note = "The same over TLS 1.3."
    return compare_clients(setup, "ask, TLS 1.3 on loopback", note, True, 1 / 4)


def floor(setup):
    note = ("Beside it a C program that encodes with the same base64 and writes the same bytes on a blocking socket. "
            "One call in flight.")  # fmt: skip
    table = Table("Floor", note, ["image", "ask, processor ms", "C, processor ms", "ratio", "mark", "reached"])
    with setup.server() as port:
        for size in (100_000, 500_000, 2_000_000):
            calls, image = setup.few(400_000_000 // (size + 400_000)), setup.image(size)
            ours, least = alternate(
                setup,
                lambda: setup.run("ask", f"http://127.0.0.1:{port}", image, "--calls", calls),
                lambda: setup.run("floor", port, image, setup.request, calls),
            )
            ratios = ratio_of(column(ours, "cpu_s"), column(least, "cpu_s"))
            table.add(f"{size // 1000} kB", show(column(ours, "cpu_s"), 1e3), show(column(least, "cpu_s"), 1e3),
                      show(ratios), "1.5", verdict(statistics.median(ratios), 1.5))  # fmt: skip
    return table


def act_step(setup):
    note = "Page and model in memory, neither suspends; virtual time. Beside it the same loop in Python's asyncio."
    table = Table("Act-loop step", note, ["log", "ours, µs", "allocations", "asyncio, µs", "ratio", "marks", "reached"])
    steps = setup.few(20_000)
    for log in ("/dev/null", str(setup.scratch / "shadow.jsonl")):
        ours, theirs = alternate(
            setup,
            lambda: setup.run("missions", 1, steps, "--thinks", 0, KX_VISION_SHADOW_LOG=log),
            lambda: setup.run(PYTHON, PEERS / "act_loop.py", steps, KX_VISION_SHADOW_LOG=log),
        )
        cpu, ratios = column(ours, "cpu_s"), ratio_of(column(ours, "cpu_s"), column(theirs, "cpu_s"))
        counted = setup.run("missions", 1, steps, "--thinks", 0, "--count", 1, KX_VISION_SHADOW_LOG=log)
        reached = verdict(statistics.median(ratios), 0.1)
        if log == "/dev/null":
            reached += "; " + verdict(statistics.median(cpu) * 1e6, 40)
        table.add("nowhere" if log == "/dev/null" else "file", show(cpu, 1e6), show([counted["allocations"]]),
                  show(column(theirs, "cpu_s"), 1e6), show(ratios), "0.1; 40 µs" if log == "/dev/null" else "0.1", reached)  # fmt: skip
    return table


def missions(setup):
    note = ("Concurrent act loops of 8 steps on one event loop in virtual time, as often as makes the same number of steps; "
            "the screenshot is shared and not counted.")  # fmt: skip
    table = Table("Missions at once", note, ["missions", "µs per step", "to 100 missions", "bytes per mission", "marks", "reached"])  # fmt: skip
    times = setup.few(80_000) // 8
    one, hundred, many = alternate(setup, *(
        (lambda count=count: setup.run("missions", count, 8, "--times", max(1, times // count))) for count in (1, 100, 10_000)))  # fmt: skip
    for count, results in ((1, one), (100, hundred), (10_000, many)):
        ratios = ratio_of(column(results, "cpu_s"), column(hundred, "cpu_s"))
        held = [setup.run("missions", count, 8, "--count", 1)["waiting_bytes"]]
        judged = count == 10_000
        reached = f"{verdict(statistics.median(ratios), 1.2)}; {verdict(statistics.median(held), 16_384)}"
        table.add(count, show(column(results, "cpu_s"), 1e6), show(ratios), show(held, digits=6),
                  "1.2; 16384" if judged else "", reached if judged else "")  # fmt: skip
    return table


def shadow_log(setup):
    note = "Beside it open, one write, close from C++ without a library, of a text made beforehand."
    table = Table("Shadow log", note, ["log", "ours, µs", "open, write, close, µs", "ratio", "mark", "reached"])
    for log in (str(setup.scratch / "log.jsonl"), "/dev/null"):
        ours, least = alternate(setup, *(
            (lambda side=side: setup.run("shadow_log", side, setup.few(100_000), KX_VISION_SHADOW_LOG=log))
            for side in ("ours", "floor")))  # fmt: skip
        ratios = ratio_of(column(ours, "cpu_s"), column(least, "cpu_s"))
        table.add("file" if log != "/dev/null" else "nowhere", show(column(ours, "cpu_s"), 1e6),
                  show(column(least, "cpu_s"), 1e6), show(ratios), "1.3", verdict(statistics.median(ratios), 1.3))  # fmt: skip
    return table


def screenshot(setup):
    note = "1280 × 800 in Chromium. Beside it the same DevTools command sent raw, its reply only received."
    table = Table("Screenshot", note, ["pixel ratio", "encoded to be", "image, kB", "ours, ms", "raw, ms", "ratio", "memory to image", "marks", "reached"])
    profile = setup.scratch / "profile"
    browser = subprocess.Popen(
        ["chromium", "--headless", "--no-sandbox", "--hide-scrollbars", "--remote-debugging-port=0",
         f"--user-data-dir={profile}", "about:blank"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)  # fmt: skip
    try:
        for scale, fast in itertools.product((1, 2), (0, 1)):
            result = setup.run("screenshot", setup.few(40) + 1, "--profile", profile, "--ratio", scale, "--fast", fast)
            ratios = ratio_of(result["ours_s"], result["raw_s"])
            memory = result["peak_bytes"] / result["image_bytes"]
            reached = f"{verdict(statistics.median(ratios), 1.05)}; {verdict(memory, 4 / 3 + 0.05)}"
            table.add(scale, ("small", "fast")[fast], round(result["image_bytes"] / 1000),
                      show(result["ours_s"], 1e3), show(result["raw_s"], 1e3), show(ratios), f"{memory:.2f}",
                      "1.05; 1.33, one base64 text", reached)  # fmt: skip
    finally:
        browser.terminate()
        browser.wait()
    return table


def long_run(setup):
    note = ("100,000 asks over HTTP with a 10 kB image and 100,000 act steps in one process, in twenty parts; against the "
            "first part. After each the event loops have ended by themselves, which they do not while a timer runs.")  # fmt: skip
    table = Table("Long run", note, ["held", "after 5 %", "at the end", "highest", "mark", "reached"])
    with setup.server() as port:
        count = setup.few(100_000)
        samples = setup.run("long_run", f"http://127.0.0.1:{port}", setup.image(10_000), count, count)["samples"]
    for name in ("resident_kb", "descriptors", "threads"):
        values = column(samples, name)
        table.add(name, values[0], values[-1], max(values), "1.02 times", verdict(max(values) / values[0], 1.02))
    return table


def start(setup):
    note = ("A process that builds a client and asks ten times over HTTP, with a 500 kB image. What is opened is counted "
            "from main on; the library is linked statically.")  # fmt: skip
    table = Table("Start", note, ["what", "value", "mark", "reached"])
    with setup.server() as port:
        url, image = f"http://127.0.0.1:{port}", setup.image(500_000)
        runs = [setup.run("start", url, image) for _ in range(setup.rounds * 3)]
    late = statistics.median(run["first_ms"] - run["tenth_ms"] for run in runs)
    table.add("building the client, ms", show(column(runs, "build_ms")), "", "")
    for name in ("files", "threads"):
        most = max(column(runs, name))
        table.add(f"{name} opened by it", most, "0", "yes" if most == 0 else "no")
    table.add("first ask, ms", show(column(runs, "first_ms")), "", "")
    table.add("tenth ask, ms", show(column(runs, "tenth_ms")), "", "")
    table.add("first later than tenth by, ms", f"{late:.3g}", "2", verdict(late, 2))
    return table


def fit(points):
    """Least squares: intercept, slope, and the largest deviation relative to the line."""
    xs, ys = zip(*points)
    slope, base = statistics.linear_regression(xs, ys)
    return base, slope, max(abs(y - base - slope * x) / (base + slope * x) for x, y in points)


def growth(setup):
    note = "Cost against its cause: a straight line through the medians, and how far the worst point is from it."
    table = Table("Growth", note, ["cost", "of", "points", "slope", "worst point off the line by"])
    with setup.server() as port:
        url = f"http://127.0.0.1:{port}"
        cases = [
            ("processor µs of an ask", "kB of image", 1e-3, (250_000, 500_000, 1_000_000, 2_000_000, 4_000_000),
             lambda n: setup.run("ask", url, setup.image(n), "--calls", setup.few(200))["cpu_s"]),
            ("processor µs of a mission", "steps", 1, (4000, 8000, 16_000, 32_000, 64_000),
             lambda n: setup.run("missions", 1, n)["cpu_s"] * n),
            ("processor µs of all steps", "missions of 8 steps", 1, (500, 1000, 2000, 4000, 8000),
             lambda n: setup.run("missions", n, 8)["cpu_s"] * 8 * n),
            ("processor µs of all appends", "records", 1, (10_000, 20_000, 40_000, 80_000),
             lambda n: setup.run("shadow_log", "ours", n, KX_VISION_SHADOW_LOG=str(setup.scratch / "growth.jsonl"))["cpu_s"] * n),
        ]  # fmt: skip
        for cost, cause, unit, sizes, measure in cases:
            rounds = [[measure(n) for n in sizes] for _ in range(min(setup.rounds, 3))]
            medians = [statistics.median(values) * 1e6 for values in zip(*rounds)]
            _, slope, off = fit([(n * unit, y) for n, y in zip(sizes, medians)])
            points = ", ".join(f"{n * unit:g}: {y:.4g}" for n, y in zip(sizes, medians))
            table.add(cost, cause, points, f"{slope:.3g}", f"{off:.0%}")
    return table


BENCHMARKS = {f.__name__: f for f in (ask, ask_tls, floor, act_step, missions, shadow_log, screenshot, long_run, start, growth)}  # fmt: skip


def version(*command):
    with contextlib.suppress(OSError):
        text = subprocess.run(command, capture_output=True, text=True).stdout.strip()
        return text.splitlines()[0] if text else "unknown"
    return "absent"


def head():
    model = re.search(r"model name\s*: (.*)", Path("/proc/cpuinfo").read_text())
    memory_gb = int(re.search(r"MemTotal:\s*(\d+)", Path("/proc/meminfo").read_text())[1]) / 1e6
    httpx = version(PYTHON, "-c", "import httpx; print(httpx.__version__)")
    facts = [
        ("machine", f"{model[1] if model else platform.machine()}, {os.cpu_count()} processors, {memory_gb:.0f} GB"),
        ("system", f"{platform.freedesktop_os_release()['PRETTY_NAME']}, Linux {platform.release()}"),
        ("compiler", version("g++", "--version") + ", the release preset"),
        ("libcurl", version("pkg-config", "--modversion", "libcurl")),
        ("OpenSSL", version("openssl", "version")),
        ("Python, httpx", f"{version(PYTHON, '--version')}, {httpx}"),
        ("Node", version("node", "--version")),
        ("browser", version("chromium", "--version")),
        ("load when it began", " ".join(f"{x:.1f}" for x in os.getloadavg())),
    ]
    lines = ["# Performance", "", "Written by `scripts/bench`"
             f" on {datetime.date.today().isoformat()}; do not edit. Figures are medians, with the lowest and the highest"
             " run in brackets. Two sides alternate, and a ratio is the median of the ratios pair by pair.", "",
             "| | |", "|---|---|", *(f"| {name} | {value} |" for name, value in facts)]  # fmt: skip
    return "\n".join(lines) + "\n"


def main():
    words = sys.argv[1:]
    smoke = "--smoke" in words
    build, *names = [word for word in words if word != "--smoke"]
    unknown = [name for name in names if name not in BENCHMARKS]
    if unknown:
        raise SystemExit(f"bench: no benchmark named {unknown[0]}; there are {', '.join(BENCHMARKS)}")
    text = [head()]
    with tempfile.TemporaryDirectory(prefix="vision-bench-") as scratch:
        setup = Setup(build, smoke, scratch)
        for name in names or BENCHMARKS:
            print(f"bench: {name}", flush=True)
            text.append(BENCHMARKS[name](setup).markdown())
    if names or smoke:
        return
    notes = ROOT / "bench" / "notes.md"
    (ROOT / "docs" / "performance.md").write_text("\n".join(text + [notes.read_text()]))
    print("bench: wrote docs/performance.md")


main()
