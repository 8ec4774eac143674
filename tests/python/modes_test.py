"""Every mode, ending and error, with coroutines and with functions."""

import os
import tempfile
import traceback
import unittest
from unittest import mock

import velmora_vision as vision
from support import CONTEXT, PICTURE, SITE, Async, Sync, TargetClosedError, proposal, records

META = vision.ImgMeta(1000, 500, 2.0, 1.5)
LOOK = [("screenshot", False), ("evaluate", "window.devicePixelRatio")]


class Modes:
    """Once per kind of functions."""

    def call(self, name, *arguments, answers=(), **options):
        """Calls a mode with a client of the script's; returns its value."""
        self.model = self.kind.model(*answers)
        client = self.kind.Client(messages_client=self.model, **options.pop("client", {}))
        return self.kind.run(getattr(self.kind.of, name), *arguments, vision=client, **options)

    def test_a_host_that_is_wrong(self):
        for page, probe, action, reason in (
            (self.kind.Page(screenshot=lambda: "text"), None, "escalate_to_cua", "must return bytes, not str"),
            (self.kind.Page(), lambda: 1 / 0, "declare_success", "because"),
        ):
            answers = [proposal("declare_success")]
            verdict = self.call("act_loop", page, answers=answers, should_abort=probe, **SITE)
            self.assertEqual(verdict.action, action)
            self.assertIn(reason, verdict.reason)

    def test_a_cassette_answers_without_model_and_key(self):
        folder = tempfile.mkdtemp()
        answers = [proposal("click", x_ratio=0.5, y_ratio=0.5), proposal("declare_success")]
        page = self.kind.Page()
        recorded = self.call("act_loop", page, answers=answers, client={"cassette": folder}, **SITE)
        client = self.kind.Client(cassette=folder, cassette_mode="none")
        replayed = self.kind.run(self.kind.of.act_loop, self.kind.Page(), vision=client, **SITE)
        self.assertEqual((replayed.action, replayed.reason), (recorded.action, recorded.reason))
        with self.assertRaisesRegex(vision.VisionError, 'cassette_mode is none, once, new_episodes or all, not "some"'):
            self.kind.Client(cassette=folder, cassette_mode="some")

    def test_execute_action(self):
        page, act = self.kind.Page(), self.kind.of.execute_action
        self.kind.run(act, page, vision.ActionResult("type", "", 1.0, "", text="a\x00🙂"), META)
        self.assertEqual(page.calls, [("type", "a\x00🙂", 20.0)])
        with self.assertRaisesRegex(ValueError, "key action requires key"):
            self.kind.run(act, page, vision.ActionResult("key", "", 1.0, ""), META)

    def test_errors_come_back_as_they_were(self):
        mine = TargetClosedError("closed")

        def fails():
            raise mine

        def execute(name, action, **more):
            result = vision.ActionResult(action, "", 1.0, "", **more)
            page = self.kind.Page(**{name: fails})
            return name, lambda: self.kind.run(self.kind.of.execute_action, page, result, META), False

        step = self.kind.function(fails)
        unsure = [proposal("click", 0.3)]
        fallback = lambda: self.call(
            "with_vision_fallback", self.kind.Page(), step, answers=unsure, flow_context=CONTEXT
        )
        shadow = lambda: self.call("shadow_observe_then_cua", self.kind.Page(), step, answers=unsure, **SITE)
        for name, call, is_cua in (
            execute("click", "click", x_ratio=0.5, y_ratio=0.5),
            execute("wheel", "scroll"),
            execute("type", "type", text="a"),
            execute("press", "key", key="a"),
            ("step", fallback, False),
            ("agent", shadow, True),
        ):
            with self.subTest(name):
                mine.__traceback__ = None
                try:
                    call()
                    self.fail("nothing was raised")
                except TargetClosedError as error:  # assertRaises would take the traceback away
                    self.assertIs(error, mine)
                    frames = [frame.name for frame in traceback.extract_tb(error.__traceback__)]
                self.assertIn("fails", frames)
                self.assertEqual(getattr(mine, "_kx_cua_origin", False), is_cua)

    def test_fallback(self):
        value, runs, page = object(), [], self.kind.Page()

        def step():
            runs.append(1)
            if len(runs) == 1:
                raise TargetClosedError("no #old-share")
            return value

        answers = [proposal("click", x_ratio=0.5, y_ratio=0.5)]
        context = {**CONTEXT, "mine": (1, 2)}
        step_twice = self.kind.function(step)
        self.assertIs(self.call("with_vision_fallback", page, step_twice, answers=answers, flow_context=context), value)
        self.assertIn(("click", 500.0, 250.0), page.calls)

        seen = []
        agent = self.kind.function(lambda *arguments: seen.append(arguments) or value)
        runs.clear()
        unsure = [proposal("escalate_to_cua")]
        got = self.call(
            "with_vision_fallback", page, step_twice, answers=unsure, flow_context=context, cua_fallback=agent
        )
        self.assertIs(got, value)
        hint = "playwright failed: TargetClosedError: no #old-share"
        self.assertEqual(seen, [(page, {**context, "context_hint": hint}, "because")])
        runs.clear()

    def test_shadow_mode_and_observer(self):
        page, value = self.kind.Page(), {"text": "click 0.5,0.5: done", "raw": object()}
        answers = [proposal("click", x_ratio=0.5, y_ratio=0.5)]

        looked = []

        def agent():
            looked.extend(page.calls)
            return value

        with records() as written:
            got = self.call("shadow_observe_then_cua", page, self.kind.function(agent), answers=answers[:], **SITE)
            record = self.call("observe_only", page, answers=answers[:], **SITE)
        self.assertIs(got, value)
        self.assertEqual(written[0]["cua"]["text_head"], value["text"])
        self.assertEqual(written[1], record)
        if self.kind is Sync:  # one thread for both: vision looks first
            self.assertEqual(looked, LOOK)

    def test_client(self):
        seen = []
        hook = self.kind.function(lambda result, context: seen.append((result, context)))
        model = self.kind.model(proposal("wait", duration_ms=5), proposal("wait"))
        client = self.kind.Client(call_budget=1, on_action=hook, messages_client=model)

        page = self.kind.Page()
        page.size = None

        result = self.kind.run(client.act, page, CONTEXT, prompt="Wait.", high_stakes=True)
        self.assertEqual(seen, [(result, {**CONTEXT, "viewport": {"w": 1280, "h": 800, "dpr": 2.0}})])
        self.assertEqual((result.duration_ms, model.requests[0]["model"]), (5, "heavy-model"))
        image, meta = self.kind.run(client.screenshot, page, full_page=True)
        self.assertEqual((image, meta.width_css, meta.dpr), (PICTURE, 1280, 2.0))
        self.assertIn(("screenshot", True), page.calls)
        with self.assertRaisesRegex(vision.BudgetExceeded, "Vision call budget 1 exceeded — escalate to CUA"):
            self.kind.run(client.ask, image, meta, CONTEXT)
        client.metrics.reset()
        self.kind.run(client.ask, image, meta, CONTEXT)
        self.assertEqual((client.metrics.call_count, client.metrics.by_model), (1, {"light-model": 1}))
        self.assertGreater(client.metrics.p95(), 0)
        self.assertAlmostEqual(client.metrics.estimated_cost_usd(), (10 * 3 + 5 * 15) / 1e6)

    def test_bad_input(self):
        page = self.kind.Page()
        cases = [
            (ValueError, "max_steps", {"max_steps": "eight"}),
            (TypeError, "not JSON serializable", {"flow_context": {"when": object()}}),
            (ValueError, "flow_context", {"flow_context": [1]}),
        ]
        for error, message, options in cases:
            with self.subTest(message), self.assertRaisesRegex(error, message):
                self.call("act_loop", page, **{**SITE, **options})
        self.assertEqual(page.calls, [])
        with mock.patch.dict(os.environ), self.assertRaisesRegex(vision.VisionError, "no API key"):
            os.environ.pop("ANTHROPIC_API_KEY", None)
            self.kind.run(self.kind.of.act_loop, page, **SITE)


class AsyncModes(Modes, unittest.TestCase):
    kind = Async


class SyncModes(Modes, unittest.TestCase):
    kind = Sync


del Modes

if __name__ == "__main__":
    unittest.main()
