"""What the library needs of a page, with Playwright's names. A page of Playwright's async
API is an AsyncPage, one of its sync API a SyncPage; so is anything else with these methods."""

from __future__ import annotations

from typing import Any, Mapping, Optional, Protocol


class AsyncMouse(Protocol):
    async def click(self, x: float, y: float) -> Any: ...

    async def wheel(self, delta_x: float, delta_y: float) -> Any: ...


class AsyncKeyboard(Protocol):
    async def type(self, text: str, *, delay: Optional[float] = None) -> Any: ...

    async def press(self, key: str) -> Any: ...


class AsyncPage(Protocol):
    async def screenshot(self, *, full_page: Optional[bool] = None, type: Any = None) -> bytes:
        """The viewport, or the whole page, as PNG; `type` is always "png"."""
        ...

    async def evaluate(self, expression: str) -> Any: ...

    @property
    def viewport_size(self) -> Optional[Mapping[str, Any]]:
        """{"width": ..., "height": ...} in CSS pixels; None counts as 1280 x 800."""
        ...

    @property
    def mouse(self) -> AsyncMouse: ...

    @property
    def keyboard(self) -> AsyncKeyboard: ...


class SyncMouse(Protocol):
    def click(self, x: float, y: float) -> Any: ...

    def wheel(self, delta_x: float, delta_y: float) -> Any: ...


class SyncKeyboard(Protocol):
    def type(self, text: str, *, delay: Optional[float] = None) -> Any: ...

    def press(self, key: str) -> Any: ...


class SyncPage(Protocol):
    def screenshot(self, *, full_page: Optional[bool] = None, type: Any = None) -> bytes: ...

    def evaluate(self, expression: str) -> Any: ...

    @property
    def viewport_size(self) -> Optional[Mapping[str, Any]]: ...

    @property
    def mouse(self) -> SyncMouse: ...

    @property
    def keyboard(self) -> SyncKeyboard: ...
