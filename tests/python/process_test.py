"""The end of the process in the middle of an operation, fork, an interrupt, a missing library: in
processes of their own."""

import ast
import importlib.util
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

HEAD = """
import asyncio, os, signal, socket, sys, threading
sys.path.insert(0, os.environ["SUPPORT"])
import velmora_vision as vision
from support import *

class Hang:
    def __init__(self):
        self.entered = asyncio.Event()
    async def __call__(self):
        self.entered.set()
        await asyncio.Event().wait()

async def in_flight(then):
    hang = Hang()
    page = AsyncScriptedPage(screenshot=hang)
    mission = asyncio.ensure_future(vision.act_loop(page, vision=vision.VisionClient(messages_client=Model()), **SITE))
    await hang.entered.wait()
    return then()

async def mission(client=None):
    client = client or vision.VisionClient(messages_client=Model(proposal("declare_success")))
    return (await vision.act_loop(AsyncScriptedPage(), vision=client, **SITE)).action
"""

# Name, script, exit code, what it prints.
SCRIPTS = [
    ("the main thread ends", """
flying = threading.Event()
async def fly():
    await in_flight(flying.set)
    await asyncio.Event().wait()
threading.Thread(target=lambda: asyncio.run(fly()), daemon=True).start()
flying.wait()
""", 0, ""),
    ("nothing is left", """
async def cancelled():
    try:
        await asyncio.wait_for(vision.act_loop(AsyncScriptedPage(screenshot=Hang()), vision=client(), **SITE), 0.01)
    except asyncio.TimeoutError:
        page = AsyncScriptedPage(screenshot=TargetClosedError("closed"), click=TargetClosedError("closed"))
        await vision.observe_only(page, vision=client(), **SITE)
client = lambda: vision.VisionClient(messages_client=Model())
asyncio.run(cancelled())
from velmora_vision import _errors, _operation, _runtime
_runtime._end()
print(_operation.hosts._objects, _errors._told._objects)
""", 0, "{} {}"),
    ("exit", "asyncio.run(in_flight(lambda: sys.exit(3)))", 3, ""),
    ("exit at once", "asyncio.run(in_flight(lambda: os._exit(4)))", 4, ""),
    ("a closed loop", """
loop = asyncio.new_event_loop()
loop.run_until_complete(in_flight(lambda: None))
loop.close()
del loop
print(asyncio.run(mission()))
""", 0, "declare_success"),
    ("fork", """
clients = []
async def in_the_parent():
    clients.append(vision.VisionClient(messages_client=Model(proposal("declare_success"))))
    return await mission(clients[0])
print(asyncio.run(in_the_parent()), flush=True)
child = os.fork()
if child == 0:
    try:
        asyncio.run(mission(clients[0]))
    except RuntimeError as error:
        print(error)
    print("child", asyncio.run(mission()))
    clients.clear()
    sys.exit(5)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), asyncio.run(mission()))
""", 0, "declare_success\nmade before os.fork(): a child process makes its own clients, browsers and pages\n"
     "child declare_success\n5 declare_success"),
    ("an interrupt while a thread waits", """
server = socket.create_server(("127.0.0.1", 0))
def interrupt():
    server.accept()[0].recv(1)
    os.kill(os.getpid(), signal.SIGINT)
threading.Thread(target=interrupt, daemon=True).start()
client = sync.VisionClient(api_key="any", base_url=f"http://127.0.0.1:{server.getsockname()[1]}")
try:
    sync.act_loop(SyncScriptedPage(), vision=client, **SITE)
except KeyboardInterrupt:
    print("interrupted")
print(sync.VisionClient(messages_client=Model(proposal("wait"), asynchronous=False)).act(SyncScriptedPage(), {}).action)
""", 0, "interrupted\nwait"),
    ("the default client", """
os.environ["ANTHROPIC_API_KEY"] = ""
vision.reset_default_metrics()
vision.set_model_registry("light-model", "heavy-model", lambda: "resolved")
assert vision.default_client() is vision.default_client()
os.environ["KX_VISION_TIER"] = "act"
print(sync.default_client().metrics.call_count, vision.is_vision_enabled(), vision.shadow_log_losses())
try:
    vision.set_model_registry("light-model", "another")
except vision.VisionError as error:
    print(error.kind)
""", 0, "0 tier2 0\nlogic_error"),
]  # fmt: skip


def run(script, **environment):
    environment = {**os.environ, "SUPPORT": os.path.dirname(os.path.abspath(__file__)), **environment}
    command = [sys.executable, "-X", "dev", "-c", script]
    return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=120)


class Processes(unittest.TestCase):
    def test_the_oldest_python(self):
        package = pathlib.Path(importlib.util.find_spec("velmora_vision").origin).parent
        for file in package.glob("*.py"):
            ast.parse(file.read_text(), str(file), feature_version=(3, 9))

    def test_scripts(self):
        for name, script, code, output in SCRIPTS:
            with self.subTest(name):
                ended = run(HEAD + script)
                self.assertEqual((ended.returncode, ended.stdout.strip()), (code, output), ended.stderr)
                for sign in ("Exception ignored", "Fatal", "never retrieved"):
                    self.assertNotIn(sign, ended.stderr)

    def test_a_library_that_does_not_fit(self):
        library = pathlib.Path(os.environ["VELMORA_VISION_LIBRARY"]).read_bytes()
        for name, other, problem in (
            (b"\0libcurl.so.4\0", b"\0libcurl.so.9\0", r"needs the system library libcurl.so.9, .*apt install libcurl4"),
            (b"0.1.0\0", b"0.1.9\0", r"velmora_vision 0.1.0 needs the library of its version, but .* is 0.1.9"),
            (b"\0vision_start\0", b"\0vision_stark\0", r"undefined symbol: vision_start"),
            (library[:4], b"text", r"cannot load its library .*invalid ELF header"),
        ):
            with self.subTest(other), tempfile.NamedTemporaryFile() as broken:
                self.assertIn(name, library)
                broken.write(library.replace(name, other))
                broken.flush()
                self.assertRegex(run("import velmora_vision", VELMORA_VISION_LIBRARY=broken.name).stderr, problem)


if __name__ == "__main__":
    unittest.main()
