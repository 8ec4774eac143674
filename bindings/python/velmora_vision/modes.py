"""The modes for asyncio.

Cancelling the task ends the operation, waits for its end, and cancels what it was waiting
for of the page's and of yours. All raise a VisionError when no models were named or there
is no key.
"""

from __future__ import annotations

import asyncio
import logging
from typing import Any, Awaitable, Callable, Dict, Mapping, Optional, Set, TypeVar, Union

from . import _loop, _requests
from .chromium import AnyPage
from .client import VisionClient
from .records import ActionResult, ImgMeta

T = TypeVar("T")
U = TypeVar("U")


async def act_loop(
    page: AnyPage,
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    mission_prompt: Optional[str] = None,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
    max_steps: Optional[int] = None,
    should_abort: Optional[Callable[[], Union[bool, Awaitable[bool]]]] = None,
    read_only: bool = False,
) -> ActionResult:
    """Drives the page toward a goal, at most `max_steps` (8) steps. Anything but
    "declare_success" is for the computer-use agent.

    `should_abort` is asked before every step. Nothing of the mission's is raised.
    """
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
    verdict: ActionResult = await _loop.run(request)
    return verdict


async def with_vision_fallback(
    page: AnyPage,
    primary_fn: Callable[[], Awaitable[T]],
    *,
    flow_context: Mapping[str, Any],
    cua_fallback: Optional[Callable[[Any, Dict[str, Any], str], Awaitable[U]]] = None,
    vision: Optional[VisionClient] = None,
    high_stakes: bool = False,
) -> Union[T, U, ActionResult]:
    """Runs one scripted step. When it fails, vision does one thing on the page and the step
    runs once more, so it must stand that.

    Returns the step's value, vision's "declare_success", or what `cua_fallback(page, context,
    reason)` returned. Raises the step's own error when there is no `cua_fallback`, what the
    second run, the action or a screenshot raises, and BudgetExceeded.
    """
    request = _requests.with_vision_fallback(
        page, vision, primary_fn, cua_fallback, flow_context=flow_context, high_stakes=high_stakes
    )
    value: Union[T, U, ActionResult] = await _loop.run(request)
    return value


async def shadow_observe_then_cua(
    page: AnyPage,
    cua_fn: Callable[[], Awaitable[T]],
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
) -> T:
    """Runs the computer-use agent, and records beside it what vision would have done.

    Returns what `cua_fn` returned, or raises its very exception with `_kx_cua_origin = True`.
    Vision never touches the page.
    """
    request = _requests.shadow_observe_then_cua(
        page,
        vision,
        cua_fn,
        flow_context=flow_context,
        hotspot_id=hotspot_id,
        run_id=run_id,
        high_stakes=high_stakes,
    )
    value: T = await _loop.run(request)
    return value


async def observe_only(
    page: AnyPage,
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
    dom_ground_truth: Optional[Mapping[str, Any]] = None,
) -> Dict[str, Any]:
    """Records what vision would have done where a scripted step succeeded, and returns the
    record. Nothing of the observation's is raised."""
    request = _requests.observe_only(
        page,
        vision,
        flow_context=flow_context,
        hotspot_id=hotspot_id,
        run_id=run_id,
        high_stakes=high_stakes,
        dom_ground_truth=dom_ground_truth,
    )
    record: Dict[str, Any] = await _loop.run(request)
    return record


_in_background: Set[asyncio.Task[Dict[str, Any]]] = set()


def observe_in_background(
    page: AnyPage,
    *,
    flow_context: Mapping[str, Any],
    hotspot_id: str,
    vision: Optional[VisionClient] = None,
    run_id: Optional[str] = None,
    high_stakes: bool = False,
    dom_ground_truth: Optional[Mapping[str, Any]] = None,
) -> asyncio.Task[Dict[str, Any]]:
    """Starts `observe_only` as a task, which need not be kept or awaited. What it raises is
    also logged."""
    observation = observe_only(
        page,
        flow_context=flow_context,
        hotspot_id=hotspot_id,
        vision=vision,
        run_id=run_id,
        high_stakes=high_stakes,
        dom_ground_truth=dom_ground_truth,
    )
    task = asyncio.get_running_loop().create_task(observation)
    _in_background.add(task)
    task.add_done_callback(_observed)
    return task


def _observed(task: asyncio.Task[Dict[str, Any]]) -> None:
    _in_background.discard(task)
    if not task.cancelled() and task.exception() is not None:
        logging.getLogger("vision").warning("vision: observation failed: %s", task.exception())


async def execute_action(page: AnyPage, result: ActionResult, img_meta: ImgMeta) -> None:
    """Carries out one action on the page; a verdict does nothing. Raises a ValueError when the
    result lacks what its action needs, and what the page raises."""
    await _loop.run(_requests.execute_action(page, result, img_meta))
