"""Replies in whatever pieces they arrive, and lines of the log likewise."""
from __future__ import annotations

import unittest

from orvantis_recorder._log import LineTail, finalized_output
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
        self.assertEqual([line for byte in each_byte("Größe\nnext".encode()) for line in tail.take(byte)], ["Größe"])

    def test_name_of_a_file_as_the_log_quotes_it(self) -> None:
        line = r'Debug: FFmpeg recorder finalized output "/a \"b\" \\ ü.mkv" duration 3 (:0, )'
        self.assertEqual(finalized_output(line), '/a "b" \\ ü.mkv')
        self.assertIsNone(finalized_output('Debug: something else "/a.mp4"'))
