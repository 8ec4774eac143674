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

    `cause` says in one word where the result comes from: "model_answer", "call_timed_out",
    "transport_error", "unexpected_error" or "no_tool_call", and of `act_loop` also "step_cap",
    "aborted", "repeated_proposal", "uncertain_action", "uncertain_success", "read_only",
    "step_timed_out", "step_failed", "budget_exhausted" or "action_failed".
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
    cause: str = "model_answer"
