"""A Chromium of this program's own, driven over DevTools: a pipe, so that nobody else can connect to it."""
from __future__ import annotations

import asyncio
import fcntl
import itertools
import json
import os
import shutil
import sys
import tempfile
from collections.abc import Callable
from pathlib import Path
from typing import Any

LONGEST_MESSAGE = 2 ** 24  # bytes
WINDOW_LIMIT_S = 30

# Puts two descriptors where the browser looks for them, and becomes the browser.
_STARTER = """
import os, sys
os.dup2(int(sys.argv[1]), 3)
os.dup2(int(sys.argv[2]), 4)
os.execvp(sys.argv[3], sys.argv[3:])
"""


def _high(descriptor: int) -> int:
    """The same one with a number that is in nobody's way."""
    high = fcntl.fcntl(descriptor, fcntl.F_DUPFD_CLOEXEC, 10)
    os.close(descriptor)
    return high


class Chromium:
    """on_binding: called with what the page passes on. Use it with "async with"."""

    def __init__(self, page: str, size: tuple[int, int], on_binding: Callable[[Any], None],
                 binary: str = "chromium") -> None:
        self._page = page
        self._size = size
        self._on_binding = on_binding
        self._binary = binary
        self._profile = Path(tempfile.mkdtemp(prefix="chromium-"))
        self._numbers = itertools.count(1)
        self._waiting: dict[int, asyncio.Future[Any]] = {}
        self._session: dict[str, str] = {}  # with the page
        self._process: asyncio.subprocess.Process
        self._writer: asyncio.WriteTransport
        self._reader: asyncio.Task[None]

    @property
    def pid(self) -> int:
        return self._process.pid

    async def __aenter__(self) -> Chromium:
        try:
            await self._start()
            await self._attach()
        except BaseException:
            await self.__aexit__()
            raise
        return self

    async def __aexit__(self, *_: object) -> None:
        if self._process.returncode is None:
            self._process.terminate()
        await self._process.wait()
        self._reader.cancel()
        self._writer.close()
        shutil.rmtree(self._profile, ignore_errors=True)

    async def _start(self) -> None:
        file = self._profile / "page.html"
        file.write_text(self._page)
        to_browser, own_end = map(_high, os.pipe())
        other_end, from_browser = map(_high, os.pipe())
        arguments = ["--remote-debugging-pipe", f"--user-data-dir={self._profile}", "--no-first-run", "--disable-gpu",
                     "--disable-background-networking", "--disable-component-update", "--disable-sync",
                     "--autoplay-policy=no-user-gesture-required", "--window-position=40,30",
                     "--window-size={},{}".format(*self._size), f"--app=file://{file}"]
        if os.geteuid() == 0:
            arguments.append("--no-sandbox")
        self._process = await asyncio.create_subprocess_exec(
            sys.executable, "-c", _STARTER, str(to_browser), str(from_browser), self._binary, *arguments,
            pass_fds=(to_browser, from_browser), stdout=asyncio.subprocess.DEVNULL, stderr=asyncio.subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        loop = asyncio.get_running_loop()
        reader = asyncio.StreamReader(LONGEST_MESSAGE)
        await loop.connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), open(other_end, "rb"))
        self._writer, _ = await loop.connect_write_pipe(asyncio.BaseProtocol, open(own_end, "wb"))
        self._reader = asyncio.create_task(self._read(reader))

    async def _attach(self) -> None:
        pages: list[Any] = []
        while not pages:
            targets = await self.send("Target.getTargets")
            pages = [info for info in targets["targetInfos"]
                     if info["type"] == "page" and info["url"].startswith("file:")]
        attached = await self.send("Target.attachToTarget", targetId=pages[0]["targetId"], flatten=True)
        self._session = {"sessionId": attached["sessionId"]}
        await self.send("Runtime.enable")
        await self.send("Runtime.addBinding", name="report")

    async def _read(self, reader: asyncio.StreamReader) -> None:
        try:
            while True:
                message = json.loads((await reader.readuntil(b"\0"))[:-1])
                if message.get("method") == "Runtime.bindingCalled":
                    self._on_binding(json.loads(message["params"]["payload"]))
                waiting = self._waiting.pop(message.get("id"), None)
                if waiting and "error" in message:
                    waiting.set_exception(RuntimeError(message["error"]["message"]))
                elif waiting:
                    waiting.set_result(message["result"])
        except asyncio.IncompleteReadError:
            for waiting in self._waiting.values():
                waiting.set_exception(RuntimeError("the browser ended"))

    async def send(self, method: str, **parameters: Any) -> Any:
        number = next(self._numbers)
        self._waiting[number] = asyncio.get_running_loop().create_future()
        message = {"id": number, "method": method, "params": parameters, **self._session}
        answer = self._waiting[number]
        self._writer.write(json.dumps(message).encode() + b"\0")
        return await answer

    async def click(self, x: float, y: float) -> None:
        for kind in ("mousePressed", "mouseReleased"):
            await self.send("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    async def window(self, title: str) -> str:
        """The id of the window with that title, as soon as it is shown."""
        search = await asyncio.create_subprocess_exec(
            "xdotool", "search", "--sync", "--all", "--onlyvisible", "--pid", str(self.pid), "--name", title,
            stdout=asyncio.subprocess.PIPE)
        output, _ = await asyncio.wait_for(search.communicate(), WINDOW_LIMIT_S)
        return output.decode().split()[-1]
