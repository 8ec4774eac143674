"""Operations that belong to an asyncio event loop."""

from __future__ import annotations

import asyncio
import contextvars
import inspect
from typing import Any, Callable, Set

from . import _errors
from ._operation import Operation, Request


def submit(
    loop: asyncio.AbstractEventLoop, context: contextvars.Context, job: Callable[..., None], *arguments: Any
) -> bool:
    """Has a loop do a job, from any thread; False when it is closed."""
    try:
        loop.call_soon_threadsafe(job, *arguments, context=context)
    except RuntimeError:
        return False
    return True


async def answer(reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
    """Calls a function of the host's, which may be a coroutine function, and answers."""
    try:
        value = function()
        if inspect.isawaitable(value):
            value = await value
        give(reply, value)
    except Exception as error:
        _errors.reply(reply, error)


class LoopOperation(Operation):
    def __init__(self, request: Request, loop: asyncio.AbstractEventLoop) -> None:
        super().__init__(request)
        self._loop = loop
        self._context = contextvars.copy_context()
        self._tasks: Set[asyncio.Task[None]] = set()
        self._ended = loop.create_future()

    def submit(self, job: Callable[..., None], *arguments: Any) -> None:
        submit(self._loop, self._context, job, *arguments)

    def perform(self, reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
        if not submit(self._loop, self._context, self._begin, reply, function, give):
            _errors.reply(reply, RuntimeError("the event loop of the operation is closed"))

    def ended(self) -> None:
        if not self._ended.done():
            self._ended.set_result(None)

    async def run(self) -> Any:
        self.start(self._loop)
        try:
            await asyncio.wait({self._ended})
        except asyncio.CancelledError:
            self.cancel()
            self._cancel_tasks()
            await self._wait_for_the_end()
            raise
        finally:
            if not self._ended.done():  # the coroutine is closed in the middle
                self.cancel()
            if not self._loop.is_closed():
                self._cancel_tasks()  # a page's call that outlasted its time limit
        if self.interruption is None and isinstance(self.error, _errors.VisionError) and self.error.kind == "Cancelled":
            raise asyncio.CancelledError  # the interpreter is ending
        return self.conclude()

    async def _wait_for_the_end(self) -> None:
        while not self._ended.done():  # soon, whatever the host's functions do
            try:
                await asyncio.wait({self._ended})
            except asyncio.CancelledError:
                pass  # it is known
        if self._tasks:
            await asyncio.wait(self._tasks)

    def _begin(self, reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
        if self.is_cancelled:
            return
        task = self._loop.create_task(self._answer(reply, function, give))
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    async def _answer(self, reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
        try:
            await answer(reply, function, give)
        except BaseException as error:
            if self.is_cancelled or self._ended.done():
                raise
            self.interrupt(error)

    def _cancel_tasks(self) -> None:
        for task in self._tasks:
            task.cancel()


async def run(request: Request) -> Any:
    return await LoopOperation(request, asyncio.get_running_loop()).run()
