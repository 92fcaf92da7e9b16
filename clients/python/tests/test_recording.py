"""Recordings with a recorder that behaves well or badly: what is promised, what is raised, what is left behind."""
from __future__ import annotations

import asyncio
import glob
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

from orvantis_recorder import Limits, LogLine, Recording, RecorderError, Result

from .fake import FakeTest, is_alive


def left_directories() -> set[str]:
    return set(glob.glob(tempfile.gettempdir() + f"/orvantis-{os.getpid()}-*"))


class GoodRecordings(FakeTest):
    async def test_recording_from_start_to_exit(self) -> None:
        recording = await self.start("", canvas=(640, 360), origin=(-5, 6), scale=1.5, audio="app-pid:42",
                                     window="0x4d")
        await recording.ready()
        self.assertTrue(recording.is_ready)
        recording.click(1.5, -2, 0.25, 0.75, time=1700000000.0004)
        recording.click(3, 4)
        output = str(self.directory / "clip.mp4")
        self.assertEqual(await recording.stop(), Result(1234, output, True))
        self.assertEqual(await recording.exit(), 0)
        self.assertEqual(await recording.ended(), 0)

        self.assertEqual(self.note("arguments").split("\0")[:-1], [
            str(self.directory), "qt-window-capture", output, "77", "-5", "6", "640", "360", "1.5", "app-pid:42"])
        self.assertIn("ORVANTIS_END_WITH_LAUNCHER=1\n", self.note("environment"))
        lines = [re.sub(r"^\d+ ", "", line) for line in self.note("lines").splitlines()]
        self.assertRegex(lines.pop(1), r"^click\|3\|4\|-1\|-1\|\d{13}$")
        self.assertEqual(lines, ["click|1.5|-2|0.25|0.75|1700000000000", '{"action":"stop"}', '{"action":"exit"}'])
        self.assertRegex(str(recording.log_file), "-orvantis-recorder-log.txt$")

    async def test_socket_is_private_and_gone_afterwards(self) -> None:
        before = left_directories()
        recording = await self.start("")
        (directory,) = left_directories() - before
        self.assertEqual(os.stat(directory).st_mode & 0o777, 0o700)
        await recording.ready()
        self.assertRegex(self.note("journal"), " connected 1 700 1 ")
        with self.assertRaises(OSError):  # nobody listens any more
            await asyncio.open_unix_connection(directory + "/orvantis-recorder")
        await recording.dispose()
        self.assertEqual(left_directories(), before)

    async def test_recorder_has_a_session_of_its_own(self) -> None:
        recording = await self.start("")
        await recording.ready()
        pid, group = self.note("process").split(" ")
        self.assertEqual(pid, group)

    async def test_file_that_was_really_written(self) -> None:
        recording = await self.start("fallback")
        await recording.ready()
        self.assertEqual((await recording.stop()).file, str(self.directory / "clip.mkv"))

    async def test_context_ends_a_recording_in_order(self) -> None:
        async with await self.start("") as recording:
            await recording.ready()
        await asyncio.gather(recording.dispose(), recording.dispose(), recording.exit())
        self.assertEqual(self.note("lines").count('"action"'), 2)
        self.assertFalse(is_alive(recording.pid))

    async def test_several_at_once_also_into_one_log_directory(self) -> None:
        logs = self.place()
        recordings = await asyncio.gather(*(self.start("") for _ in range(3)),
                                          *(self.start("", log_directory=logs) for _ in range(3)))

        async def finish(recording: Recording) -> tuple[bool, int]:
            await recording.ready()
            result = await recording.stop()
            return Path(result.file).is_file(), await recording.exit()

        self.assertEqual(await asyncio.gather(*map(finish, recordings)), [(True, 0)] * 6)
        self.assertEqual(len({recording.log_file for recording in recordings}), 6)

    async def test_one_after_the_other_into_one_log_directory(self) -> None:
        logs = self.place()
        await self.start("dies", log_directory=logs)  # connects when it is told to
        go = self.directory / "notes" / "go"
        second = asyncio.ensure_future(self.start("", log_directory=logs))
        while not os.listdir(logs):
            await asyncio.sleep(0.005)
        await asyncio.sleep(0.05)
        self.assertEqual(len(os.listdir(logs)), 1)
        go.touch()
        await (await second).ready()
        self.assertEqual(len(os.listdir(logs)), 2)

    async def test_exit_that_does_not_wait_is_said_behind_the_answer(self) -> None:
        recording = await self.start("pieces")
        await recording.ready()
        result, code = await asyncio.gather(recording.stop(), recording.exit())
        self.assertEqual((result.duration_ms, code), (1234, 0))
        self.assertNotIn(" early", self.note("journal"))

    async def test_warnings_and_criticals(self) -> None:
        seen: asyncio.Queue[LogLine] = asyncio.Queue()
        recording = await self.start("", on_log=lambda line: seen.put_nowait(line) if line.level != "debug" else None)
        await recording.ready()
        assert recording.log_file
        with recording.log_file.open("a") as log:
            log.write("Warning: audio (of a kind) is late (a.cpp:3, void f())\nDebug: no (:0, )\n")
            log.write("Critical: the disk is full (a.cpp:3, void f())\n")
        self.assertEqual([(line.level, line.text) for line in (await seen.get(), await seen.get())],
                         [("warning", "audio (of a kind) is late"), ("critical", "the disk is full")])
        self.assertEqual([line.text for line in recording.warnings],
                         ["audio (of a kind) is late", "the disk is full"])

    async def test_recorder_ends_with_a_launcher_that_is_killed(self) -> None:
        leaver = await asyncio.create_subprocess_exec(
            sys.executable, "-m", "tests.leaver", stdout=subprocess.PIPE,
            env={**os.environ, "TMPDIR": str(self.place())})  # it leaves its own behind
        assert leaver.stdout
        journal = Path((await leaver.stdout.readline()).decode().strip())
        self.assertNotIn(" hungup", journal.read_text())
        leaver.kill()
        await leaver.wait()
        until = time.monotonic() + 10
        while " hungup" not in journal.read_text():
            self.assertLess(time.monotonic(), until)
            await asyncio.sleep(0.01)


class FailedStarts(FakeTest):
    async def test_missing_binary(self) -> None:
        before = left_directories()
        error = await self.assert_fails("NOT_STARTED", self.start("", recorder="/nowhere/recorder"))
        self.assertIsInstance(error.__cause__, FileNotFoundError)
        self.assertIn("/nowhere/recorder", str(error))
        self.assertEqual(left_directories(), before)

    async def test_log_directory_that_cannot_be_made(self) -> None:
        file = self.place() / "file"
        file.touch()
        await self.assert_fails("NOT_STARTED", self.start("", log_directory=file / "logs"))

    async def test_options_that_are_refused(self) -> None:
        wrong: list[dict[str, Any]] = [
            {"window": "abc"}, {"window": 0}, {"window": 1.5}, {"window": True}, {"output": ""}, {"output": 3},
            {"canvas": (640.5, 360)}, {"canvas": (8, 360)}, {"canvas": (640,)}, {"origin": ("1", 2)},
            {"scale": float("nan")}, {"audio": 7}, {"recorder": ""}]
        for options in wrong:
            with self.subTest(options=options):
                await self.assert_fails("BAD_OPTION", self.start("", **options))
        for limit in (0, -1, float("inf")):
            with self.assertRaises(RecorderError):
                Limits(ready=limit)


class BadRecorders(FakeTest):
    async def test_end_before_it_is_ready(self) -> None:
        for mode, code, exit_code, number in (("setupfails", "CAPTURE_FAILED", 2, None),
                                              ("crashes", "CRASHED", None, signal.SIGKILL)):
            with self.subTest(mode=mode):
                recording = await self.start(mode)
                error = await self.assert_fails(code, recording.ready())
                self.assertEqual((error.exit_code, error.signal), (exit_code, number))
                self.assertIn("recorder process identity", "\n".join(error.log_lines))
                self.assertIn("standard error", "\n".join(error.stderr_lines))
                self.assertIn("recorder process identity", str(error))
                await self.assert_fails(code, recording.stop())
                await self.assert_fails(code, recording.exit())

    async def test_crash_while_it_records(self) -> None:
        recording = await self.start("crasheslater")
        await recording.ready()
        self.assertEqual(await recording.ended(), -signal.SIGKILL)
        with self.assertRaises(RecorderError) as caught:
            recording.click(1, 2)
        self.assertEqual(caught.exception.code, "CRASHED")
        await self.assert_fails("CRASHED", recording.stop())

    async def test_end_without_an_answer(self) -> None:
        recording = await self.start("noreply")
        await recording.ready()
        self.assertEqual((await self.assert_fails("ENDED_EARLY", recording.stop())).exit_code, 3)

    async def test_answer_with_the_end_of_the_process_right_behind_it(self) -> None:
        recording = await self.start("quits")
        await recording.ready()
        self.assertEqual((await recording.stop()).duration_ms, 1234)
        self.assertEqual(await recording.ended(), 0)
        self.assertEqual(await recording.exit(), 0)

    async def test_connection_that_is_closed(self) -> None:
        recording = await self.start("hangsup")
        await recording.ready()
        await recording.ended()
        await self.assert_fails("CONNECTION_LOST", recording.stop())
        self.assertEqual(self.note("terminated"), "")

    async def test_no_readiness(self) -> None:
        recording = await self.start("noimage", limits=Limits(ready=0.05))
        await self.assert_fails("NO_READINESS", recording.ready())
        result = await recording.stop()
        self.assertEqual((result.duration_ms, result.was_ready), (41, False))
        self.assertEqual(await recording.exit(), 0)

    async def test_stop_before_the_readiness(self) -> None:
        recording = await self.start("noimage")
        self.assertFalse((await recording.stop()).was_ready)
        await self.assert_fails("STOPPED_BEFORE_READY", recording.ready())

    async def test_no_file(self) -> None:
        for mode in ("nofile", "nooutput"):
            with self.subTest(mode=mode):
                recording = await self.start(mode)
                if mode == "nofile":
                    await recording.ready()
                await self.assert_fails("NO_FILE", recording.stop())
                self.assertEqual(await recording.exit(), 0)

    async def test_output_that_cannot_be_written(self) -> None:
        """The log tells it at once."""
        seen: asyncio.Queue[LogLine] = asyncio.Queue()
        recording = await self.start("nooutput", on_log=seen.put_nowait)
        await seen.get()
        assert recording.log_file
        with recording.log_file.open("a") as log:
            log.write('Critical: Unable to open video output file "/x" : "no" (a.cpp:3, void f())\n')
        await self.assert_fails("NO_FILE", recording.ready())
        await self.assert_fails("NO_FILE", recording.stop())
        self.assertEqual(await recording.exit(), 0)

    async def test_no_proper_answer(self) -> None:
        for mode, code, end in (("nonsense", "BAD_REPLY", 143), ("deaf", "NO_REPLY", 143),
                                ("stubborn", "NO_REPLY", -signal.SIGKILL)):
            with self.subTest(mode=mode):
                recording = await self.start(mode, limits=Limits(duration=0.05, terminate=0.05))
                await recording.ready()
                await self.assert_fails(code, recording.stop())
                self.assertFalse(is_alive(recording.pid))
                self.assertEqual(await recording.ended(), end)
                self.assertEqual(self.note("terminated"), "")

    async def test_no_connection(self) -> None:
        recording = await self.start("nobody", limits=Limits(connect=0.05))
        await self.assert_fails("NOT_CONNECTED", recording.ready())
        await self.assert_fails("NOT_CONNECTED", recording.stop())
        self.assertFalse(is_alive(recording.pid))

    async def test_exit_that_is_not_obeyed(self) -> None:
        recording = await self.start("stays", limits=Limits(exit=0.05))
        await recording.ready()
        await recording.stop()
        await self.assert_fails("NOT_ENDED", recording.exit())
        self.assertFalse(is_alive(recording.pid))

    async def test_end_that_was_no_good_one(self) -> None:
        recording = await self.start("badexit")
        await recording.ready()
        await recording.stop()
        self.assertEqual((await self.assert_fails("BAD_EXIT", recording.exit())).exit_code, 9)

    async def test_clicks_that_are_refused(self) -> None:
        recording = await self.start("")
        await recording.ready()
        wrong: list[dict[str, Any]] = [{"x": "1", "y": 2}, {"x": 1, "y": float("nan")},
                                       {"x": 1, "y": 2, "time": 1700000000000}]
        for click in wrong:
            with self.subTest(click=click), self.assertRaises(RecorderError) as caught:
                recording.click(**click)
            self.assertEqual(caught.exception.code, "BAD_OPTION")
        await recording.stop()
        with self.assertRaises(RecorderError) as caught:
            recording.click(1, 2)
        self.assertEqual(caught.exception.code, "NOT_RECORDING")
        self.assertNotIn("click", self.note("lines"))
