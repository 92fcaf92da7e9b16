"""Replies in whatever pieces they arrive, and lines of the log likewise."""
from __future__ import annotations

import os
import tempfile
import time
import unittest
from collections.abc import Callable
from pathlib import Path

from orvantis_recorder._log import LineTail, LogFollower, finalized_output
from orvantis_recorder._protocol import ReplyReader

ready = "ready"


def replies(*pieces: bytes) -> list[str | int]:
    """A wrong one is ["wrong"]."""
    reader = ReplyReader()
    found = [reply for piece in pieces for reply in reader.take(piece)]
    return [reply if isinstance(reply, int) else "wrong" if isinstance(reply, str) else ready for reply in found]


def each_byte(data: bytes) -> list[bytes]:
    return [bytes([byte]) for byte in data]


class Pieces(unittest.TestCase):
    def test_byte_and_line_in_one_read(self) -> None:
        self.assertEqual(replies(b'1{"duration":41}\n'), [ready, 41])

    def test_byte_by_byte(self) -> None:
        self.assertEqual(replies(*each_byte(b'1{"duration":41}\n')), [ready, 41])

    def test_line_without_the_byte(self) -> None:
        self.assertEqual(replies(b'{"duration":0}\n'), [0])

    def test_no_line_without_its_line_feed(self) -> None:
        self.assertEqual(replies(b"1", b'{"duration":41}'), [ready])

    def test_wrong_lines(self) -> None:
        for line in (b'12{"duration":41}\n', b"x\n", b"\n", b'{"duration":"41"}\n', b'{"duration":-1}\n', b"null\n",
                     b'{"duration":true}\n', b"\xff\n"):
            with self.subTest(line=line):
                self.assertEqual(replies(line)[-1], "wrong")

    def test_line_longer_than_any_answer(self) -> None:
        long = b'{"duration":41,"more":"' + b"x" * 5000 + b'"}'
        self.assertEqual(replies(b"1", long + b"\n", b'{"duration":41}\n'), [ready, "wrong", 41])
        self.assertEqual(replies(b"1", long), [ready, "wrong"])

    def test_characters_of_the_log_that_are_cut_in_two(self) -> None:
        tail = LineTail()
        lines = [line for byte in each_byte("Größe\nnext".encode()) for line in tail.take(byte)]
        self.assertEqual(lines, ["Größe"])

    def test_name_of_a_file_as_the_log_quotes_it(self) -> None:
        line = r'Debug: FFmpeg recorder finalized output "/a \"b\" \\ ü.mkv" duration 3 (:0, )'
        self.assertEqual(finalized_output(line), '/a "b" \\ ü.mkv')
        self.assertIsNone(finalized_output("Debug: 3 " + line))
        self.assertIsNone(finalized_output('Debug: something else "/a.mp4"'))


class OwnLog(unittest.TestCase):
    LINE = 'Debug: recorder process identity pid 42 applicationFilePath "/r" (:0, )\n'

    def is_believed(self, write: Callable[[Path], object]) -> bool:
        """Whether a follower takes the log that is written there for its recorder's."""
        with tempfile.TemporaryDirectory(prefix="kit-") as directory:
            log = Path(directory) / "1-orvantis-recorder-log.txt"
            write(log)
            follower = LogFollower(Path(directory), 42, time.time(), lambda line: None)
            follower.read()
            follower.close()
            return follower.path == log

    def test_recorders_own(self) -> None:
        self.assertTrue(self.is_believed(lambda log: log.write_text("Debug: 0 /r (:0, )\n" + self.LINE)))

    def test_another_recorders(self) -> None:
        self.assertFalse(self.is_believed(lambda log: log.write_text(self.LINE.replace("42", "421"))))

    def test_line_within_a_line(self) -> None:
        self.assertFalse(self.is_believed(lambda log: log.write_text("Debug: 3 " + self.LINE)))

    def test_link(self) -> None:
        def plant(log: Path) -> None:
            (log.parent / "planted").write_text(self.LINE)
            log.symlink_to("planted")
        self.assertFalse(self.is_believed(plant))

    def test_earlier_recorders(self) -> None:
        def plant(log: Path) -> None:
            log.write_text(self.LINE)
            os.utime(log, (1, 1))
        self.assertFalse(self.is_believed(plant))
