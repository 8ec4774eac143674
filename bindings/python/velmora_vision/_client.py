"""What clients of either kind have in common."""

from __future__ import annotations

import ctypes
import json
import os
from typing import Any, Callable, Dict, List, Mapping, Optional, Tuple

from . import _native, _runtime
from ._answers import json_text, reply_nothing, reply_value
from ._operation import callback, hosts, release_host
from .records import ActionResult

_library = _native.library


class VisionMetrics:
    """What a client has counted since it was made or reset. Each attribute is read afresh;
    `as_dict` reads all of them at once."""

    def __init__(self, handle: _runtime.Handle) -> None:
        self._handle = handle

    def as_dict(self) -> Dict[str, Any]:
        size = ctypes.c_size_t()
        text = _library.vision_client_metrics(self._handle.address(), ctypes.byref(size))
        values: Dict[str, Any] = json.loads(_native.text(text, size.value))
        return values

    def _read(self, name: str) -> Any:
        return self.as_dict()[name]

    @property
    def call_count(self) -> int:
        return int(self._read("call_count"))

    @property
    def total_input_tokens(self) -> int:
        return int(self._read("total_input_tokens"))

    @property
    def total_output_tokens(self) -> int:
        return int(self._read("total_output_tokens"))

    @property
    def latencies_ms(self) -> List[float]:
        return list(self._read("latencies_ms"))

    @property
    def failures_by_reason(self) -> Dict[str, int]:
        return dict(self._read("failures_by_reason"))

    @property
    def by_model(self) -> Dict[str, int]:
        return dict(self._read("by_model"))

    def p95(self) -> float:
        """The 95th percentile of the latencies, in milliseconds."""
        return float(self._read("p95"))

    def estimated_cost_usd(self) -> float:
        """At fixed prices: for comparing runs, not for the books."""
        return float(self._read("estimated_cost_usd"))

    def reset(self) -> None:
        """Empties the metrics, and with them the call budget."""
        _library.vision_client_reset_metrics(self._handle.address())


class _ClientHost:
    """The functions of a client's user; `perform` comes with the owner."""

    def __init__(self, on_action: Optional[Callable[..., Any]], create: Optional[Callable[..., Any]]) -> None:
        self.on_action, self.create = on_action, create
        self.perform: Callable[[int, Callable[[], Any], Callable[[int, Any], None]], None]


def _reply_response(reply: int, response: Any) -> None:
    if not isinstance(response, Mapping) and hasattr(response, "model_dump"):
        response = response.model_dump(mode="json")  # of the vendor's client
    if not isinstance(response, Mapping):
        raise TypeError(f"messages.create() must return a mapping, not {type(response).__name__}")
    reply_value(reply, dict(response))


@callback(_native.TwoTextsFunction)
def _on_action(host: _ClientHost, result: int, result_size: int, context: int, size: int, reply: int) -> None:
    assert host.on_action is not None
    on_action, seen = host.on_action, ActionResult(**json.loads(_native.text(result, result_size)))
    flow_context = json.loads(_native.text(context, size))
    host.perform(reply, lambda: on_action(seen, flow_context), reply_nothing)


@callback(_native.TextFunction)
def _create(host: _ClientHost, request: int, size: int, reply: int) -> None:
    assert host.create is not None
    create, text = host.create, _native.text(request, size)
    host.perform(reply, lambda: create(**json.loads(text)), _reply_response)


class ClientBase:
    def __init__(
        self,
        api_key: Optional[str],
        default_model: Optional[str],
        call_budget: Optional[int],
        on_action: Optional[Callable[..., Any]],
        messages_client: Any,
        **options: Any,
    ) -> None:
        options.update(api_key=api_key, default_model=default_model, call_budget=call_budget)
        create = messages_client.messages.create if messages_client is not None else None
        self._owner: Any = None
        self._is_shared = False
        self._host = _ClientHost(on_action, create)
        functions = _native.ClientFunctions(release=release_host)
        if on_action is not None:
            functions.on_action = _on_action
        if create is not None:
            functions.create = _create
        text = json_text({name: value for name, value in options.items() if value is not None})
        number = hosts.add(self._host)
        try:
            self._handle = _runtime.make(
                _library.vision_client_new,
                text,
                len(text),
                ctypes.byref(functions),
                number,
                release=_library.vision_client_release,
            )
        except BaseException:
            hosts.take(number)
            raise

    @property
    def metrics(self) -> VisionMetrics:
        return VisionMetrics(self._handle)

    def _address_for(self, owner: Any) -> int:
        """For an operation of this owner, who keeps the client from now on."""
        address = self._handle.address()
        if self._owner is None and not self._is_shared:
            self._host.perform = self._performer(owner)
            self._owner = owner
        if self._owner is not owner and not self._is_shared:
            raise RuntimeError(self._foreign)
        return address

    _foreign = "this client is in use elsewhere"

    def _performer(self, owner: Any) -> Callable[[int, Callable[[], Any], Callable[[int, Any], None]], None]:
        raise NotImplementedError

    @classmethod
    def _shared(cls) -> Any:
        """The process's default client, which any loop and thread may use."""
        key = (cls, os.getpid())
        if key not in _defaults:
            made = cls.__new__(cls)
            made._owner, made._is_shared = None, True
            made._handle = _runtime.make(_library.vision_default_client, release=_library.vision_client_release)
            _defaults.setdefault(key, made)
        return _defaults[key]


_defaults: Dict[Tuple[type, int], ClientBase] = {}


def reset_default_metrics() -> None:
    """Empties the metrics of the default client, and with them its call budget: to be called
    between two runs. Does nothing when there is no default client."""
    if _runtime.current() is not None:
        _runtime.use(_library.vision_reset_default_metrics)
