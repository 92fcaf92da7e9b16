"""Starts and steers recorders. README.md shows how; docs/control-protocol.md is what is spoken."""
from ._error import RecorderError
from ._log import LogLine
from ._options import Limits
from ._recording import Recording, Result

__all__ = ["Limits", "LogLine", "Recording", "RecorderError", "Result"]
