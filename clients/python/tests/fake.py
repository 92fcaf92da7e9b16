"""The fake recorder (launcher-check in the recorder's place), and a base for tests with it."""
from __future__ import annotations

import os
import shutil
import tempfile
import unittest
from pathlib import Path
from typing import Any

from orvantis_recorder import Recording, RecorderError

PROGRAM = os.environ["LAUNCHER_CHECK"]


def is_alive(pid: int) -> bool:
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    return True


class FakeTest(unittest.IsolatedAsyncioTestCase):
    def place(self) -> Path:
        """A directory for this test; gone when the test is."""
        directory = Path(tempfile.mkdtemp(prefix="kit-"))
        self.addCleanup(shutil.rmtree, directory)
        return directory

    async def start(self, mode: str, **options: Any) -> Recording:
        """A recording with the fake in that mode, in a directory of its own (self.directory)."""
        self.directory = self.place()
        (self.directory / "notes").mkdir()
        environment = {"FAKE_RECORDER_MODE": mode, "FAKE_RECORDER_NOTES": str(self.directory / "notes"),
                       "FAKE_RECORDER_CHECKS": "1"}
        arguments: dict[str, Any] = {"recorder": PROGRAM, "window": 77, "output": self.directory / "clip.mp4",
                                     "environment": environment}
        recording = await Recording.start(**{**arguments, **options})
        self.addAsyncCleanup(recording.dispose)
        return recording

    def note(self, name: str) -> str:
        """What the fake that was started last has noted."""
        return (self.directory / "notes" / name).read_text()

    async def assert_fails(self, code: str, work: Any) -> RecorderError:
        with self.assertRaises(RecorderError) as caught:
            await work
        self.assertEqual(caught.exception.code, code)
        return caught.exception
