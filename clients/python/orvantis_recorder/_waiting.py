"""Futures, and the order in which recorders start."""
from __future__ import annotations

import asyncio
import weakref
from pathlib import Path
from typing import Any, TypeVar

from ._error import RecorderError

T = TypeVar("T")
Locks = dict[Path, asyncio.Lock]
_turns: weakref.WeakKeyDictionary[asyncio.AbstractEventLoop, Locks] = weakref.WeakKeyDictionary()


def turn(directory: Path) -> asyncio.Lock:
    """A log file is named after the moment of the start, to the microsecond: two recorders do not start into one
    directory at once."""
    return _turns.setdefault(asyncio.get_running_loop(), {}).setdefault(directory, asyncio.Lock())


def quiet(future: asyncio.Future[T]) -> asyncio.Future[T]:
    """Nobody has to await it: an exception that nobody sees is no fault of the program."""
    future.add_done_callback(lambda done: done.cancelled() or done.exception())
    return future


def future() -> asyncio.Future[Any]:
    return quiet(asyncio.get_running_loop().create_future())


def settle(future: asyncio.Future[T], value: T) -> None:
    if not future.done():
        future.set_result(value)


def refuse(future: asyncio.Future[T], error: RecorderError) -> None:
    if not future.done():
        future.set_exception(error)
