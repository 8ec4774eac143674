"""The cases of tests/parity/cases.json, with coroutines and with functions.

    parity_test.py            compares with what the table expects
    parity_test.py --record   writes into the table what comes of the coroutines
"""

import json
import logging
import os
import pathlib
import re
import subprocess
import sys
import unittest

import velmora_vision as vision
from support import LOG, Async, Sync

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "parity"
TABLE = FOLDER / "cases.json"
CONTEXT, CASES = json.loads(TABLE.read_text()).values()
NAMES = {"click": "mouse_click", "wheel": "mouse_wheel", "type": "keyboard_type", "press": "keyboard_press"}


def follow(step):
    """Does what a step of a script says."""
    if "error" in step:
        kind = type(step["error"]["kind"], (Exception,), {})
        raise kind(step["error"]["message"])
    return step["value"]


def without_times(line):
    return re.sub(r'"(ts|latency_ms|elapsed_ms)": ("[^"]*"|[0-9.e+-]+)', r'"\1": 0', line)


def scripted_page(kind, faults):
    class Page(kind.Page):
        @property
        def viewport_size(self):
            self.calls.append(("viewport_size",))
            return follow(faults["viewport_size"]) if "viewport_size" in faults else self.size

    names = {"screenshot", "evaluate", *NAMES}
    return Page(**{name: lambda step=faults[NAMES.get(name, name)]: follow(step)
                   for name in names if NAMES.get(name, name) in faults})  # fmt: skip


def play(kind, url, number):
    """Runs a case; returns what came of it as the table has it."""
    case = CASES[number]
    page = scripted_page(kind, case.get("page", {}))
    told = []

    def host_function(name):
        steps = iter(case["host"][name])

        def call(*arguments):
            told.append([name, *arguments[1:]])  # of cua_fallback the context and the reason
            return follow(next(steps))

        return call if name == "should_abort" else kind.function(call)

    functions = {name: host_function(name) for name in case.get("host", {})}
    positional = [functions.pop(name) for name in ("primary_fn", "cua_fn") if name in functions]
    client = kind.Client(api_key="any", base_url=f"{url}/{kind.__name__}/{number}", **case.get("client", {}))
    before = os.path.getsize(LOG) if os.path.exists(LOG) else 0
    ending = {}
    try:
        options = {**functions, **case.get("options", {})}
        if case["operation"] == "execute_action":
            value = kind.run(kind.of.execute_action, page, vision.ActionResult(**options["result"]),
                             vision.ImgMeta(**options["img_meta"]))  # fmt: skip
        elif case["operation"] == "act":
            value = kind.run(client.act, page, CONTEXT, **options)
        else:
            if case["operation"] != "with_vision_fallback":
                options.update(hotspot_id="share-dialog", run_id="run-1")
            operation = getattr(kind.of, case["operation"])
            value = kind.run(operation, page, *positional, flow_context=CONTEXT, vision=client, **options)
        if isinstance(value, vision.ActionResult):
            value = {**vars(value), "latency_ms": 0}
        if case["operation"] == "observe_only":
            value = "the record"
        ending["value"] = value
    except Exception as error:
        ending["error"] = {"kind": getattr(error, "kind", type(error).__name__), "message": str(error),
                           "cua_origin": getattr(error, "_kx_cua_origin", False)}  # fmt: skip
    records = []
    if os.path.exists(LOG):
        with open(LOG, encoding="utf-8") as log:
            log.seek(before)
            records = [without_times(line.rstrip("\n")) for line in log]
    calls = [[NAMES.get(name, name), *arguments] for name, *arguments in page.calls]
    return {**ending, "calls": calls, "told": told, "records": records}


def serve():
    server = subprocess.Popen([sys.executable, str(FOLDER / "model_server.py")], stdout=subprocess.PIPE, text=True)
    return server, server.stdout.readline().strip()


class Parity(unittest.TestCase):
    def test_cases(self):
        logging.getLogger("vision").setLevel(logging.CRITICAL)
        server, url = serve()
        self.addCleanup(server.stdout.close)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        for kind in (Async, Sync):
            for number, case in enumerate(CASES):
                with self.subTest(case["name"], kind=kind.__name__):
                    self.maxDiff = None
                    self.assertEqual(json.loads(json.dumps(play(kind, url, number))), case["ends"])


if __name__ == "__main__":
    if sys.argv[1:] == ["--record"]:
        server, url = serve()
        for number, case in enumerate(CASES):
            case["ends"] = play(Async, url, number)
        server.kill()
        lines = ["{" + ",\n  ".join(f'"{key}": {json.dumps(value, ensure_ascii=False)}' for key, value in case.items() if value)
                + "}" for case in CASES]  # fmt: skip
        head = json.dumps(CONTEXT, ensure_ascii=False)
        TABLE.write_text(f'{{"flow_context": {head},\n"cases": [\n' + ",\n".join(lines) + "\n]}\n")
    else:
        unittest.main()
