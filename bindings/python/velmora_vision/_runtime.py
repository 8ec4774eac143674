"""The one runtime of the process: its thread, its end, fork, the models, log lines."""

from __future__ import annotations

import atexit
import ctypes
import json
import logging
import os
import threading
import weakref
from typing import Any, Callable, Optional, Tuple

from . import _errors, _native

_library = _native.library
_logger = logging.getLogger("vision")
_LEVELS = {
    _native.LOG_DEBUG: logging.DEBUG,
    _native.LOG_INFO: logging.INFO,
    _native.LOG_WARNING: logging.WARNING,
}

_lock = threading.RLock()  # held while an operation is started: a key resolver may call back
_runtime: Optional[int] = None
_is_over = False
_registry: Optional[Tuple[str, str, Any]] = None


class Handle:
    """A page, client or browser of the library's, released with its last reference."""

    def __init__(self, address: int, release: Callable[[int], None]) -> None:
        self._process = os.getpid()
        self._address = address
        self._finalizer = weakref.finalize(self, _release_in, self._process, release, address)
        self._finalizer.atexit = False  # the runtime's end sees to it

    def address(self) -> int:
        if self._process != os.getpid():
            raise RuntimeError("made before os.fork(): a child process makes its own clients, browsers and pages")
        return self._address

    def release(self) -> None:
        self._finalizer()


def _release_in(process: int, release: Callable[[int], None], address: int) -> None:
    if process == os.getpid():
        release(address)


def current() -> Optional[int]:
    """The runtime, if it was started."""
    return _runtime


def use(function: Callable[..., Any], *arguments: Any) -> Any:
    """Calls a function of the library with the runtime, which is started when there is none."""
    global _runtime
    with _lock:
        if _is_over:
            raise RuntimeError("velmora_vision: the interpreter is ending")
        if _runtime is None:
            _runtime = _library.vision_runtime_new()
            if not _runtime:
                _runtime = None
                raise _errors.last()
            if _registry is not None:
                _apply_registry()
        return function(_runtime, *arguments)


def make(function: Callable[..., Any], *arguments: Any, release: Callable[[int], None]) -> Handle:
    """A handle to what a function of the library makes."""
    with _lock:  # the error is of this thread's last failure
        address = use(function, *arguments)
        if not address:
            raise _errors.last()
    return Handle(address, release)


# -------------------------------------------------------------------------- the models


@_native.HostFunction
def _on_resolve(_host: Any, reply: int) -> None:
    try:
        assert _registry is not None
        key = json.dumps(_registry[2]()).encode()
        _library.vision_reply_value(reply, key, len(key))
    except Exception as error:
        _errors.reply(reply, error)


def _apply_registry() -> None:
    assert _registry is not None
    light, heavy, resolve = _registry
    resolver = _on_resolve if resolve else ctypes.cast(None, _native.HostFunction)
    if not _library.vision_set_model_registry(_runtime, light.encode(), heavy.encode(), resolver, None):
        raise _errors.last()


def set_model_registry(
    light_model: str, heavy_model: str, resolve_api_key: Optional[Callable[[], str]] = None
) -> None:
    """Names the models, once per process and before the first client.

    The light model answers by default; the heavy one in the login phase, for captchas,
    after a failed attempt, and for `high_stakes`. `resolve_api_key` is asked for the key
    of clients that are given none, before ANTHROPIC_API_KEY; when it raises or returns
    nothing, the variable counts.

    Raises a VisionError when a name is empty, or when other names are in use already.
    """
    global _registry
    with _lock:
        before = _registry
        _registry = (light_model, heavy_model, resolve_api_key)
        try:
            use(lambda _runtime: _apply_registry())
        except BaseException:
            _registry = before
            raise


# ----------------------------------------------------------------------- log lines


@_native.Log
def _on_log(_host: Any, level: int, line: int, size: int) -> None:
    _logger.log(_LEVELS.get(level, logging.ERROR), "%s", _native.text(line, size))


# ------------------------------------------------------------------- fork and the end


def _forked() -> None:
    global _runtime, _lock
    _runtime = None
    _lock = threading.RLock()


# Before the interpreter goes: a callback that came later would find none. Operations in
# flight are cancelled, and their callbacks run while ctypes has let go of the lock.
def _end() -> None:
    global _runtime, _is_over
    with _lock:
        _is_over = True
        runtime, _runtime = _runtime, None
    if runtime is not None:
        _library.vision_runtime_free(runtime)
    _library.vision_set_log(ctypes.cast(None, _native.Log), None, _native.LOG_INFO)


_library.vision_set_log(_on_log, None, _native.LOG_DEBUG)
os.register_at_fork(after_in_child=_forked)
atexit.register(_end)
