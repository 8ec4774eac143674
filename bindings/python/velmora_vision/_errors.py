"""Errors, in either direction."""

from __future__ import annotations

import ctypes

from . import _native
from ._registry import Registry


class VisionError(RuntimeError):
    """An error of the library's own. `kind` names which: "PageClosedError", for example."""

    def __init__(self, message: str, kind: str = "VisionError") -> None:
        super().__init__(message)
        self.kind = kind


class BudgetExceeded(VisionError):
    """The client has made as many calls as its budget allows."""

    def __init__(self, message: str) -> None:
        super().__init__(message, "BudgetExceeded")


class InvalidArgument(VisionError, ValueError):
    """An argument that cannot be used; also a ValueError."""

    def __init__(self, message: str) -> None:
        super().__init__(message, "invalid_argument")


_OF_KIND = {"BudgetExceeded": BudgetExceeded, "invalid_argument": InvalidArgument}

# Errors whose kinds are derived from these are retried once.
_TRANSPORT_KINDS = {"APIConnectionError", "APITimeoutError", "RateLimitError", "InternalServerError"}

# The host's errors that the library may bring back, by token.
_told: Registry[BaseException] = Registry()


@_native.Release
def _release(token: int) -> None:
    _told.take(token)


def of_library(error: _native.Error) -> BaseException:
    """The exception to raise: the host's very own, where it comes from the host."""
    exception = _told.get(error.token) if error.token else None
    if exception is None:
        kind = (error.kind or b"Error").decode("utf-8", "replace")
        message = _native.text(error.message, error.message_size)
        make = _OF_KIND.get(kind)
        return make(message) if make else VisionError(message, kind)
    if error.flags & _native.CUA_ORIGIN:
        exception._kx_cua_origin = True  # type: ignore[attr-defined]
    return exception


def last() -> BaseException:
    """What the function of the library that just failed on this thread tells."""
    error = _native.library.vision_last_error()
    return of_library(error.contents) if error else VisionError("the library failed without saying why")


def _message(exception: BaseException) -> str:
    try:
        return str(exception)
    except Exception:
        return ""


def reply(number: int, exception: BaseException) -> None:
    """Answers with an exception of the host's."""
    kinds = [kind.__name__ for kind in type(exception).__mro__]
    message = _message(exception).encode("utf-8", "replace")
    error = _native.Error(
        kind=kinds[0].encode("utf-8", "replace"),
        message=ctypes.cast(ctypes.c_char_p(message), ctypes.c_void_p),
        message_size=len(message),
        token=_told.add(exception),
        release=_release,
        flags=0 if _TRANSPORT_KINDS.isdisjoint(kinds) else _native.TRANSPORT_ERROR,
    )
    _native.library.vision_reply_error(number, ctypes.byref(error))
