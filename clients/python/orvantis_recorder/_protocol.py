"""The bytes on the control socket: what the recorder says, in whatever pieces it arrives, and what it is told."""
from __future__ import annotations

import json
import math
import time as clock

from ._options import refusal

STOP = b'{"action":"stop"}\n'
EXIT = b'{"action":"exit"}\n'

LONGEST_LINE = 4096  # a reply has about 20 bytes
SHOWN_BYTES = 80
LATEST_S = 1e11  # in the year 5138; as milliseconds in 1973


class Ready:
    """The readiness byte."""


class ReplyReader:
    """Takes bytes as they come; gives what is complete: Ready, a duration in milliseconds, a text that is wrong."""

    def __init__(self) -> None:
        self._buffer = b""
        self._is_ready = False

    def take(self, data: bytes) -> list[Ready | int | str]:
        self._buffer += data
        replies: list[Ready | int | str] = []
        if not self._is_ready and self._buffer.startswith(b"1"):
            self._is_ready = True
            self._buffer = self._buffer[1:]
            replies.append(Ready())
        while b"\n" in self._buffer or len(self._buffer) > LONGEST_LINE:
            line, _, self._buffer = self._buffer.partition(b"\n")
            replies.append(_parsed(line))
        return replies


def _parsed(line: bytes) -> int | str:
    try:
        value = json.loads(line) if len(line) <= LONGEST_LINE else None
    except ValueError:
        value = None
    duration = value.get("duration") if isinstance(value, dict) else None
    if isinstance(duration, int) and not isinstance(duration, bool) and duration >= 0:
        return duration
    return line[:SHOWN_BYTES].decode(errors="replace")


def click_line(x: float, y: float, nx: float, ny: float, time: float | None) -> bytes:
    """time: seconds since the epoch, None for now. Raises a RecorderError with the code BAD_OPTION."""
    at = clock.time() if time is None else time
    for name, value in {"x": x, "y": y, "nx": nx, "ny": ny, "time": at}.items():
        if not isinstance(value, (int, float)) or not math.isfinite(value):
            raise refusal(f"the click's {name} is {value!r}, no number")
    if at > LATEST_S:
        raise refusal(f"the click's time is {at!r}: seconds since the epoch are wanted, not milliseconds")
    return f"click|{x}|{y}|{nx}|{ny}|{round(at * 1000)}\n".encode()
