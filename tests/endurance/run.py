"""One recorder as a launcher runs it, on a private directory; and the stage that several of them share."""
import contextlib
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "bench"))

import desktop  # noqa: E402

ANSWER_LIMIT_S = 60
READY_DELAY_S = 0.5  # from the readiness byte to the first frame
FALLBACK_CANVAS = (8192, 16)  # MPEG-4 Part 2 knows no wider one than 8191: FFV1 in Matroska is written


class Run:
    """A recorder that has been started. Every wait has a limit; what it leaves is removed by the end of the context."""

    def __init__(self, stage, name, canvas=(640, 360), audio="", variables=None):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix=f"{name}-", dir=stage.directory))
        self.canvas = canvas
        self.server = socket.socket(socket.AF_UNIX)
        self.server.bind(str(self.directory / "orvantis-recorder"))
        self.server.listen(1)
        self.server.settimeout(ANSWER_LIMIT_S)
        self.line = None
        self.ready_at = None  # monotonic, seconds
        environment = {**stage.environment, "TMPDIR": str(self.directory), **(variables or {})}
        command = [stage.binaries / "orvantis-recorder", self.directory, "qt-window-capture",
                   self.directory / "out.mp4", stage.window_id, 0, 0, *canvas, "1.0", audio]
        self.started_at = time.monotonic()
        with open(self.directory / "stderr", "wb") as errors:
            self.process = subprocess.Popen(desktop.with_parent(map(str, command)), env=environment, stderr=errors,
                                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.line:
            self.line.close()
        self.server.close()

    def connect(self):
        self.line, _ = self.server.accept()
        self.line.settimeout(ANSWER_LIMIT_S)

    def wait_until_ready(self):
        if self.line.recv(1) != b"1":
            raise RuntimeError("the recorder did not become ready")
        self.ready_at = time.monotonic()

    def recorded_s(self):
        """How long frames have been recorded by now, as far as the launcher can tell."""
        return max(time.monotonic() - self.ready_at - READY_DELAY_S, 0) if self.ready_at else 0

    def click(self, x, y, across=0.5, down=0.5, at_ms=None):
        """across, down: fractions of the window; at_ms: milliseconds since the epoch, now when not given."""
        at_ms = int(time.time() * 1000) if at_ms is None else at_ms
        self.line.sendall(f"click|{x}|{y}|{across}|{down}|{at_ms}\n".encode())

    def ask_to_stop(self):
        self.line.sendall(b'{"action":"stop"}\n')

    def stop(self):
        """Milliseconds that were recorded."""
        self.ask_to_stop()
        return self.duration()

    def duration(self):
        """The reply to a stop. A readiness byte may lie before it."""
        received = b""
        while b"}" not in received:
            more = self.line.recv(4096)
            if not more:
                raise RuntimeError(f"no duration: {received!r}")
            received += more
        return json.loads(received[received.index(b"{"):])["duration"]

    def exit(self):
        self.line.sendall(b'{"action":"exit"}\n')
        code = self.process.wait(ANSWER_LIMIT_S)
        if code != 0:
            raise RuntimeError(f"the recorder ended with {code}")

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def file(self):
        """What was written; None when nothing was."""
        files = [path for path in self.directory.iterdir() if path.suffix in (".mp4", ".mkv")]
        if len(files) > 1:
            raise RuntimeError(f"more than one file: {files}")
        return files[0] if files else None


class Stage:
    """A private X server with a window that changes all the time, and where asked for a private audio server."""

    def __init__(self, binaries, directory, display, x_server_pid, window_id, environment, player):
        self.binaries = binaries
        self.directory = directory
        self.display = display
        self.x_server_pid = x_server_pid
        self.window_id = window_id
        self.environment = {**environment, "DISPLAY": display}
        self.player = player  # process id; None without audio

    def app_audio(self):
        return f"app-pid:{self.player}" if self.player else ""


@contextlib.contextmanager
def stage(binaries, size=(640, 360), with_audio=True):
    with contextlib.ExitStack() as stack:
        directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="ov-endure-", dir="/tmp")))
        display, x_server_pid = stack.enter_context(desktop.private_x_server(1280, 800))
        if with_audio:
            environment, player = stack.enter_context(desktop.private_audio(binaries))
        else:
            environment, player = {**os.environ, "XDG_RUNTIME_DIR": str(directory)}, None
        window = stack.enter_context(desktop.truth_window(binaries, display, *size, ["--fps", "60"]))
        yield Stage(binaries, directory, display, x_server_pid, window, environment, player)
