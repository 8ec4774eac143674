"""The records that cross every boundary."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Optional


@dataclass(frozen=True)
class ImgMeta:
    """What is known of a screenshot: the viewport in CSS pixels, the device pixel ratio,
    and the time in seconds since the Unix epoch."""

    width_css: int
    height_css: int
    dpr: float
    captured_at: float


@dataclass(frozen=True)
class ActionResult:
    """What the model proposes, or how a mission ended.

    `action` is one of "click", "type", "scroll", "key", "wait" (page actions),
    "declare_success", "declare_failure", "escalate_to_cua" (verdicts), or whatever else
    the model answered. What is absent is None; 0 and "" are values.
    """

    action: str
    reason: str
    confidence: float
    next_expected_state: str
    x_ratio: Optional[float] = None
    y_ratio: Optional[float] = None
    text: Optional[str] = None
    key: Optional[str] = None
    scroll_dy_ratio: Optional[float] = None
    duration_ms: Optional[int] = None
    low_confidence: bool = False
    model_used: str = ""
    latency_ms: float = 0.0
    input_tokens: int = 0
    output_tokens: int = 0
