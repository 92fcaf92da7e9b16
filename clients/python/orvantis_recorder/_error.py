"""RecorderError: what became of a recording, for people (the text) and for programs (the code)."""
from __future__ import annotations

from collections.abc import Sequence

SHOWN_LINES = 5


class RecorderError(Exception):
    """What every coroutine of a recording raises. README.md lists the codes, which are stable."""

    def __init__(self, code: str, message: str, *, exit_code: int | None = None, signal: int | None = None,
                 log_file: str | None = None, log_lines: Sequence[str] = (), stderr_lines: Sequence[str] = (),
                 file: str | None = None) -> None:
        where = f"; its log: {log_file}" if log_file else ""
        super().__init__("\n    ".join([message + where, *(log_lines or stderr_lines)[-SHOWN_LINES:]]))
        self.code = code
        self.exit_code = exit_code  # of the recorder, when it has ended by itself
        self.signal = signal  # that ended it
        self.log_file = log_file
        self.log_lines = list(log_lines)  # the last ones
        self.stderr_lines = list(stderr_lines)
        self.file = file  # that the recorder has closed, if the log names one
