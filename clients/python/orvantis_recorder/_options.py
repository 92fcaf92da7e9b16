"""What a recording is started with: checked here, as the recorder takes a number that it cannot read for 0."""
from __future__ import annotations

import dataclasses
import math
import os
import re
from pathlib import Path

from ._error import RecorderError

SMALLEST_CANVAS = 16  # pixels


@dataclasses.dataclass(frozen=True)
class Limits:
    """Seconds to wait. docs/control-protocol.md gives the reasons."""

    connect: float = 10  # from the start of the process to its connection
    ready: float = 30  # from the start of the process to the window's first images
    duration: float = 60  # from "stop" to the closed file
    exit: float = 10  # from "exit" to the end of the process
    terminate: float = 70  # from SIGTERM to SIGKILL

    def __post_init__(self) -> None:
        for name, value in dataclasses.asdict(self).items():
            if not (isinstance(value, (int, float)) and 0 < value < math.inf):
                raise refusal(f"limits.{name} is {value}, no number of seconds")


def refusal(message: str) -> RecorderError:
    return RecorderError("BAD_OPTION", message)


def _whole(name: str, value: int, least: int = -2 ** 31) -> str:
    if not isinstance(value, int) or isinstance(value, bool) or not least <= value < 2 ** 31:
        raise refusal(f"{name} is {value!r}, no whole number" + (f" of at least {least}" if least > 0 else ""))
    return str(value)


def _window(value: int | str) -> str:
    if isinstance(value, str) and re.fullmatch("[0-9]+|0[xX][0-9a-fA-F]+", value, re.ASCII):
        value = int(value, 16 if value[:2] in ("0x", "0X") else 10)
    if not isinstance(value, int) or isinstance(value, bool) or value <= 0:
        raise refusal(f"window is {value!r}, no window id (a number, or its text in decimal or after 0x)")
    return str(value)


def _path(name: str, value: str | os.PathLike[str]) -> Path:
    if not isinstance(value, (str, os.PathLike)) or not os.fspath(value) or "\0" in os.fspath(value):
        raise refusal(f"{name} is {value!r}, no path")
    return Path(value).absolute()


@dataclasses.dataclass(frozen=True)
class Options:
    recorder: str
    log_directory: Path
    arguments: tuple[str, ...]  # the ten
    environment: dict[str, str]
    limits: Limits


def read_options(*, recorder: str | os.PathLike[str], window: int | str, output: str | os.PathLike[str],
                 canvas: tuple[int, int], origin: tuple[int, int], scale: float, audio: str,
                 log_directory: str | os.PathLike[str] | None, environment: dict[str, str] | None,
                 limits: Limits) -> Options:
    """Raises a RecorderError with the code BAD_OPTION."""
    out = _path("output", output)
    logs = out.parent if log_directory is None else _path("log_directory", log_directory)
    if not isinstance(recorder, (str, os.PathLike)) or not os.fspath(recorder):
        raise refusal(f"recorder is {recorder!r}, no path")
    if not isinstance(scale, (int, float)) or not math.isfinite(scale):
        raise refusal(f"scale is {scale!r}, no number")
    if not isinstance(audio, str) or "\0" in audio:
        raise refusal(f"audio is {audio!r}, no text")
    if len(canvas) != 2 or len(origin) != 2:
        raise refusal("canvas and origin are pairs")
    arguments = (str(logs), "qt-window-capture", str(out), _window(window), _whole("origin[0]", origin[0]),
                 _whole("origin[1]", origin[1]), _whole("canvas[0]", canvas[0], SMALLEST_CANVAS),
                 _whole("canvas[1]", canvas[1], SMALLEST_CANVAS), str(scale), audio)
    return Options(os.fspath(recorder), logs, arguments, dict(environment or {}), limits)
