"""libvision_c.so as ctypes sees it: its types, its functions, and how it is found."""

from __future__ import annotations

import ctypes
import os
from ctypes import CFUNCTYPE, POINTER, Structure, c_char_p, c_double, c_int, c_size_t, c_uint, c_uint64, c_void_p
from typing import Optional

from ._version import VERSION

CANCELLED, CUA_ORIGIN, TRANSPORT_ERROR = 1, 2, 4
LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERROR = 1, 2, 3, 4

_SONAME = "libvision_c.so.0.1"

# What the library itself needs, and the Debian packages that have it.
_PACKAGES = {
    "libcurl.so": "libcurl4",
    "libcrypto.so": "libssl3",
    "libssl.so": "libssl3",
    "libstdc++.so": "libstdc++6",
}

# Every address is a c_void_p, which ctypes hands over as an int, or None.
Release = CFUNCTYPE(None, c_void_p)
HostFunction = CFUNCTYPE(None, c_void_p, c_uint64)
TextFunction = CFUNCTYPE(None, c_void_p, c_void_p, c_size_t, c_uint64)
TwoTextsFunction = CFUNCTYPE(None, c_void_p, c_void_p, c_size_t, c_void_p, c_size_t, c_uint64)
ScreenshotFunction = CFUNCTYPE(None, c_void_p, c_int, c_uint64)
PointFunction = CFUNCTYPE(None, c_void_p, c_double, c_double, c_uint64)
TypeFunction = CFUNCTYPE(None, c_void_p, c_void_p, c_size_t, c_double, c_uint64)
Log = CFUNCTYPE(None, c_void_p, c_int, c_void_p, c_size_t)


class Error(Structure):
    _fields_ = [
        ("kind", c_char_p),
        ("message", c_void_p),
        ("message_size", c_size_t),
        ("token", c_void_p),
        ("release", Release),
        ("flags", c_uint),
    ]


class Image(Structure):
    _fields_ = [("data", c_void_p), ("size", c_size_t), ("release", Release), ("owner", c_void_p)]


class PageFunctions(Structure):
    _fields_ = [
        ("screenshot", ScreenshotFunction),
        ("evaluate", TextFunction),
        ("viewport_size", HostFunction),
        ("mouse_click", PointFunction),
        ("mouse_wheel", PointFunction),
        ("keyboard_type", TypeFunction),
        ("keyboard_press", TextFunction),
        ("release", Release),
    ]


class ClientFunctions(Structure):
    _fields_ = [("on_action", TwoTextsFunction), ("create", TextFunction), ("release", Release)]


class ModeFunctions(Structure):
    _fields_ = [
        ("primary_fn", HostFunction),
        ("cua_fn", HostFunction),
        ("cua_fallback", TwoTextsFunction),
        ("should_abort", HostFunction),
    ]


class Result(Structure):
    _fields_ = [
        ("error", POINTER(Error)),
        ("value", c_void_p),
        ("value_size", c_size_t),
        ("image", Image),
        ("page", c_void_p),
        ("browser", c_void_p),
    ]


Done = CFUNCTYPE(None, c_void_p, POINTER(Result))


class Call(Structure):
    _fields_ = [
        ("options", c_char_p),
        ("options_size", c_size_t),
        ("page", c_void_p),
        ("client", c_void_p),
        ("browser", c_void_p),
        ("image", POINTER(Image)),
        ("functions", POINTER(ModeFunctions)),
        ("done", Done),
        ("host", c_void_p),
    ]


_FUNCTIONS = {
    "vision_last_error": (POINTER(Error), []),
    "vision_runtime_new": (c_void_p, []),
    "vision_runtime_free": (None, [c_void_p]),
    "vision_reply_value": (c_int, [c_uint64, c_char_p, c_size_t]),
    "vision_reply_image": (c_int, [c_uint64, POINTER(Image)]),
    "vision_reply_error": (c_int, [c_uint64, POINTER(Error)]),
    "vision_page_new": (c_void_p, [c_void_p, POINTER(PageFunctions), c_void_p]),
    "vision_page_release": (None, [c_void_p]),
    "vision_set_model_registry": (c_int, [c_void_p, c_char_p, c_char_p, HostFunction, c_void_p]),
    "vision_client_new": (c_void_p, [c_void_p, c_char_p, c_size_t, POINTER(ClientFunctions), c_void_p]),
    "vision_default_client": (c_void_p, [c_void_p]),
    "vision_client_release": (None, [c_void_p]),
    "vision_client_metrics": (c_void_p, [c_void_p, POINTER(c_size_t)]),
    "vision_client_reset_metrics": (None, [c_void_p]),
    "vision_reset_default_metrics": (None, [c_void_p]),
    "vision_browser_release": (None, [c_void_p]),
    "vision_start": (c_uint64, [c_void_p, c_char_p, POINTER(Call)]),
    "vision_cancel": (None, [c_uint64]),
    "vision_is_vision_enabled": (c_char_p, []),
    "vision_shadow_log_losses": (c_uint64, []),
    "vision_fixture_losses": (c_uint64, []),
    "vision_set_log": (None, [Log, c_void_p, c_int]),
    "vision_version": (c_char_p, []),
}


def _path() -> str:
    """The library of VELMORA_VISION_LIBRARY, of the package, or of the system."""
    chosen = os.environ.get("VELMORA_VISION_LIBRARY")
    if chosen:
        return chosen
    own = os.path.join(os.path.dirname(os.path.abspath(__file__)), _SONAME)
    return own if os.path.exists(own) else _SONAME


def _explain(path: str, problem: str) -> str:
    # "libcurl.so.4: cannot open shared object file: No such file or directory"
    missing = problem.split(":")[0]
    for prefix, package in _PACKAGES.items():
        if missing.startswith(prefix):
            return (
                f"velmora_vision needs the system library {missing}, which is not installed "
                f"(on Debian: apt install {package})"
            )
    return f"velmora_vision cannot load its library {path}: {problem}"


def _load() -> ctypes.CDLL:
    path = _path()
    try:
        library = ctypes.CDLL(path)
        for name, (result, arguments) in _FUNCTIONS.items():
            function = getattr(library, name)
            function.restype, function.argtypes = result, arguments
    except (OSError, AttributeError) as error:
        raise ImportError(_explain(path, str(error)), name="velmora_vision", path=path) from None
    version = library.vision_version().decode()
    if version != VERSION:  # structures and names may differ
        problem = f"velmora_vision {VERSION} needs the library of its version, but {path} is {version}"
        raise ImportError(problem, name="velmora_vision", path=path)
    return library


def text(address: Optional[int], size: int) -> str:
    return ctypes.string_at(address, size).decode("utf-8", "replace") if address and size else ""


library = _load()
