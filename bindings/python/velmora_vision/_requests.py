"""The operations as the library takes them, the same for asyncio and for threads."""

from __future__ import annotations

from dataclasses import asdict
from typing import Any, Callable, Mapping, Optional, Tuple

from ._operation import Outcome, Request
from .records import ActionResult, ImgMeta


def _result(outcome: Outcome) -> ActionResult:
    return ActionResult(**outcome.value)


def _shot(outcome: Outcome) -> Tuple[bytes, ImgMeta]:
    return outcome.image, ImgMeta(**outcome.value)


def _nothing(_outcome: Outcome) -> None:
    return None


def _value(outcome: Outcome) -> Any:
    return outcome.value


def _rescued(outcome: Outcome) -> Any:
    if outcome.value["way"] == "verdict":
        return ActionResult(**outcome.value["value"])
    return outcome.returned


def act_loop(page: Any, vision: Any, should_abort: Optional[Callable[[], Any]], **options: Any) -> Request:
    functions = {"should_abort": should_abort}
    return Request("act_loop", options, _result, page=page, client=vision, functions=functions)


def with_vision_fallback(
    page: Any, vision: Any, primary_fn: Callable[[], Any], cua_fallback: Optional[Callable[..., Any]], **options: Any
) -> Request:
    functions = {"primary_fn": primary_fn, "cua_fallback": cua_fallback}
    return Request("with_vision_fallback", options, _rescued, page=page, client=vision, functions=functions)


def shadow_observe_then_cua(page: Any, vision: Any, cua_fn: Callable[[], Any], **options: Any) -> Request:
    return Request(
        "shadow_observe_then_cua",
        options,
        lambda outcome: outcome.returned,
        page=page,
        client=vision,
        functions={"cua_fn": cua_fn},
    )


def observe_only(page: Any, vision: Any, **options: Any) -> Request:
    return Request("observe_only", options, _value, page=page, client=vision)


def execute_action(page: Any, result: ActionResult, img_meta: ImgMeta) -> Request:
    options = {"result": asdict(result), "img_meta": asdict(img_meta)}
    return Request("execute_action", options, _nothing, page=page)


def screenshot(page: Any, vision: Any, full_page: bool) -> Request:
    return Request("screenshot", {"full_page": full_page}, _shot, page=page, client=vision)


def ask(vision: Any, image: bytes, img_meta: ImgMeta, flow_context: Mapping[str, Any], **options: Any) -> Request:
    options.update(img_meta=asdict(img_meta), flow_context=flow_context)
    return Request("ask", options, _result, client=vision, image=image)


def act(page: Any, vision: Any, **options: Any) -> Request:
    return Request("act", options, _result, page=page, client=vision)


def of_browser(operation: str, finish: Callable[[Outcome], Any] = _value, **more: Any) -> Request:
    """Operations on a Chromium of ours; `page` and `browser` beside the options."""
    page, browser = more.pop("page", None), more.pop("browser", None)
    return Request(operation, more, finish, page=page, browser=browser)
