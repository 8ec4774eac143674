"""What mypy is to accept: pages with the signatures of Playwright's, and what the modes return."""

from pathlib import Path
from typing import Any, List, Literal, Optional, TypedDict, Union

import velmora_vision as vision
from velmora_vision import chromium, sync

Button = Optional[Literal["left", "middle", "right"]]
Type = Optional[Literal["jpeg", "png"]]


class Size(TypedDict):
    width: int
    height: int


class Mouse:
    async def click(
        self, x: float, y: float, *, delay: Optional[float] = None, button: Button = None, click_count: int = 1
    ) -> None: ...

    async def wheel(self, delta_x: float, delta_y: float) -> None: ...


class Keyboard:
    async def type(self, text: str, *, delay: Optional[float] = None) -> None: ...

    async def press(self, key: str, *, delay: Optional[float] = None) -> None: ...


class Page:
    @property
    def mouse(self) -> Mouse:
        return Mouse()

    @property
    def keyboard(self) -> Keyboard:
        return Keyboard()

    @property
    def viewport_size(self) -> Optional[Size]:
        return None

    async def evaluate(self, expression: str, arg: Optional[Any] = None) -> Any: ...

    async def screenshot(
        self, *, timeout: Optional[float] = None, type: Type = None, path: Union[str, Path, None] = None,
        full_page: Optional[bool] = None, clip: Optional[Any] = None
    ) -> bytes:  # fmt: skip
        return b""


async def step() -> List[int]:
    return [1]


async def use(page: Page, other: vision.SyncPage) -> None:
    verdict: vision.ActionResult = await vision.act_loop(page, flow_context={"phase": 2}, hotspot_id="h")
    rescued: Union[List[int], vision.ActionResult] = await vision.with_vision_fallback(page, step, flow_context={})
    agents: List[int] = await vision.shadow_observe_then_cua(page, step, flow_context={}, hotspot_id="h")
    text: str = sync.with_vision_fallback(other, lambda: "text", flow_context={})  # type: ignore[assignment]
    async with await chromium.launch() as browser:
        await vision.VisionClient().act(await browser.new_page(), {}, prompt=verdict.reason)
    await vision.act_loop(other, flow_context={}, hotspot_id="h")  # type: ignore[arg-type]
    print(rescued, agents, text)
