"""Recording: one recorder, from its start to its end."""
from __future__ import annotations

import asyncio
import dataclasses
import os
import signal
import socket
import time as clock
from collections.abc import Callable
from pathlib import Path
from types import TracebackType
from typing import Any

from . import _privatedirectory as privatedirectory
from ._connection import Connection
from ._error import RecorderError
from ._log import LineTail, LogFollower, LogLine, finalized_output
from ._options import Limits, Options, read_options
from ._protocol import EXIT, STOP, Ready, ReplyReader, click_line
from ._waiting import future, quiet, refuse, settle, turn

LOG_POLL_S = 0.1
LOST_CONNECTION_S = 0.5  # between the end of the connection and that of the process
LAST_REPLIES_S = 1.0  # for what a recorder that has ended left in the socket
KEPT_LINES = 20  # in an error
CAPTURE_FAILED = 2  # exit code
# Of the log: nothing will be recorded, and nothing else tells.
NO_OUTPUT_TEXTS = ("Unable to open video output file", "Unable to write FFmpeg output header")


@dataclasses.dataclass(frozen=True)
class Result:
    duration_ms: int
    file: str  # the closed one
    was_ready: bool  # False: the window gave no image before the stop, and the file holds one black frame


class Recording:
    """One recording by one recorder. Several may run at once. Belongs to the event loop that started it."""

    def __init__(self, options: Options, on_log: Callable[[LogLine], None] | None) -> None:
        """Use start()."""
        self._options = options
        self._on_log = on_log
        self._warnings: list[LogLine] = []
        self._directory: str | None = None  # of the socket
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._server: asyncio.AbstractServer | None = None
        self._transport: asyncio.Transport | None = None
        self._replies = ReplyReader()
        self._stderr = LineTail()
        self._timers: dict[str, asyncio.TimerHandle] = {}
        self._tasks: list[asyncio.Task[None]] = []
        self._connected: asyncio.Future[None] = future()
        self._disconnected: asyncio.Future[None] = future()
        self._ready: asyncio.Future[None] = future()
        self._duration: asyncio.Future[int] = future()
        self._ended: asyncio.Future[int] = future()
        self._fault: tuple[str, str] | None = None  # why the recorder was ended: code, message
        self._is_ready = False  # before the stop
        self._stopping: asyncio.Future[Result] | None = None
        self._exiting: asyncio.Future[int] | None = None
        self._process: asyncio.subprocess.Process
        self._log: LogFollower | None = None

    @classmethod
    async def start(cls, *, window: int | str, output: str | os.PathLike[str],
                    recorder: str | os.PathLike[str] = "orvantis-recorder", canvas: tuple[int, int] = (1280, 720),
                    origin: tuple[int, int] = (0, 0), scale: float = 1, audio: str = "",
                    log_directory: str | os.PathLike[str] | None = None, environment: dict[str, str] | None = None,
                    limits: Limits = Limits(), on_log: Callable[[LogLine], None] | None = None) -> Recording:
        """Listens, then starts the recorder. Raises BAD_OPTION or NOT_STARTED.

        on_log is called with every line of the log. The recorder finishes its file and ends when this process dies.
        """
        options = read_options(recorder=recorder, window=window, output=output, canvas=canvas, origin=origin,
                               scale=scale, audio=audio, log_directory=log_directory, environment=environment,
                               limits=limits)
        recording = cls(options, on_log)
        lock = turn(options.log_directory)
        await lock.acquire()
        try:
            await recording._start()
        except BaseException:
            lock.release()
            raise
        recording._connected.add_done_callback(lambda _: lock.release())
        return recording

    async def __aenter__(self) -> Recording:
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        traceback: TracebackType | None) -> None:
        await self.dispose()

    @property
    def is_ready(self) -> bool:
        return self._is_ready

    @property
    def pid(self) -> int:
        return self._process.pid

    @property
    def log_file(self) -> Path | None:
        """None as long as there is none."""
        self._read_log()
        return self._log.path if self._log else None

    @property
    def warnings(self) -> list[LogLine]:
        """What the log has of warnings, criticals and fatals up to now."""
        self._read_log()
        return list(self._warnings)

    # ==== start =====================================================================================================

    async def _start(self) -> None:
        try:
            self._options.log_directory.mkdir(parents=True, exist_ok=True)
            if not os.access(self._options.log_directory, os.W_OK | os.X_OK):
                raise PermissionError(f"cannot write into {self._options.log_directory}")
            self._directory = privatedirectory.make()
            self._listener.bind(os.path.join(self._directory, "orvantis-recorder"))
            self._listener.listen(1)
            await self._spawn(self._directory)
            # Only now, so that nothing arrives before the process is known.
            self._server = await asyncio.get_running_loop().create_unix_server(
                lambda: Connection(self._on_connected, self._on_data, self._on_disconnected),
                sock=self._listener)
        except (OSError, ValueError) as cause:
            self._clean_up()
            raise RecorderError("NOT_STARTED", f"cannot start {self._options.recorder}: {cause}") from cause
        except BaseException:
            self._clean_up()
            raise

    async def _spawn(self, directory: str) -> None:
        """In a session of its own: Ctrl-C in the terminal is for the launcher, which ends the recording in order."""
        since = clock.time()
        environment = {**os.environ, "ORVANTIS_END_WITH_LAUNCHER": "1", **self._options.environment,
                       "TMPDIR": directory}
        self._process = await asyncio.create_subprocess_exec(
            self._options.recorder, *self._options.arguments, env=environment, start_new_session=True,
            stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.DEVNULL, stderr=asyncio.subprocess.PIPE)
        self._log = LogFollower(self._options.log_directory, self.pid, since, self._on_log_line)
        self._tasks = [asyncio.create_task(work) for work in (self._watch(), self._read_stderr(), self._follow_log())]
        limits = self._options.limits
        self._limit("connect", limits.connect,
                    lambda: self._give_up("NOT_CONNECTED", "the recorder did not connect in time"))
        self._limit("ready", limits.ready, lambda: refuse(
            self._ready, self._error("NO_READINESS", "the window gave no image in time")))

    async def _read_stderr(self) -> None:
        assert self._process.stderr
        while data := await self._process.stderr.read(65536):
            self._stderr.take(data)

    async def _follow_log(self) -> None:
        while True:
            self._read_log()
            await asyncio.sleep(LOG_POLL_S)

    def _on_connected(self, transport: asyncio.Transport) -> None:
        if self._server:
            self._server.close()  # the recorder connects once
        if self._transport or self._ended.done():
            transport.abort()
            return
        self._transport = transport
        self._clear("connect")
        settle(self._connected, None)

    # ==== what the launcher wants ===================================================================================

    async def ready(self) -> None:
        """Returns half a second before the first frame."""
        await asyncio.shield(self._ready)

    async def ended(self) -> int:
        """The recorder's exit code; the negative number of the signal that ended it. Raises nothing."""
        return await asyncio.shield(self._ended)

    def click(self, x: float, y: float, nx: float = -1, ny: float = -1, time: float | None = None) -> None:
        """Reports a click at a global screen position, to be shown in the video. nx and ny: the position as fractions
        of the window. time: when it happened, as time.time() tells it; up to 3 s late is in time."""
        line = click_line(x, y, nx, ny, time)
        if self._ended.done() and not self._stopping and not self._exiting:
            raise self._error(*self._reason_of_end())
        if not self._transport or self._transport.is_closing() or self._stopping or self._exiting:
            raise self._error("NOT_RECORDING", "clicks are for the time from the connection to the stop")
        self._transport.write(line)

    async def stop(self) -> Result:
        """Ends the recording. Once; called again it gives the same result."""
        if not self._stopping and self._exiting:
            raise self._error("NOT_RECORDING", "the recorder was told to exit before")
        if not self._stopping:
            self._stopping = quiet(asyncio.ensure_future(self._stop()))
        return await asyncio.shield(self._stopping)

    async def _stop(self) -> Result:
        transport = await self._until_connected()
        was_ready = self._is_ready
        transport.write(STOP)
        self._limit("duration", self._options.limits.duration,
                    lambda: self._give_up("NO_REPLY", 'the recorder did not answer "stop" in time'))
        duration = await self._duration
        self._clear("duration")
        refuse(self._ready, self._error("STOPPED_BEFORE_READY",
                                         "the recording was stopped before the window gave an image"))
        file = self._finished_file()
        if file is None:
            raise self._error("NO_FILE", "the recorder wrote no file")
        return Result(duration, file, was_ready)

    async def exit(self) -> int:
        """Ends the process, normally after the stop. Returns its exit code, 0."""
        if not self._exiting:
            self._exiting = quiet(asyncio.ensure_future(self._exit()))
        return await asyncio.shield(self._exiting)

    async def _exit(self) -> int:
        if self._stopping:
            await asyncio.wait([self._stopping])
        if not self._ended.done() or not self._duration.done() or self._duration.exception():
            await self._send_exit()
        code = await self.ended()
        refuse(self._ready, self._error("STOPPED_BEFORE_READY",
                                         "the recorder was told to exit before it was ready"))
        if self._fault:
            raise self._error(*self._fault)
        if code != 0:
            raise self._error("CRASHED" if code < 0 else "BAD_EXIT",
                              f"the recorder did not end well ({self._end_in_words()})")
        return code

    async def _send_exit(self) -> None:
        transport = await self._until_connected()
        transport.write(EXIT)
        limits = self._options.limits
        # Without a stop the file is still to be finished.
        self._limit("exit", limits.exit if self._stopping else limits.exit + limits.duration,
                    lambda: self._give_up("NOT_ENDED", "the recorder did not end in time"))

    async def _until_connected(self) -> asyncio.Transport:
        """The wait for the readiness ends with it, too."""
        self._clear("ready")
        await asyncio.shield(self._connected)
        if self._ended.done():
            raise self._error(*self._reason_of_end())
        assert self._transport
        return self._transport

    async def dispose(self) -> None:
        """Stops and exits what has not been yet, by force if need be. Raises nothing of its own."""
        if not self._exiting and not self._ended.done():
            await self._without_error(self.stop())
        await self._without_error(self.exit())
        await self.ended()

    @staticmethod
    async def _without_error(work: Any) -> None:
        try:
            await work
        except RecorderError:
            pass

    # ==== what the recorder does ====================================================================================

    def _on_data(self, data: bytes) -> None:
        for reply in self._replies.take(data):
            if isinstance(reply, Ready):
                if not self._stopping:
                    self._is_ready = True
                    self._clear("ready")
                    settle(self._ready, None)
            elif isinstance(reply, int) and self._stopping:
                settle(self._duration, reply)
            else:
                self._give_up("BAD_REPLY", f"the recorder said {reply!r}, which is no answer")

    def _on_disconnected(self) -> None:
        settle(self._disconnected, None)
        if not self._ended.done() and not self._exiting:
            self._limit("lost", LOST_CONNECTION_S, lambda: self._give_up(
                "CONNECTION_LOST", "the recorder closed the connection and lives on"))

    def _on_log_line(self, line: LogLine) -> None:
        if line.level in ("warning", "critical", "fatal"):
            self._warnings.append(line)
        if line.text.startswith(NO_OUTPUT_TEXTS):
            refuse(self._ready, self._error("NO_FILE", "the recorder cannot write the output"))
        if not self._on_log:
            return
        try:
            self._on_log(line)
        except Exception as error:
            asyncio.get_running_loop().call_exception_handler({"message": "on_log has failed", "exception": error})

    def _give_up(self, code: str, message: str) -> None:
        """SIGTERM, with which the recorder finishes its file, then SIGKILL. What waits is told when it has ended."""
        if self._fault or self._process.returncode is not None:
            return
        self._fault = (code, message)
        self._signal(signal.SIGTERM)
        self._limit("terminate", self._options.limits.terminate, lambda: self._signal(signal.SIGKILL))

    def _signal(self, number: signal.Signals) -> None:
        try:
            self._process.send_signal(number)
        except ProcessLookupError:
            pass  # it has ended

    async def _watch(self) -> None:
        code = await self._process.wait()
        await self._last_replies()
        self._read_log()
        if self._log:
            self._log.close()
        settle(self._ended, code)
        error = self._error(*self._reason_of_end())
        refuse(self._connected, error)
        refuse(self._duration, error)
        if not self._exiting:
            refuse(self._ready, error)
        self._clean_up()

    async def _last_replies(self) -> None:
        """A connection, a reply or a line can still be on its way to this process."""
        for _ in range(3):
            await asyncio.sleep(0)
        waiting: list[asyncio.Future[None]] = [self._tasks[1]]  # stderr
        if self._transport:
            waiting.append(self._disconnected)
        await asyncio.wait(waiting, timeout=LAST_REPLIES_S)

    def _reason_of_end(self) -> tuple[str, str]:
        """When it was not told to end."""
        code = self._process.returncode or 0
        if self._fault:
            return self._fault
        if code < 0:
            return "CRASHED", f"the recorder was ended by {self._end_in_words()}"
        if code == CAPTURE_FAILED and not self._is_ready:
            return "CAPTURE_FAILED", "the recorder could not set up the capture of the window"
        return "ENDED_EARLY", f"the recorder ended before it was told to ({self._end_in_words()})"

    def _end_in_words(self) -> str:
        code = self._process.returncode or 0
        return signal.Signals(-code).name if code < 0 else f"exit code {code}"

    def _finished_file(self) -> str | None:
        """The file that the recorder has closed: its suffix can differ from the one that was asked for."""
        self._read_log()
        named = self._log.finalized if self._log else None
        if named is None:
            named = next(filter(None, map(finalized_output, reversed(self._stderr.lines))), None)
        return named if named and os.path.isfile(named) else None

    # ==== odds and ends =============================================================================================

    def _read_log(self) -> None:
        if self._log:
            self._log.read()

    def _error(self, code: str, message: str) -> RecorderError:
        self._read_log()
        log = self._log
        end = self._process.returncode
        return RecorderError(code, message, exit_code=end if end is not None and end >= 0 else None,
                             signal=-end if end is not None and end < 0 else None,
                             log_file=str(log.path) if log and log.path else None,
                             log_lines=list(log.tail.lines)[-KEPT_LINES:] if log else [],
                             stderr_lines=list(self._stderr.lines)[-KEPT_LINES:],
                             file=log.finalized if log else None)

    def _limit(self, name: str, seconds: float, on_over: Callable[[], None]) -> None:
        self._clear(name)
        self._timers[name] = asyncio.get_running_loop().call_later(seconds, on_over)

    def _clear(self, name: str) -> None:
        if timer := self._timers.pop(name, None):
            timer.cancel()

    def _clean_up(self) -> None:
        for name in list(self._timers):
            self._clear(name)
        for task in self._tasks:
            if task is not asyncio.current_task():
                task.cancel()
        if self._transport:
            self._transport.abort()
        if self._server:
            self._server.close()
        self._listener.close()
        if self._directory:
            privatedirectory.remove(self._directory)
