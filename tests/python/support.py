"""A model and a page that follow a script, for both kinds of functions."""

import asyncio
import contextlib
import json
import os
import tempfile

import velmora_vision as vision
from velmora_vision import sync

LOG = os.path.join(tempfile.mkdtemp(), "shadow.jsonl")
os.environ.update(KX_VISION_SHADOW_LOG=LOG)
vision.set_model_registry("light-model", "heavy-model")

CONTEXT = {"workflow_name": "share", "phase": 2, "platform": "acme"}
SITE = {"flow_context": CONTEXT, "hotspot_id": "share-dialog", "run_id": "run-1"}
PICTURE = b"\x89PNG picture"


def proposal(action, confidence=0.9, **more):
    tool_input = {"action": action, "reason": "because", "confidence": confidence, "next_expected_state": "x", **more}
    content = [{"type": "tool_use", "name": "propose_action", "input": tool_input}]
    return {"content": content, "usage": {"input_tokens": 10, "output_tokens": 5}}


def coroutine_function(function):
    async def call(*arguments, **options):
        value = function(*arguments, **options)
        return await value if asyncio.iscoroutine(value) else value

    return call


class Model:
    """The vendor's client: answers with what the script holds, or raises it."""

    def __init__(self, *answers, asynchronous=True):
        self.answers, self.requests = list(answers), []
        self.messages = self
        self.create = coroutine_function(self._create) if asynchronous else self._create

    def _create(self, *, model, max_tokens, thinking, system, tools, tool_choice, messages):
        self.requests.append({"model": model, "messages": messages})
        answer = self.answers.pop(0)
        if isinstance(answer, BaseException):
            raise answer
        return answer() if callable(answer) else answer


class TargetClosedError(Exception):
    pass


class SyncScriptedPage:
    """A page with Playwright's names and signatures (its sync API), which notes what is called
    and follows `faults`: by the call's name an exception to raise, or a function to call."""

    def __init__(self, **faults):
        self.calls, self.faults, self.size = [], faults, {"width": 1000, "height": 500}
        self.mouse = self.keyboard = self

    def _note(self, name, *arguments):
        self.calls.append((name, *arguments))
        fault = self.faults.get(name)
        if isinstance(fault, BaseException):
            raise fault
        return fault() if fault else None

    @property
    def viewport_size(self):
        return self.size

    def screenshot(self, *, timeout=None, type=None, path=None, quality=None, omit_background=None, full_page=None):
        assert type == "png"
        return self._note("screenshot", full_page) or PICTURE

    def evaluate(self, expression, arg=None):
        return self._note("evaluate", expression) or 2.0

    def click(self, x, y, *, delay=None, button=None, click_count=None):
        return self._note("click", x, y)

    def wheel(self, delta_x, delta_y):
        return self._note("wheel", delta_x, delta_y)

    def type(self, text, *, delay=None):
        return self._note("type", text, delay)

    def press(self, key, *, delay=None):
        return self._note("press", key)


class AsyncScriptedPage(SyncScriptedPage):
    """The same as its async API."""

    screenshot = coroutine_function(SyncScriptedPage.screenshot)
    evaluate = coroutine_function(SyncScriptedPage.evaluate)
    click = coroutine_function(SyncScriptedPage.click)
    wheel = coroutine_function(SyncScriptedPage.wheel)
    type = coroutine_function(SyncScriptedPage.type)
    press = coroutine_function(SyncScriptedPage.press)


class Async:
    """Calls the coroutine functions."""

    Page, Client, of = AsyncScriptedPage, vision.VisionClient, vision
    model = staticmethod(Model)
    function = staticmethod(coroutine_function)
    loop = asyncio.new_event_loop()

    @classmethod
    def run(cls, function, *arguments, **options):
        return cls.loop.run_until_complete(function(*arguments, **options))


class Sync:
    Page, Client, of = SyncScriptedPage, sync.VisionClient, sync
    model = staticmethod(lambda *answers: Model(*answers, asynchronous=False))
    function = staticmethod(lambda function: function)

    @staticmethod
    def run(function, *arguments, **options):
        return function(*arguments, **options)


@contextlib.contextmanager
def records():
    """The shadow log's new records."""
    found = []
    before = os.path.getsize(LOG) if os.path.exists(LOG) else 0
    yield found
    if os.path.exists(LOG):
        with open(LOG) as log:
            log.seek(before)
            found.extend(json.loads(line) for line in log)
