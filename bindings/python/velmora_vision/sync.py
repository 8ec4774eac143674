"""The modes for pages of Playwright's sync API, and for anything else without asyncio.

Everything that is called of the page's and of yours runs on the calling thread, within the
call: such a page is bound to its thread. So a page that does not answer is not interrupted
by a time limit; the limit counts once the page returns. An interrupt from the keyboard ends
the operation.
"""

from __future__ import annotations

import inspect
import queue
import threading
from typing import Any, Callable, Dict, Mapping, Optional, Tuple, TypeVar, Union

from . import _errors, _requests
from ._answers import reply_image, reply_value
from ._client import ClientBase
from ._operation import Operation, Request
from .page import SyncPage
from .records import ActionResult, ImgMeta

__all__ = [
    "VisionClient",
    "act_loop",
    "default_client",
    "execute_action",
    "observe_only",
    "shadow_observe_then_cua",
    "with_vision_fallback",
]

T = TypeVar("T")
U = TypeVar("U")
OnAction = Callable[[ActionResult, Mapping[str, Any]], None]
Perform = Callable[[int, Callable[[], Any], Callable[[int, Any], None]], None]


class _Jobs(threading.local):
    """What a thread is to do while it waits. Operations within operations share it."""

    def __init__(self) -> None:
        self.queue: queue.SimpleQueue[Callable[[], None]] = queue.SimpleQueue()


_jobs = _Jobs()


def _answer(reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> bool:
    try:
        value = function()
        if inspect.isawaitable(value):
            if inspect.iscoroutine(value):
                value.close()
            raise TypeError("velmora_vision.sync got an awaitable: pages and functions of asyncio are for velmora_vision")
        give(reply, value)
        return True
    except Exception as error:
        _errors.reply(reply, error)
        return False


class _ThreadOperation(Operation):
    # Longer than the library needs between two calls of a page, shorter than anybody minds.
    _LOOKING_S = 1.0

    def __init__(self, request: Request) -> None:
        super().__init__(request)
        self._queue = _jobs.queue
        self._has_looked = False

    def submit(self, job: Callable[..., None], *arguments: Any) -> None:
        self._queue.put(lambda: job(*arguments))

    def perform(self, reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
        self.submit(self._perform, reply, function, give)

    def ended(self) -> None:
        """Only wakes the thread."""

    def run(self) -> Any:
        self.start(self._queue)
        while not self.has_ended:
            try:
                self._queue.get()()
            except BaseException as error:  # KeyboardInterrupt and the like
                self.interrupt(error)
        return self.conclude()

    def _perform(self, reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
        if self.is_cancelled or self.has_ended:
            return
        is_answered = _answer(reply, function, give)
        if give is reply_value or (give is reply_image and not is_answered):
            self._has_looked = True  # evaluate is the last call of a look at the page

    def function(self, name: str, *arguments: Any) -> Callable[[], Any]:
        call = super().function(name, *arguments)
        if name != "cua_fn":
            return call

        def after_the_look() -> Any:
            self._let_vision_look()
            return call()

        return after_the_look

    # The agent and the page need the same thread: vision looks first, then the agent runs,
    # beside the question to the model.
    def _let_vision_look(self) -> None:
        while not self._has_looked:
            try:
                job = self._queue.get(timeout=self._LOOKING_S)
            except queue.Empty:
                return
            job()


def _run(request: Request) -> Any:
    return _ThreadOperation(request).run()


class VisionClient(ClientBase):
    """As velmora_vision.VisionClient, with functions in place of coroutines. It belongs to the
    thread that uses it first."""

    _foreign = "this VisionClient belongs to another thread: make one for each thread"

    def __init__(
        self,
        api_key: Optional[str] = None,
        default_model: Optional[str] = None,
        call_budget: Optional[int] = None,
        on_action: Optional[OnAction] = None,
        *,
        messages_client: Any = None,
        base_url: Optional[str] = None,
        allow_plain_http: Optional[bool] = None,
        ca_file: Optional[str] = None,
        connect_timeout_s: Optional[float] = None,
        max_response_bytes: Optional[int] = None,
        cassette: Optional[str] = None,
        cassette_mode: Optional[str] = None,
        cassette_by_order: Optional[bool] = None,
    ) -> None:
        super().__init__(
            api_key,
            default_model,
            call_budget,
            on_action,
            messages_client,
            base_url=base_url,
            allow_plain_http=allow_plain_http,
            ca_file=ca_file,
            connect_timeout_s=connect_timeout_s,
            max_response_bytes=max_response_bytes,
            cassette=cassette,
            cassette_mode=cassette_mode,
            cassette_by_order=cassette_by_order,
        )

    def _performer(self, owner: queue.SimpleQueue[Callable[[], None]]) -> Perform:
        def perform(reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
            owner.put(lambda: None if _answer(reply, function, give) else None)

        return perform

    def screenshot(self, page: SyncPage, *, full_page: bool = False) -> Tuple[bytes, ImgMeta]:
        result: Tuple[bytes, ImgMeta] = _run(_requests.screenshot(page, self, full_page))
        return result

    def ask(
        self,
        image: bytes,
        img_meta: ImgMeta,
        flow_context: Mapping[str, Any],
        *,
        prompt: Optional[str] = None,
        high_stakes: bool = False,
        timeout_s: Optional[float] = None,
        transport_retry: bool = True,
    ) -> ActionResult:
        request = _requests.ask(
            self,
            image,
            img_meta,
            flow_context,
            prompt=prompt,
            high_stakes=high_stakes,
            timeout_s=timeout_s,
            transport_retry=transport_retry,
        )
        result: ActionResult = _run(request)
        return result

    def act(
        self,
        page: SyncPage,
        flow_context: Mapping[str, Any],
        *,
        prompt: Optional[str] = None,
        high_stakes: bool = False,
        timeout_s: Optional[float] = None,
    ) -> ActionResult:
        request = _requests.act(
            page, self, flow_context=flow_context, prompt=prompt, high_stakes=high_stakes, timeout_s=timeout_s
        )
        result: ActionResult = _run(request)
        return result


def default_client() -> VisionClient:
    """The process's default client, with functions in place of coroutines."""
    client: VisionClient = VisionClient._shared()
    return client


def act_loop(
    page: SyncPage,
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    mission_prompt: Optional[str] = None,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
    max_steps: Optional[int] = None,
    should_abort: Optional[Callable[[], bool]] = None,
    read_only: bool = False,
) -> ActionResult:
    """As velmora_vision.act_loop."""
    request = _requests.act_loop(
        page,
        vision,
        should_abort,
        flow_context=flow_context,
        hotspot_id=hotspot_id,
        mission_prompt=mission_prompt,
        run_id=run_id,
        high_stakes=high_stakes,
        max_steps=max_steps,
        read_only=read_only,
    )
    verdict: ActionResult = _run(request)
    return verdict


def with_vision_fallback(
    page: SyncPage,
    primary_fn: Callable[[], T],
    *,
    flow_context: Mapping[str, Any],
    cua_fallback: Optional[Callable[[Any, Dict[str, Any], str], U]] = None,
    vision: Optional[VisionClient] = None,
    high_stakes: bool = False,
) -> Union[T, U, ActionResult]:
    """As velmora_vision.with_vision_fallback."""
    request = _requests.with_vision_fallback(
        page, vision, primary_fn, cua_fallback, flow_context=flow_context, high_stakes=high_stakes
    )
    value: Union[T, U, ActionResult] = _run(request)
    return value


def shadow_observe_then_cua(
    page: SyncPage,
    cua_fn: Callable[[], T],
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
) -> T:
    """As velmora_vision.shadow_observe_then_cua; the agent starts once vision has its
    screenshot."""
    request = _requests.shadow_observe_then_cua(
        page,
        vision,
        cua_fn,
        flow_context=flow_context,
        hotspot_id=hotspot_id,
        run_id=run_id,
        high_stakes=high_stakes,
    )
    value: T = _run(request)
    return value


def observe_only(
    page: SyncPage,
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
    dom_ground_truth: Optional[Mapping[str, Any]] = None,
) -> Dict[str, Any]:
    """As velmora_vision.observe_only. For an observation in the background use threads of
    your own, with a page of its own each."""
    request = _requests.observe_only(
        page,
        vision,
        flow_context=flow_context,
        hotspot_id=hotspot_id,
        run_id=run_id,
        high_stakes=high_stakes,
        dom_ground_truth=dom_ground_truth,
    )
    record: Dict[str, Any] = _run(request)
    return record


def execute_action(page: SyncPage, result: ActionResult, img_meta: ImgMeta) -> None:
    """As velmora_vision.execute_action."""
    _run(_requests.execute_action(page, result, img_meta))
