"""One operation of the library's: what it is given, what it calls of the host, how it ends.

The library calls on its own thread, where nothing of the host's may run. Each callback
here only hands its work to the thread or event loop that owns the operation, by `submit`,
and no exception leaves one: it becomes the answer.
"""

from __future__ import annotations

import ctypes
import functools
import json
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, Mapping, Optional

from . import _errors, _native, _runtime
from ._answers import (
    image_of,
    json_text,
    reply_agent_value,
    reply_image,
    reply_nothing,
    reply_size,
    reply_truth,
    reply_value,
)
from ._registry import Registry

_library = _native.library
hosts: Registry[Any] = Registry()  # operations, pages and clients, by the library's `host`


@dataclass
class Outcome:
    """What an operation ended with."""

    value: Any = None
    image: bytes = b""
    page: Optional[_runtime.Handle] = None
    browser: Optional[_runtime.Handle] = None
    returned: Any = None  # what the host's own function returned


@dataclass
class Request:
    """An operation that is to be started. Options that are None are left out."""

    operation: str
    options: Dict[str, Any]
    finish: Callable[[Outcome], Any]
    page: Any = None  # the host's, or one with a `_handle`
    client: Any = None
    browser: Optional[_runtime.Handle] = None
    image: Optional[bytes] = None
    functions: Mapping[str, Optional[Callable[..., Any]]] = field(default_factory=dict)


# ---------------------------------------------------------------------------- callbacks


def callback(prototype: Any) -> Callable[[Callable[..., None]], Any]:
    """A callback whose last argument is the reply, and whose first is found by its number."""

    def decorate(function: Callable[..., None]) -> Any:
        @prototype
        @functools.wraps(function)
        def call(host: int, *arguments: Any) -> None:
            try:
                function(hosts.get(host), *arguments)
            except BaseException as error:  # nobody could catch it behind us
                _errors.reply(arguments[-1], error)

        return call

    return decorate


@callback(_native.ScreenshotFunction)
def _screenshot(host: Any, full_page: int, reply: int) -> None:
    page = host.page
    host.perform(reply, lambda: page.screenshot(full_page=bool(full_page), type="png"), reply_image)


@callback(_native.TextFunction)
def _evaluate(host: Any, expression: int, size: int, reply: int) -> None:
    page, text = host.page, _native.text(expression, size)
    host.perform(reply, lambda: page.evaluate(text), reply_value)


@callback(_native.HostFunction)
def _viewport_size(host: Any, reply: int) -> None:
    page = host.page
    host.perform(reply, lambda: page.viewport_size, reply_size)


@callback(_native.PointFunction)
def _mouse_click(host: Any, x: float, y: float, reply: int) -> None:
    page = host.page
    host.perform(reply, lambda: page.mouse.click(x, y), reply_nothing)


@callback(_native.PointFunction)
def _mouse_wheel(host: Any, delta_x: float, delta_y: float, reply: int) -> None:
    page = host.page
    host.perform(reply, lambda: page.mouse.wheel(delta_x, delta_y), reply_nothing)


@callback(_native.TypeFunction)
def _keyboard_type(host: Any, address: int, size: int, delay_ms: float, reply: int) -> None:
    page, text = host.page, _native.text(address, size)
    host.perform(reply, lambda: page.keyboard.type(text, delay=delay_ms), reply_nothing)


@callback(_native.TextFunction)
def _keyboard_press(host: Any, address: int, size: int, reply: int) -> None:
    page, key = host.page, _native.text(address, size)
    host.perform(reply, lambda: page.keyboard.press(key), reply_nothing)


@_native.Release
def release_host(host: int) -> None:
    hosts.take(host)


@callback(_native.HostFunction)
def _primary_fn(operation: Operation, reply: int) -> None:
    operation.perform(reply, operation.function("primary_fn"), operation.keeping(reply_nothing))


@callback(_native.HostFunction)
def _cua_fn(operation: Operation, reply: int) -> None:
    operation.perform(reply, operation.function("cua_fn"), operation.keeping(reply_agent_value))


@callback(_native.TwoTextsFunction)
def _cua_fallback(operation: Operation, context: int, context_size: int, reason: int, size: int, reply: int) -> None:
    hint = json.loads(_native.text(context, context_size))["context_hint"]
    request = operation.request
    told = {**request.options["flow_context"], "context_hint": hint}
    agent = operation.function("cua_fallback", request.page, told, _native.text(reason, size))
    operation.perform(reply, agent, operation.keeping(reply_nothing))


@callback(_native.HostFunction)
def _should_abort(operation: Operation, reply: int) -> None:
    operation.perform(reply, operation.function("should_abort"), reply_truth)


@_native.Done
def _done(host: int, result: Any) -> None:
    operation: Any = hosts.take(host)
    try:
        operation._end(result.contents)
    except BaseException as error:
        operation.error = error
    operation.has_ended = True
    operation.submit(operation.ended)


_page_functions = _native.PageFunctions(
    _screenshot, _evaluate, _viewport_size, _mouse_click, _mouse_wheel, _keyboard_type, _keyboard_press, release_host
)
_mode_functions = {
    "primary_fn": _primary_fn,
    "cua_fn": _cua_fn,
    "cua_fallback": _cua_fallback,
    "should_abort": _should_abort,
}

# --------------------------------------------------------------------------- operations


class _PageHost:
    """A page of the host's within one operation."""

    def __init__(self, page: Any, operation: Operation) -> None:
        self.page = page
        self.perform = operation.perform


class Operation:
    """Derived classes say how work gets to the owner (submit) and is done there (perform)."""

    def __init__(self, request: Request) -> None:
        self.request = request
        self.outcome: Optional[Outcome] = None
        self.error: Optional[BaseException] = None
        self.interruption: Optional[BaseException] = None
        self.is_cancelled = False
        self.has_ended = False
        self._number = 0
        self._returned: Any = None

    # On any thread.

    def submit(self, job: Callable[..., None], *arguments: Any) -> None:
        """Has the owner do a job. Does nothing when the owner's event loop is closed."""
        raise NotImplementedError

    def perform(self, reply: int, function: Callable[[], Any], give: Callable[[int, Any], None]) -> None:
        """Has the owner call the function and give what it returns as the answer."""
        raise NotImplementedError

    def ended(self) -> None:
        """On the owner's side, when the operation has ended."""
        raise NotImplementedError

    # On the owner's thread.

    def start(self, owner: Any) -> None:
        """Raises what is wrong with the request before anything is started."""
        request = self.request
        call = _native.Call(done=_done)
        options = json_text({name: value for name, value in request.options.items() if value is not None})
        call.options, call.options_size = options, len(options)
        functions = _native.ModeFunctions()
        for name, function in request.functions.items():
            if function is not None:
                setattr(functions, name, _mode_functions[name])
        call.functions = ctypes.pointer(functions)
        if request.client is not None:
            call.client = request.client._address_for(owner)
        if request.browser is not None:
            call.browser = request.browser.address()
        if request.image is not None:
            call.image = ctypes.pointer(image_of(request.image))
        page = self._page_handle()
        call.page = page.address() if page else None
        call.host = host = hosts.add(self)
        try:
            self._number = _runtime.use(_library.vision_start, request.operation.encode(), ctypes.byref(call))
            if not self._number:
                raise RuntimeError("velmora_vision: the interpreter is ending")
        except BaseException:
            hosts.take(host)
            raise
        finally:
            if page is not None and page is not getattr(request.page, "_handle", None):
                page.release()  # the operation keeps it

    def _page_handle(self) -> Optional[_runtime.Handle]:
        page = self.request.page
        if page is None:
            return None
        handle = getattr(page, "_handle", None)
        if isinstance(handle, _runtime.Handle):
            return handle
        number = hosts.add(_PageHost(page, self))
        functions = ctypes.byref(_page_functions)
        return _runtime.make(_library.vision_page_new, functions, number, release=_library.vision_page_release)

    def function(self, name: str, *arguments: Any) -> Callable[[], Any]:
        """One of the host's functions, to be called."""
        function = self.request.functions[name]
        assert function is not None
        return functools.partial(function, *arguments)

    def keeping(self, give: Callable[[int, Any], None]) -> Callable[[int, Any], None]:
        """Of several values the last one is that of the operation."""

        def keep(reply: int, value: Any) -> None:
            self._returned = value
            give(reply, value)

        return keep

    def cancel(self) -> None:
        self.is_cancelled = True
        _library.vision_cancel(self._number)

    def interrupt(self, exception: BaseException) -> None:
        """Ends the operation with what is no ordinary error of the host's: a cancellation
        or an interrupt that came out of one of its functions."""
        if self.interruption is None and not self.is_cancelled:
            self.interruption = exception
            self.cancel()

    def conclude(self) -> Any:
        """After the end: the value, or raises the error."""
        if self.interruption is not None:
            raise self.interruption
        if self.error is not None:
            raise self.error
        assert self.outcome is not None
        self.outcome.returned = self._returned
        return self.request.finish(self.outcome)

    # On the library's thread.
    def _end(self, result: _native.Result) -> None:
        outcome = Outcome()
        if result.image.release:
            outcome.image = ctypes.string_at(result.image.data, result.image.size)
            result.image.release(result.image.owner)
        if result.page:
            outcome.page = _runtime.Handle(result.page, _library.vision_page_release)
        if result.browser:
            outcome.browser = _runtime.Handle(result.browser, _library.vision_browser_release)
        if result.error:
            self.error = _errors.of_library(result.error.contents)
        else:
            outcome.value = json.loads(_native.text(result.value, result.value_size))
        self.outcome = outcome
