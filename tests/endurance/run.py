"""One recorder as a launcher runs it, on a private directory; and the stage that several of them share."""
import contextlib
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
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

    def remove_known_files(self):
        """The directory, with what has to be in it; it complains of anything else."""
        logs = self.directory.glob("*-orvantis-recorder-log.txt")
        for path in (self.file(), *logs, self.directory / "orvantis-recorder", self.directory / "stderr"):
            path.unlink()
        self.directory.rmdir()


class Stage:
    """A private X server with a window that changes all the time, and a private audio server with a player."""

    def __init__(self, binaries, directory, x_server_pid, environment, size, window_id, player):
        self.binaries = binaries
        self.directory = directory
        self.x_server_pid = x_server_pid
        self.environment = environment
        self.width, self.height = size
        self.window_id = window_id
        self.player = player  # process id
        self.player_gaps = []  # (begin, end) of what a beeping window itself left out; monotonic, seconds

    def app_audio(self):
        return f"app-pid:{self.player}"

    def audio_server_pid(self):
        """Of the process that listens at the server's socket."""
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(self.environment["XDG_RUNTIME_DIR"] + "/pipewire-0")
            return struct.unpack("3i", client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]

    def read_gaps(self, lines):
        """A window's lines "gap AT LENGTH", to their end: they must not fill its pipe."""
        for line in lines:
            kind, *numbers = line.split()
            if kind == "gap":
                begin_ms, length_ms = map(float, numbers)
                self.player_gaps.append((begin_ms / 1000, (begin_ms + length_ms) / 1000))


@contextlib.contextmanager
def stage(binaries, beeps=False):
    """beeps: the window itself is the player, and flashes and beeps in the same instants; else a tone is played."""
    with contextlib.ExitStack() as stack:
        directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="ov-endure-", dir="/tmp")))
        display, x_server_pid = stack.enter_context(desktop.private_x_server(1280, 800))
        environment, player = stack.enter_context(desktop.private_audio(binaries))
        environment = {**environment, "DISPLAY": display}
        # Often enough that the beeping window's frames tell when each was painted, also when it hangs for a while.
        options = ["--fps", "120", "--beep"] if beeps else ["--fps", "60"]
        size = (640, 360)
        window_id, window = stack.enter_context(
            desktop.truth_window_process(binaries, environment, *size, options))
        made = Stage(binaries, directory, x_server_pid, environment, size, window_id, window.pid if beeps else player)
        threading.Thread(target=made.read_gaps, args=(window.stdout,), daemon=True).start()
        yield made
