"""Runs the benchmarks and writes docs/performance.md; scripts/bench calls it.

    run.py BUILD [--smoke] [NAME ...]

Each benchmark is a function that returns a Table and may add rows to the summary.
Processor times are those of the measured process, user and system together. Two
sides alternate, A B A B, and a ratio is the median of the ratios pair by pair.
"""
import contextlib
import itertools
import json
import os
import statistics
import subprocess
import sys
import tempfile
from pathlib import Path

from page import PYTHON, Summary, Table, Target, machine, median, number, page, ratios, spread, today

ROOT = Path(__file__).resolve().parent.parent
PEERS = ROOT / "bench" / "peers"
DRAW = ROOT / "bench" / "draw.js"  # the page of which screenshots are taken


class Setup:
    """Where the programs are, how long to run, a scratch directory, and the summary."""

    def __init__(self, build, smoke, scratch):
        self.programs, self.smoke, self.scratch = Path(build).resolve() / "bench", smoke, Path(scratch)
        self.rounds = 1 if smoke else 7
        self.summary = Summary()
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
    def server(self, tls=False, mission=False):
        options = ["--certificate", self.certificate, "--key", self.key] if tls else []
        options += ["--mission", "1"] if mission else []
        server = subprocess.Popen([self.programs / "server", *options], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            yield int(server.stdout.readline())
        finally:
            server.stdin.close()
            server.wait()


def alternate(setup, *sides, rounds=None):
    """Runs the sides in turn, as often as a comparison needs; a list of results each."""
    results = [[] for _ in sides]
    for _ in range(min(setup.rounds, rounds or setup.rounds)):
        for side, kept in zip(sides, results):
            kept.append(side())
    return results


def column(results, name):
    return [result[name] for result in results]


def compare_clients(setup, title, tls, target):
    note = "In milliseconds of processor time per call; memory in kB above the idle process, at its peak."
    table = Table(title, note, ["image, in flight", "vision", "httpx", "ratio", "fetch", "ratio",
                                "vision, kB", "httpx, kB", "fetch, kB"])  # fmt: skip
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
            cpu = [column(results, "cpu_s") for results in (ours, httpx, fetch)]
            memory = [column(results, "memory_kb") for results in (ours, httpx, fetch)]
            beside = [ratios(cpu[0], theirs) for theirs in cpu[1:]]
            targets = [Target("memory", statistics.median(memory[0]), 128 * in_flight + size / 1024)]
            if size > 100_000 and in_flight == 32:
                targets += [Target("ratio", statistics.median(values), target) for values in beside]
            table.add(f"{size // 1000} kB, {in_flight}", median(cpu[0], 1e3), median(cpu[1], 1e3), spread(beside[0]),
                      median(cpu[2], 1e3), spread(beside[1]), *map(median, memory), targets=targets)  # fmt: skip
            if tls:
                summarise_clients(setup.summary, size, in_flight, cpu, memory)
    return table


def summarise_clients(summary, size, in_flight, cpu, memory):
    peers = ("Python, httpx", "Node, fetch")
    if (size, in_flight) == (500_000, 1):
        for peer, theirs in zip(peers, cpu[1:]):
            summary.add("`ask` with a picture of 500 kB over TLS, processor time", cpu[0], peer, theirs, "ms", 1e3)
    if (size, in_flight) == (2_000_000, 32):
        for peer, theirs in zip(peers, cpu[1:]):
            summary.add("32 at once with 2 MB each, processor time per call", cpu[0], peer, theirs, "ms", 1e3)
        for peer, theirs in zip(peers, memory[1:]):
            summary.add("32 at once with 2 MB each, peak memory", memory[0], peer, theirs, "MB", 1e-3)


def ask(setup):
    return compare_clients(setup, "`ask` over plain HTTP on loopback", False, 1 / 5)


def ask_tls(setup):
    return compare_clients(setup, "`ask` over TLS 1.3 on loopback", True, 1 / 4)


def floor(setup):
    note = ("Beside it a C program that encodes with the same base64 and writes the same bytes on a blocking socket. "
            "One plain HTTP call in flight.")  # fmt: skip
    table = Table("`ask` beside the least that it can cost", note, ["image", "`ask`, ms", "C, ms", "ratio"])
    with setup.server() as port:
        for size in (100_000, 500_000, 2_000_000):
            calls, image = setup.few(400_000_000 // (size + 400_000)), setup.image(size)
            ours, least = (column(results, "cpu_s") for results in alternate(
                setup,
                lambda: setup.run("ask", f"http://127.0.0.1:{port}", image, "--calls", calls),
                lambda: setup.run("floor", port, image, setup.request, calls),
            ))  # fmt: skip
            ratio = ratios(ours, least)
            table.add(f"{size // 1000} kB", median(ours, 1e3), median(least, 1e3), spread(ratio),
                      targets=[Target("ratio", statistics.median(ratio), 1.5)])  # fmt: skip
            if size == 500_000:
                setup.summary.add("`ask` with 500 kB over plain HTTP", ours, "C on a blocking socket", least, "ms", 1e3)
    return table


def act_step(setup):
    note = "Page and model in memory, neither suspends; virtual time. Beside it the same loop in Python's asyncio."
    table = Table("Act-loop step", note, ["log", "vision, µs", "allocations", "asyncio, µs", "ratio"])
    steps = setup.few(20_000)
    for name, log in (("nowhere", "/dev/null"), ("file", str(setup.scratch / "shadow.jsonl"))):
        ours, theirs = (column(results, "cpu_s") for results in alternate(
            setup,
            lambda: setup.run("missions", 1, steps, "--thinks", 0, KX_VISION_SHADOW_LOG=log),
            lambda: setup.run(PYTHON, PEERS / "act_loop.py", steps, KX_VISION_SHADOW_LOG=log),
        ))  # fmt: skip
        counted = setup.run("missions", 1, steps, "--thinks", 0, "--count", 1, KX_VISION_SHADOW_LOG=log)["allocations"]
        ratio = ratios(ours, theirs)
        targets = [Target("ratio", statistics.median(ratio), 0.1)]
        if name == "nowhere":
            targets += [Target("µs", statistics.median(ours) * 1e6, 12), Target("allocations", counted, 100)]
            setup.summary.add("act-loop step without screenshot and model", ours, "Python, asyncio", theirs, "µs", 1e6)
        table.add(name, median(ours, 1e6), f"{counted:.0f}", median(theirs, 1e6), spread(ratio), targets=targets)
    return table


def missions(setup):
    note = "Act loops of 8 steps at once on one event loop, in virtual time; the screenshot is shared and not counted."
    table = Table("Missions at once", note, ["missions", "µs per step", "ratio to 100 missions", "bytes per waiting mission"])
    times = setup.few(80_000) // 8
    results = alternate(setup, *(
        (lambda count=count: setup.run("missions", count, 8, "--times", max(1, times // count))) for count in (1, 100, 10_000)))  # fmt: skip
    hundred = column(results[1], "cpu_s")
    for count, runs in zip((1, 100, 10_000), results):
        ratio = ratios(column(runs, "cpu_s"), hundred)
        held = setup.run("missions", count, 8, "--count", 1)["waiting_bytes"]
        targets = [Target("ratio", statistics.median(ratio), 1.5), Target("bytes", held, 20_000)] if count == 10_000 else []
        table.add(count, median(column(runs, "cpu_s"), 1e6), spread(ratio), f"{held:,}", targets=targets)
    return table


def shadow_log(setup):
    note = "Beside it open, one write, close from C++ without a library, of a text made beforehand."
    table = Table("Shadow log record", note, ["log", "vision, µs", "open, write, close, µs", "ratio"])
    for name, log in (("file", str(setup.scratch / "log.jsonl")), ("nowhere", "/dev/null")):
        ours, least = (column(results, "cpu_s") for results in alternate(setup, *(
            (lambda side=side: setup.run("shadow_log", side, setup.few(100_000), KX_VISION_SHADOW_LOG=log))
            for side in ("ours", "floor"))))  # fmt: skip
        ratio = ratios(ours, least)
        table.add(name, median(ours, 1e6), median(least, 1e6), spread(ratio),
                  targets=[Target("ratio", statistics.median(ratio), 1.3)])  # fmt: skip
        if name == "file":
            setup.summary.add("shadow log record", ours, "open, write, close", least, "µs", 1e6)
    return table


def session_s(leader):
    """Processor time of the living processes of a session."""
    ticks = 0
    for stat in Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            fields = stat.read_text().rpartition(")")[2].split()
            if int(fields[3]) == leader:
                ticks += int(fields[11]) + int(fields[12])
    return ticks / os.sysconf("SC_CLK_TCK")


def screenshot(setup):
    note = "1280 × 800 in Chromium. Beside it the same DevTools command sent raw, its reply only received."
    note += (" The browser's processor time is for one picture. The last columns add to the picture's time that of sending "
             "its base64 text on a line of so many Mbit/s, which is computed.")  # fmt: skip
    rates = (1000, 100, 20)
    table = Table("Screenshot", note, ["pixel ratio", "encoded to be", "image, kB", "vision, ms", "raw, ms", "ratio", "memory to image",
                                       "browser's processor, ms", *(f"sent at {rate:,}, ms" for rate in rates)])  # fmt: skip
    profile = setup.scratch / "profile"
    browser = subprocess.Popen(
        ["chromium", "--headless", "--no-sandbox", "--hide-scrollbars", "--remote-debugging-port=0",
         f"--user-data-dir={profile}", "about:blank"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        start_new_session=True)  # fmt: skip
    try:
        for scale, fast in itertools.product((1, 2), (0, 1)):
            before_s, rounds = session_s(browser.pid), setup.few(40) + 1
            result = setup.run("screenshot", rounds, "--profile", profile, "--draw", DRAW, "--ratio", scale, "--fast", fast)
            cpu_ms = (session_s(browser.pid) - before_s) * 1e3 / (2 * rounds + 2)  # two sides, and a round to warm up
            ours, raw = result["ours_s"], result["raw_s"]
            ratio, memory = ratios(ours, raw), result["peak_bytes"] / result["image_bytes"]
            megabits = result["image_bytes"] * 4 / 3 * 8 / 1e6
            sent = [statistics.median(ours) * 1e3 + megabits / rate * 1e3 for rate in rates]
            table.add(scale, ("small", "fast")[fast], f"{result['image_bytes'] / 1000:,.0f}", median(ours, 1e3),
                      median(raw, 1e3), spread(ratio), f"{memory:.2f}", number(cpu_ms), *map(number, sent),
                      targets=[Target("ratio", statistics.median(ratio), 1.05), Target("memory", memory, 4 / 3 + 0.05)])  # fmt: skip
            if scale == 1 and not fast:
                setup.summary.add("screenshot, wall time", ours, "the raw DevTools command", raw, "ms", 1e3)
    finally:
        browser.terminate()
        browser.wait()
    return table


@contextlib.contextmanager
def pinwall():
    """The demo's web application, in a process of its own."""
    examples = ROOT / "examples"
    script = (f"import {{ servePinwall }} from '{examples}/playwright/pinwall.mjs';"
              f"console.log((await servePinwall('{examples}/demo/app')).url);")  # fmt: skip
    server = subprocess.Popen(["node", "--input-type=module", "-e", script], stdout=subprocess.PIPE, text=True)
    try:
        yield server.stdout.readline().strip()
    finally:
        server.kill()
        server.wait()


# Of the demo's mission: what the loop waits for after its actions, the model's wait, and the
# delays of its typed text.
PAUSES_S = 2 * 0.5 + 7 * 1.0 + 4.0 + 0.02 * len("ana@example.org")


def pages(setup):
    note = ("The demo's mission of 11 steps in Chromium, on several pages of one browser at once: from Node with the package, "
            "as a user writes it with playwright-core and fetch, and in C++ on a page of the library's own. Processor time of "
            "the driver process; its own time is the wall time of a step without the pauses that the mission makes.")  # fmt: skip
    table = Table("Missions on pages", note, ["pages", "driver", "processor ms per step", "ratio", "peak memory, MB",
                                              "longest event-loop delay, ms", "own time per step, ms"])  # fmt: skip
    modules = setup.programs.parent / "bindings" / "node" / "node_modules"
    shots = {}

    def run(side, count, takes):
        log = setup.scratch / "pages.jsonl"
        with setup.server(mission=True) as port, pinwall() as app:
            model = f"http://127.0.0.1:{port}"
            if side == "C++":
                result = setup.run("pages", model, app, count, "--draw", DRAW, "--shots", takes, KX_VISION_SHADOW_LOG=log)
            else:
                result = setup.run("/usr/bin/env", "node", PEERS / "pages.mjs", side, modules, model, app, count, DRAW, takes,
                                   KX_VISION_SHADOW_LOG=log, REQUEST=setup.request)  # fmt: skip
        shots.setdefault(side, []).extend(result["shots"])
        if result["reached"] < count:  # the script clicks where a slow page has nothing yet
            print(f"  {side}: {result['reached']} of {count} missions reached their goal; the machine is too busy", flush=True)
        if result["steps"] != 11 * count:
            raise SystemExit(f"pages: {side} took {result['steps']} steps, not 11 for each of {count} missions")
        result["own_s"] = (statistics.median(result["walls"]) - PAUSES_S) * count / result["steps"]
        return result

    for count in (1,) if setup.smoke else (1, 8, 32):
        takes = setup.few(40) if count == 1 else 0
        sides = ("fetch", "package", "C++")
        results = alternate(setup, *((lambda side=side: run(side, count, takes)) for side in sides), rounds=3)
        cpu, memory = ([column(runs, name) for runs in results] for name in ("cpu_s", "memory_kb"))
        delay = [[run.get("delay_s", 0) for run in runs] for runs in results]
        for i, (side, most) in enumerate(zip(sides, (None, 1 / 2, 1 / 5))):
            beside, targets = ratios(cpu[i], cpu[0]), []
            if most:
                targets.append(Target("processor time", statistics.median(beside), most))
            if side == "package":
                targets.append(Target("delay", statistics.median(ratios(delay[i], delay[0])), 1 / 2))
            if side == "C++":
                targets.append(Target("memory", statistics.median(ratios(memory[i], memory[0])), 1 / 8))
            table.add(count, {"fetch": "playwright-core and fetch", "package": "the Node package"}.get(side, side),
                      median(cpu[i], 1e3), spread(beside), median(memory[i], 1e-3),
                      median(delay[i], 1e3) if side != "C++" else "-", median(column(results[i], "own_s"), 1e3),
                      targets=targets)  # fmt: skip
        if count == 8:
            what = "a step of 8 missions at once on Playwright's pages, processor time"
            setup.summary.add(what, cpu[1], "playwright-core and fetch", cpu[0], "ms", 1e3)
    ratio = statistics.median(shots["C++"]) / statistics.median(shots["fetch"])
    table.add("", "a screenshot with fast encoding in C++ beside page.screenshot()", "", number(ratio), "", "",
              f"{median(shots['C++'], 1e3)} beside {median(shots['fetch'], 1e3)}", targets=[Target("ratio", ratio, 0.4)])  # fmt: skip
    return table


def long_run(setup):
    note = "100,000 asks over HTTP with a 10 kB image and 100,000 act-loop steps in one process."
    table = Table("Long run", note, ["held", "after 5 %", "at the end", "highest"])
    with setup.server() as port:
        count = setup.few(100_000)
        samples = setup.run("long_run", f"http://127.0.0.1:{port}", setup.image(10_000), count, count)["samples"]
    for name, text in (("resident_kb", "resident, kB"), ("descriptors", "descriptors"), ("threads", "threads")):
        values = column(samples, name)
        table.add(text, f"{values[0]:,}", f"{values[-1]:,}", f"{max(values):,}",
                  targets=[Target("highest to first", max(values) / values[0], 1.02)])  # fmt: skip
    return table


def start(setup):
    note = ("A process that builds a client and asks ten times over HTTP, with a 500 kB image. What is opened is counted "
            "from main on; the library is linked statically.")  # fmt: skip
    table = Table("Start", note, ["", "value"])
    with setup.server() as port:
        url, image = f"http://127.0.0.1:{port}", setup.image(500_000)
        runs = [setup.run("start", url, image) for _ in range(setup.rounds * 3)]
    late = statistics.median(run["first_ms"] - run["tenth_ms"] for run in runs)
    table.add("building the client, ms", spread(column(runs, "build_ms")))
    for name in ("files", "threads"):
        most = max(column(runs, name))
        table.add(f"{name} opened by it", most, targets=[Target(name, most, 0)])
    table.add("first ask, ms", spread(column(runs, "first_ms")), targets=[Target("ms later than the tenth", late, 2)])
    table.add("tenth ask, ms", spread(column(runs, "tenth_ms")))
    return table


def fit(points):
    """Least squares: intercept, slope, and the largest deviation relative to the line."""
    xs, ys = zip(*points)
    slope, base = statistics.linear_regression(xs, ys)
    return base, slope, max(abs(y - base - slope * x) / (base + slope * x) for x, y in points)


def growth(setup):
    note = "Cost against its cause: a straight line through the medians, and how far the worst point is from it."
    table = Table("Growth", note, ["processor time", "per", "from, to", "slope, µs", "worst point off the line by"])
    with setup.server() as port:
        url = f"http://127.0.0.1:{port}"
        cases = [
            ("an ask", "kB of image", 1e-3, (250_000, 500_000, 1_000_000, 2_000_000, 4_000_000),
             lambda n: setup.run("ask", url, setup.image(n), "--calls", setup.few(200))["cpu_s"]),
            ("a mission", "step", 1, (4000, 8000, 16_000, 32_000, 64_000),
             lambda n: setup.run("missions", 1, n)["cpu_s"] * n),
            ("all steps", "mission of 8 steps", 1, (500, 1000, 2000, 4000, 8000),
             lambda n: setup.run("missions", n, 8)["cpu_s"] * 8 * n),
            ("all appends", "record", 1, (10_000, 20_000, 40_000, 80_000),
             lambda n: setup.run("shadow_log", "ours", n, KX_VISION_SHADOW_LOG=str(setup.scratch / "growth.jsonl"))["cpu_s"] * n),
        ]  # fmt: skip
        for cost, cause, unit, sizes, measure in cases:
            rounds = [[measure(n) for n in sizes] for _ in range(min(setup.rounds, 3))]
            medians = [statistics.median(values) * 1e6 for values in zip(*rounds)]
            _, slope, off = fit([(n * unit, y) for n, y in zip(sizes, medians)])
            table.add(cost, cause, f"{sizes[0] * unit:,g} to {sizes[-1] * unit:,g}", f"{slope:.3g}", f"{off:.0%}")
    return table


BENCHMARKS = {f.__name__: f for f in (ask, ask_tls, floor, act_step, missions, shadow_log, screenshot, pages, long_run, start, growth)}  # fmt: skip


def main():
    words = sys.argv[1:]
    smoke = "--smoke" in words
    build, *names = [word for word in words if word != "--smoke"]
    unknown = [name for name in names if name not in BENCHMARKS]
    if unknown:
        raise SystemExit(f"bench: no benchmark named {unknown[0]}; there are {', '.join(BENCHMARKS)}")
    tables, surroundings = [], machine()
    with tempfile.TemporaryDirectory(prefix="vision-bench-") as scratch:
        setup = Setup(build, smoke, scratch)
        for name in names or BENCHMARKS:
            print(f"bench: {name}", flush=True)
            tables.append(BENCHMARKS[name](setup))
    if names or smoke:
        return
    notes = (ROOT / "bench" / "notes.md").read_text()
    (ROOT / "docs" / "performance.md").write_text(page(today(), surroundings, setup.summary, tables, notes))
    print("bench: wrote docs/performance.md")


if __name__ == "__main__":
    main()
