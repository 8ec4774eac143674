"""The client for asyncio."""

from __future__ import annotations

import asyncio
import contextvars
from typing import Any, Awaitable, Callable, Mapping, Optional, Set, Tuple

from . import _errors, _loop, _requests
from ._client import ClientBase
from .chromium import AnyPage
from .records import ActionResult, ImgMeta

OnAction = Callable[[ActionResult, Mapping[str, Any]], Awaitable[None]]


class VisionClient(ClientBase):
    """Asks the model, within a budget of calls, and counts them.

    `api_key` is else that of the registry's resolver, else ANTHROPIC_API_KEY. `on_action`
    sees each answer before the call goes on, and the call waits for it; what it raises is
    logged. `messages_client`, an object with the vendor's `messages.create`, replaces HTTPS;
    the API key and the options of the endpoint after it are not used then.

    `cassette` is a folder to which the requests are recorded, or from which they are answered,
    by `cassette_mode`: "none", "once" (the default), "new_episodes" or "all". No key is needed
    where nothing is recorded. docs/replay.md says what matches, and what `cassette_by_order` is.

    A client belongs to the event loop that uses it first: others get a RuntimeError. The
    process's default client belongs to none.

    Raises a VisionError when no models were named or there is no key.
    """

    _foreign = "this VisionClient belongs to another event loop: make one for each loop"

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

    def _performer(self, owner: asyncio.AbstractEventLoop) -> Any:
        tasks: Set[asyncio.Task[None]] = set()

        def begin(reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
            task = owner.create_task(_loop.answer(reply, function, give))
            tasks.add(task)
            task.add_done_callback(tasks.discard)

        def perform(reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
            if not _loop.submit(owner, contextvars.Context(), begin, reply, function, give):
                _errors.reply(reply, RuntimeError("the event loop of the client is closed"))

        return perform

    async def screenshot(self, page: AnyPage, *, full_page: bool = False) -> Tuple[bytes, ImgMeta]:
        """A screenshot as PNG, and what is known of it. Raises what the page raises."""
        result: Tuple[bytes, ImgMeta] = await _loop.run(_requests.screenshot(page, self, full_page))
        return result

    async def ask(
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
        """One question about one screenshot. A call that fails is a "declare_failure" result;
        raises BudgetExceeded when the calls are spent. `timeout_s` bounds each attempt, 20 s
        by default."""
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
        result: ActionResult = await _loop.run(request)
        return result

    async def act(
        self,
        page: AnyPage,
        flow_context: Mapping[str, Any],
        *,
        prompt: Optional[str] = None,
        high_stakes: bool = False,
        timeout_s: Optional[float] = None,
    ) -> ActionResult:
        """Takes a screenshot, then asks. Raises what the page raises, and what `ask` raises."""
        request = _requests.act(
            page, self, flow_context=flow_context, prompt=prompt, high_stakes=high_stakes, timeout_s=timeout_s
        )
        result: ActionResult = await _loop.run(request)
        return result


def default_client() -> VisionClient:
    """The process's client, which operations use that are given none. It is made by its first
    use, with all defaults; raises as VisionClient does."""
    client: VisionClient = VisionClient._shared()
    return client
