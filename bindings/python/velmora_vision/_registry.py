"""Python objects behind the addresses that the library holds of them."""

from __future__ import annotations

import itertools
from typing import Dict, Generic, Optional, TypeVar

T = TypeVar("T")


class Registry(Generic[T]):
    """Keeps objects under numbers. Each operation is one step of the interpreter's, so
    any thread may call it."""

    def __init__(self) -> None:
        self._objects: Dict[int, T] = {}
        self._numbers = itertools.count(1)

    def add(self, thing: T) -> int:
        number = next(self._numbers)
        self._objects[number] = thing
        return number

    def get(self, number: int) -> Optional[T]:
        return self._objects.get(number)

    def take(self, number: int) -> Optional[T]:
        return self._objects.pop(number, None)
