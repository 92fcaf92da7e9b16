"""The recorder's log file: found among others, followed while it grows."""
from __future__ import annotations

import codecs
import collections
import dataclasses
import json
import os
import re
import stat
from collections.abc import Callable
from pathlib import Path
from typing import BinaryIO

CLOCK_SLACK_S = 2.0  # file systems round times
KEPT_LINES = 200
_START_BYTES = 64 * 1024
_LINE = re.compile(r"(Debug|Warning|Critical|Fatal|Info): (.*) \(.*:\d+, .*\)")
_FINALIZED = re.compile(r'Debug: FFmpeg recorder finalized output ("(?:[^"\\]|\\.)*")')


@dataclasses.dataclass(frozen=True)
class LogLine:
    level: str  # "debug", "info", "warning", "critical", "fatal"; empty for a line of another form
    text: str
    line: str  # the whole of it

    @staticmethod
    def parsed(line: str) -> LogLine:
        match = _LINE.fullmatch(line)
        return LogLine(match[1].lower(), match[2], line) if match else LogLine("", line, line)


class LineTail:
    """Keeps the last lines of what comes in pieces."""

    def __init__(self) -> None:
        self.lines: collections.deque[str] = collections.deque(maxlen=KEPT_LINES)
        self._rest = ""
        self._decoder = codecs.getincrementaldecoder("utf-8")(errors="replace")

    def take(self, data: bytes) -> list[str]:
        """Gives the lines that these bytes completed."""
        *complete, rest = (self._rest + self._decoder.decode(data)).split("\n")
        self._rest = rest[-_START_BYTES:]
        self.lines.extend(complete)
        return complete


class LogFollower:
    """since: a moment before the recorder with this process id was started."""

    def __init__(self, directory: Path, pid: int, since: float, on_line: Callable[[LogLine], None]) -> None:
        self.path: Path | None = None  # as long as it is not found
        self.finalized: str | None = None  # the file that the recorder has closed
        self.tail = LineTail()
        self._directory = directory
        # The blank makes it the whole number.
        self._identity = f"\nDebug: recorder process identity pid {pid} ".encode()
        self._since = since - CLOCK_SLACK_S
        self._on_line = on_line
        self._file: BinaryIO | None = None
        self._closed = False

    def read(self) -> None:
        """Reads what is new. A log that cannot be read has no lines; the recording goes on without."""
        try:
            if self.path is None and not self._closed:
                self._find()
            data = self._file.read() if self._file else b""
        except OSError:
            self.close()
            return
        for line in self.tail.take(data):
            self.finalized = finalized_output(line) or self.finalized
            self._on_line(LogLine.parsed(line))

    def close(self) -> None:
        self._closed = True
        if self._file:
            self._file.close()
        self._file = None

    def _find(self) -> None:
        for path in self._directory.glob("*-orvantis-recorder-log.txt"):
            if not self._may_be_ours(path.lstat()):
                continue
            file = open(os.open(path, os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC), "rb")
            if self._may_be_ours(os.fstat(file.fileno())) and self._identity in b"\n" + file.read(_START_BYTES):
                file.seek(0)
                self.path, self._file = path, file
                return
            file.close()

    def _may_be_ours(self, status: os.stat_result) -> bool:
        """The directory can be one where others write, too."""
        return stat.S_ISREG(status.st_mode) and status.st_uid == os.geteuid() and status.st_mtime >= self._since


def finalized_output(line: str) -> str | None:
    """The file that a line says to be closed; None for other lines."""
    match = _FINALIZED.match(line)
    try:
        # The escapes are JSON's, but for a few that names hardly have.
        return str(json.loads(match[1])) if match else None
    except ValueError:
        return None
