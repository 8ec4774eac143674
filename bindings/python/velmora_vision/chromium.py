"""A Chromium that the library drives itself, for programs without Playwright: `launch` and
`connect`. Its pages can be given to the modes, and have Playwright's names for what a script
needs most. All is for asyncio; a launched browser ends with its last reference, or `close`."""

from __future__ import annotations

from typing import Any, Dict, List, Optional, Sequence, Union

from . import _loop, _requests
from ._operation import Outcome
from ._runtime import Handle
from .page import AsyncPage


class Mouse:
    def __init__(self, page: ChromiumPage) -> None:
        self._page = page

    async def click(self, x: float, y: float) -> None:
        await self._page._run("page_mouse_click", x=x, y=y)

    async def wheel(self, delta_x: float, delta_y: float) -> None:
        await self._page._run("page_mouse_wheel", delta_x=delta_x, delta_y=delta_y)


class Keyboard:
    def __init__(self, page: ChromiumPage) -> None:
        self._page = page

    async def type(self, text: str, *, delay: float = 0) -> None:
        """`delay` is the time between two strokes in milliseconds."""
        await self._page._run("page_keyboard_type", text=text, delay_ms=delay)

    async def press(self, key: str) -> None:
        await self._page._run("page_keyboard_press", key=key)


class ChromiumPage:
    """A page of a Chromium of ours. It is closed with its last reference, or by `close`."""

    def __init__(self, handle: Handle, target_id: str) -> None:
        self._handle = handle
        self.target_id = target_id
        self.mouse = Mouse(self)
        self.keyboard = Keyboard(self)

    async def navigate(self, url: str) -> None:
        await self._run("page_navigate", url=url)

    async def evaluate(self, expression: str) -> Any:
        return await self._run("page_evaluate", expression=expression)

    async def close(self) -> None:
        await self._run("page_close")

    async def _run(self, operation: str, **options: Any) -> Any:
        return await _loop.run(_requests.of_browser(operation, page=self, **options))


AnyPage = Union[AsyncPage, ChromiumPage]


class Browser:
    """Made by `launch` or `connect`; `async with` closes it."""

    def __init__(self, handle: Handle) -> None:
        self._handle = handle

    async def new_page(
        self,
        *,
        width: Optional[int] = None,
        height: Optional[int] = None,
        device_pixel_ratio: Optional[float] = None,
        optimize_for_speed: bool = True,
    ) -> ChromiumPage:
        """A new page, 1280 x 800 CSS pixels by default.

        `optimize_for_speed` takes screenshots in less time and more bytes.
        """
        page: ChromiumPage = await self._run(
            "browser_new_page",
            _page,
            width=width,
            height=height,
            device_pixel_ratio=device_pixel_ratio,
            optimize_for_speed=optimize_for_speed,
        )
        return page

    async def attach(self, target_id: str, *, optimize_for_speed: bool = True) -> ChromiumPage:
        """A page that exists."""
        page: ChromiumPage = await self._run(
            "browser_attach", _page, target_id=target_id, optimize_for_speed=optimize_for_speed
        )
        return page

    async def pages(self) -> List[Dict[str, str]]:
        """The pages that exist: "target_id", "url" and "title" of each."""
        pages: List[Dict[str, str]] = await self._run("browser_pages")
        return pages

    async def close(self) -> None:
        await self._run("browser_close")

    async def __aenter__(self) -> Browser:
        return self

    async def __aexit__(self, *_error: Any) -> None:
        await self.close()

    async def _run(self, operation: str, *finish: Any, **options: Any) -> Any:
        return await _loop.run(_requests.of_browser(operation, *finish, browser=self._handle, **options))


def _page(outcome: Outcome) -> ChromiumPage:
    assert outcome.page is not None
    return ChromiumPage(outcome.page, outcome.value["target_id"])


def _browser(outcome: Outcome) -> Browser:
    assert outcome.browser is not None
    return Browser(outcome.browser)


async def launch(
    *,
    executable: Optional[str] = None,
    headless: Optional[bool] = None,
    arguments: Optional[Sequence[str]] = None,
    launch_timeout_s: Optional[float] = None,
    command_timeout_s: Optional[float] = None,
) -> Browser:
    """Launches a browser, headless by default."""
    request = _requests.of_browser(
        "chromium_launch",
        _browser,
        executable=executable,
        headless=headless,
        arguments=None if arguments is None else list(arguments),
        launch_timeout_s=launch_timeout_s,
        command_timeout_s=command_timeout_s,
    )
    browser: Browser = await _loop.run(request)
    return browser


async def connect(
    url: str, *, command_timeout_s: Optional[float] = None, allow_remote: Optional[bool] = None
) -> Browser:
    """Connects to a browser that runs with an open debugging port."""
    request = _requests.of_browser(
        "chromium_connect", _browser, url=url, command_timeout_s=command_timeout_s, allow_remote=allow_remote
    )
    browser: Browser = await _loop.run(request)
    return browser
