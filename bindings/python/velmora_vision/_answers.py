"""Answers to the library's calls: each takes the reply, and the value that the host gave."""

from __future__ import annotations

import ctypes
import json
from typing import Any, Mapping

from . import _native

_library = _native.library


def json_text(value: Any) -> bytes:
    return json.dumps(value, allow_nan=False).encode("ascii")


def reply_value(reply: int, value: Any) -> None:
    text = json_text(value)
    _library.vision_reply_value(reply, text, len(text))


def reply_nothing(reply: int, _value: Any) -> None:
    _library.vision_reply_value(reply, None, 0)


# The library copies the picture at once, a fraction of a millisecond. It could keep the
# bytes, but would then let go of them on a thread that may outlive the interpreter.
def reply_image(reply: int, value: Any) -> None:
    if not isinstance(value, (bytes, bytearray, memoryview)):
        raise TypeError(f"screenshot() must return bytes, not {type(value).__name__}")
    data = bytes(value)
    _library.vision_reply_image(reply, ctypes.byref(image_of(data)))


def image_of(data: bytes) -> _native.Image:
    """For as long as the bytes live."""
    return _native.Image(data=ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p), size=len(data))


def reply_size(reply: int, size: Any) -> None:
    reply_value(reply, dict(size) if size else None)


def reply_truth(reply: int, value: Any) -> None:
    reply_value(reply, bool(value))


# The agent's value stays here; the library records the beginning of its text.
def reply_agent_value(reply: int, value: Any) -> None:
    told = None
    if isinstance(value, Mapping):
        text = value.get("text")
        try:
            json_text(text)
        except (TypeError, ValueError):
            text = str(text)
        told = {"text": text}
    reply_value(reply, told)
