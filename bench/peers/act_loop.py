"""An act loop on asyncio with page and model in memory, as plainly as one would write it.

    act_loop.py STEPS      the log is KX_VISION_SHADOW_LOG
"""
import asyncio
import json
import logging
import os
import resource
import sys
import time
from dataclasses import dataclass
from typing import Optional

log = logging.getLogger("vision")
MISSION = "MULTI-STEP MISSION: one action per response.\n--- MISSION BRIEF ---\n{}\n--- END BRIEF ---\n"
CONTEXT_KEYS = ("workflow_name", "phase", "current_step", "last_action", "expected_outcome", "attempts")
PAGE_ACTIONS = ("click", "type", "scroll", "key", "wait")


@dataclass
class Action:
    action: str
    reason: str
    confidence: float
    next_expected_state: str
    x_ratio: Optional[float] = None
    y_ratio: Optional[float] = None
    text: Optional[str] = None
    key: Optional[str] = None
    model: str = ""
    latency_ms: float = 0.0
    input_tokens: int = 0
    output_tokens: int = 0


class Page:
    viewport_size = {"width": 1280, "height": 800}

    def __init__(self, image):
        self.image = image

    async def screenshot(self):
        return self.image

    async def evaluate(self, expression):
        return 1.0

    async def click(self, x, y):
        pass


class Model:
    turn = 0

    async def create(self, image, user_text):
        self.turn += 1
        arguments = {
            "action": "click",
            "x_ratio": 0.1 * (self.turn % 9),
            "y_ratio": 0.5,
            "reason": "The button is there.",
            "confidence": 0.9,
            "next_expected_state": "A dialog is open.",
        }
        return {
            "content": [{"type": "tool_use", "name": "propose_action", "input": arguments}],
            "usage": {"input_tokens": 1500, "output_tokens": 80},
        }


def user_message(context, prompt, size, ratio):
    lines = ["# Workflow context"]
    lines += [f"{key}: {context[key]}" for key in CONTEXT_KEYS if context.get(key)]
    lines += ["", "# Viewport", f"{size['width']}x{size['height']} CSS pixels (DPR {ratio:.1f})", "", "# Task", prompt]
    return "\n".join(lines)


def parse(response, latency_ms):
    for block in response["content"]:
        if block["type"] == "tool_use" and block["name"] == "propose_action":
            given, usage = block["input"], response["usage"]
            return Action(
                str(given["action"]), str(given["reason"]), float(given["confidence"]),
                str(given["next_expected_state"]), given.get("x_ratio"), given.get("y_ratio"), given.get("text"),
                given.get("key"), "light-model", latency_ms, usage["input_tokens"], usage["output_tokens"],
            )  # fmt: skip
    raise ValueError("no tool call")


async def settle(seconds):
    await asyncio.sleep(0)  # the page in memory has settled


class Mission:
    def __init__(self, page, model, context, prompt, max_steps):
        self.page, self.model, self.max_steps = page, model, max_steps
        self.context, self.prompt = dict(context), MISSION.format(prompt)
        self.breadcrumbs, self.last, self.repeats = [], None, 0
        self.latencies, self.tokens = [], [0, 0]

    async def shot_and_ask(self):
        image = await self.page.screenshot()
        ratio = await self.page.evaluate("window.devicePixelRatio")
        text = user_message(self.context, self.prompt, self.page.viewport_size, ratio)
        start = time.time()
        response = await asyncio.wait_for(self.model.create(image, text), 20)
        action = parse(response, (time.time() - start) * 1000)
        self.latencies.append(action.latency_ms)
        self.tokens[0] += action.input_tokens
        self.tokens[1] += action.output_tokens
        log.info("vision: action=%s confidence=%.2f reason=%s", action.action, action.confidence, action.reason[:80])
        return action

    def append_record(self, step, action):
        record = {
            "ts": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
            "run_id": "run-1",
            "hotspot_id": "share",
            "phase": self.context.get("phase"),
            "source": "act",
            "step": step,
            "max_steps": self.max_steps,
            "vision": vars(action),
        }
        with open(os.environ["KX_VISION_SHADOW_LOG"], "a") as file:
            file.write(json.dumps(record) + "\n")

    async def step(self, number):
        action = await asyncio.wait_for(self.shot_and_ask(), 52)
        self.append_record(number, action)
        if action.action not in PAGE_ACTIONS or action.confidence < 0.6:
            return action
        signature = (action.action, f"{action.x_ratio:.2f}", f"{action.y_ratio:.2f}", action.text, action.key)
        self.repeats = self.repeats + 1 if signature == self.last else 1
        self.last = signature
        if self.repeats >= 3:
            return action
        size = self.page.viewport_size
        await self.page.click(action.x_ratio * size["width"], action.y_ratio * size["height"])
        await settle(1.0)
        crumb = f"step {number}/{self.max_steps}: {action.action}({action.x_ratio:.2f},{action.y_ratio:.2f})"
        self.breadcrumbs = [*self.breadcrumbs, f"{crumb} - {action.reason[:120]}"][-3:]
        self.context["last_action"] = " | ".join(self.breadcrumbs)
        return None

    async def run(self):
        for number in range(1, self.max_steps + 1):
            verdict = await self.step(number)
            if verdict:
                return verdict
        return None


async def main(steps):
    context = {"workflow_name": "share", "phase": 2, "current_step": "open the share dialog"}
    page, model = Page(bytes(500_000)), Model()
    await Mission(page, model, context, "Open the share dialog.", 20).run()
    before = resource.getrusage(resource.RUSAGE_SELF)
    assert await Mission(page, model, context, "Open the share dialog.", steps).run() is None
    after = resource.getrusage(resource.RUSAGE_SELF)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    print(json.dumps({"cpu_s": cpu / steps}))


asyncio.run(main(int(sys.argv[1])))
