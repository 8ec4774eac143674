"""Event loops: cancellation at every await, several loops, what belongs to one loop."""

import asyncio
import logging
import threading
import unittest

import velmora_vision as vision
from support import CONTEXT, PICTURE, SITE, AsyncScriptedPage, Model, TargetClosedError, proposal
from velmora_vision import sync

META = vision.ImgMeta(1000, 500, 2.0, 1.5)
CLICK = proposal("click", x_ratio=0.5, y_ratio=0.5)


class Hang:
    """A coroutine function that never returns, and tells what becomes of it."""

    def __init__(self):
        self.entered, self.left = asyncio.Event(), asyncio.Event()

    async def __call__(self, *_arguments):
        self.entered.set()
        try:
            await asyncio.Event().wait()
        finally:
            self.left.set()


async def raises(*_arguments):
    raise TargetClosedError("no #old-share")


def act_loop(hang, page, client):
    return vision.act_loop(page, vision=client, **SITE)


def execute(action, **more):
    result = vision.ActionResult(action, "", 1.0, "", **more)
    return lambda hang, page, client: vision.execute_action(page, result, META)


# Where it hangs, and the operation that gets there.
AWAITS = {
    "wheel": execute("scroll"),
    "type": execute("type", text="a"),
    "press": execute("key", key="a"),
    "screenshot": act_loop,
    "evaluate": act_loop,
    "create": act_loop,
    "click": act_loop,
    "on_action": act_loop,
    "should_abort": lambda hang, page, client: vision.act_loop(page, vision=client, should_abort=hang, **SITE),
    "primary_fn": lambda hang, page, client: vision.with_vision_fallback(
        page, hang, flow_context=CONTEXT, vision=client
    ),
    "cua_fallback": lambda hang, page, client: vision.with_vision_fallback(
        page, raises, flow_context=CONTEXT, vision=client, cua_fallback=hang
    ),
    "cua_fn": lambda hang, page, client: vision.shadow_observe_then_cua(page, hang, vision=client, **SITE),
}


class EventLoops(unittest.TestCase):
    def test_cancellation_at_every_await(self):
        async def cancel(where, operation):
            hang = Hang()
            page = AsyncScriptedPage(**{where: hang})
            answer = hang if where == "create" else proposal("escalate_to_cua") if where == "cua_fallback" else CLICK
            hook = hang if where == "on_action" else None
            client = vision.VisionClient(messages_client=Model(answer), on_action=hook)
            task = asyncio.ensure_future(operation(hang, page, client))
            entered = asyncio.ensure_future(hang.entered.wait())
            await asyncio.wait({task, entered}, return_when=asyncio.FIRST_COMPLETED)
            self.assertFalse(task.done(), "it ended before it came to the place")
            task.cancel()
            with self.assertRaises(asyncio.CancelledError):
                await task
            if where not in ("create", "on_action"):  # a client's functions run on
                self.assertTrue(hang.left.is_set())
            calls = len(page.calls)
            await asyncio.sleep(0)
            self.assertEqual(len(page.calls), calls)

        for where, operation in AWAITS.items():
            with self.subTest(where):
                asyncio.run(cancel(where, operation))

    def test_what_is_no_ordinary_error(self):
        async def run(error):
            async def agent():
                raise error

            client = vision.VisionClient(messages_client=Model(CLICK))
            await vision.shadow_observe_then_cua(AsyncScriptedPage(), agent, vision=client, **SITE)

        for error in (asyncio.CancelledError("inside"), KeyboardInterrupt(), SystemExit(3)):
            with self.subTest(repr(error)), self.assertRaises(type(error)) as caught:
                asyncio.run(run(error))
            self.assertIsNone(getattr(caught.exception, "_kx_cua_origin", None))

    def test_a_page_that_outlasts_a_time_limit(self):
        async def run():
            hang = Hang()
            client = vision.VisionClient(messages_client=Model(hang))
            result = await client.ask(PICTURE, META, CONTEXT, timeout_s=0.05)
            self.assertEqual(result.reason, "vision timeout after 0.05s")
            self.assertTrue(hang.entered.is_set())

        with self.assertLogs("vision", logging.WARNING) as logs:
            asyncio.run(run())
        self.assertIn("vision: timeout after", logs.records[0].getMessage())

    def test_a_transport_error_of_a_derived_kind_is_tried_once_more(self):
        class RateLimitError(Exception):
            pass

        class Overloaded(RateLimitError):
            pass

        async def run():
            client = vision.VisionClient(messages_client=Model(Overloaded("later"), CLICK))
            return await client.ask(PICTURE, META, CONTEXT)

        with self.assertLogs("vision", logging.INFO) as logs:
            self.assertEqual(asyncio.run(run()).action, "click")
        self.assertEqual(logs.records[0].getMessage(), "vision: transport error, retrying once: later")

    def test_loops(self):
        async def mission(client):
            return await vision.act_loop(AsyncScriptedPage(), vision=client, **SITE)

        async def with_client():
            client = vision.VisionClient(messages_client=Model(*[proposal("declare_success")] * 8))
            verdicts = await asyncio.gather(*(mission(client) for _ in range(8)))
            return client, {verdict.action for verdict in verdicts}

        results = []
        threads = [threading.Thread(target=lambda: results.append(asyncio.run(with_client()))) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        results.append(asyncio.run(with_client()))
        self.assertEqual([actions for _, actions in results], [{"declare_success"}] * 5)
        with self.assertRaisesRegex(RuntimeError, "belongs to another event loop"):
            asyncio.run(mission(results[0][0]))
        client = sync.VisionClient(messages_client=Model(asynchronous=False))
        client._address_for(threading.main_thread())
        with self.assertRaisesRegex(RuntimeError, "belongs to another thread"):
            client.ask(PICTURE, META, CONTEXT)

    def test_asyncio_given_to_sync(self):
        with self.assertRaisesRegex(TypeError, "got an awaitable"):
            click = vision.ActionResult("click", "", 1.0, "", x_ratio=0.5, y_ratio=0.5)
            sync.execute_action(AsyncScriptedPage(), click, META)

    def test_the_background(self):
        async def run():
            client = vision.VisionClient(messages_client=Model(CLICK))
            record = await vision.observe_in_background(AsyncScriptedPage(), vision=client, **SITE)
            self.assertEqual(record["vision"]["action"], "click")
            vision.observe_in_background(AsyncScriptedPage(screenshot=Hang()), vision=client, **SITE)

        asyncio.run(run())


if __name__ == "__main__":
    unittest.main()
