"""vision for Python: when a scripted step on a web page fails, look at the page instead.

Here are the modes for asyncio, which take a page of Playwright's async API as it is.
`velmora_vision.sync` has the same for its sync API, `velmora_vision.chromium` a browser of
the library's own. Log lines go to the logger "vision". docs/playwright.md is the way in.
"""

from ._client import VisionMetrics, reset_default_metrics
from ._errors import BudgetExceeded, VisionError
from ._native import library as _library
from ._runtime import set_model_registry
from .client import VisionClient, default_client
from .modes import (
    act_loop,
    execute_action,
    observe_in_background,
    observe_only,
    shadow_observe_then_cua,
    with_vision_fallback,
)
from .page import AsyncPage, SyncPage
from .records import ActionResult, ImgMeta

__all__ = [
    "ActionResult",
    "AsyncPage",
    "BudgetExceeded",
    "ImgMeta",
    "SyncPage",
    "VisionClient",
    "VisionError",
    "VisionMetrics",
    "act_loop",
    "default_client",
    "execute_action",
    "fixture_losses",
    "is_vision_enabled",
    "observe_in_background",
    "observe_only",
    "reset_default_metrics",
    "set_model_registry",
    "shadow_log_losses",
    "shadow_observe_then_cua",
    "with_vision_fallback",
]

__version__: str = _library.vision_version().decode()


def is_vision_enabled() -> str:
    """What the pipeline is to do with vision, from KX_VISION_TIER as it stands now: "off",
    "shadow", "tier2" or "tier3"."""
    mode: str = _library.vision_is_vision_enabled().decode()
    return mode


def shadow_log_losses() -> int:
    """How many shadow log records the process could not write since it began."""
    return int(_library.vision_shadow_log_losses())


def fixture_losses() -> int:
    """How many screenshots that were to be kept as fixtures it could not write."""
    return int(_library.vision_fixture_losses())
