"""The recorders of a side-by-side run. Each records one window for some seconds and tells what that took."""
import dataclasses
import json
import os
import pathlib
import signal
import socket
import subprocess
import time

import desktop
import memory
import recorded

FRAME_MS = 41  # this recorder's slots
X11GRAB_FPS = 24


@dataclasses.dataclass
class Stage:
    """Where a recording takes place."""
    binaries: pathlib.Path
    display: str
    x_server_pid: int
    window_id: int
    width: int  # of the canvas, pixels
    height: int
    seconds: float  # to record
    is_scaled: bool = False  # the window is larger


@dataclasses.dataclass
class Recording:
    """What one recording took. Times are milliseconds."""
    file: pathlib.Path
    slot_ms: float  # a frame is due once in each
    ready_ms: float  # from the start of the process until it records, or says that it is about to
    reply_ms: float  # from the stop until the file is whole
    processor_ms: float  # of the whole process, from its start to its end
    x_server_ms_per_s: float  # while recording
    peak_mib: float  # held; memory.py
    highest_resident_mib: float


class XServerMeter:
    """Processor time of the X server per second of wall time, between start and rate()."""

    def __init__(self, stage):
        self.pid = stage.x_server_pid
        self.before = desktop.processor_ms(self.pid)
        self.since = time.monotonic()

    def rate(self):
        return (desktop.processor_ms(self.pid) - self.before) / (time.monotonic() - self.since)


def x_server_alone(stage, seconds):
    """What showing the window costs the X server without a recorder, milliseconds per second."""
    meter = XServerMeter(stage)
    time.sleep(seconds)
    return meter.rate()


def since_ms(start):
    return (time.monotonic() - start) * 1000


def private_environment(stage, directory):
    """No audio server, no other recorder's control socket."""
    environment = {**os.environ, "DISPLAY": stage.display, "TMPDIR": str(directory),
                   "XDG_RUNTIME_DIR": str(directory)}
    for name in ("DBUS_SESSION_BUS_ADDRESS", "PULSE_SERVER", "PIPEWIRE_REMOTE"):
        environment.pop(name, None)
    return environment


def finish(process):
    """Waits for the end; gives (exit code, processor milliseconds of the whole life)."""
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return process.returncode, (usage.ru_utime + usage.ru_stime) * 1000


def record_with_audio(stage, directory):
    """This recorder, with the audio of one application."""
    with desktop.private_audio(stage.binaries) as (audio, player):
        environment = {**audio, "DISPLAY": stage.display, "TMPDIR": str(directory)}
        recording = record_with_this(stage, directory, "audio", environment, f"app-pid:{player}")
    if not recorded.has_audio(recording.file):
        raise RuntimeError("the recording has no audio")
    return recording


def record_with_this(stage, directory, name="this", environment=None, audio_source=""):
    """This recorder, started and steered as a launcher does it; without an environment there is no audio to record."""
    output = directory / f"{name}.mp4"
    environment = environment or private_environment(stage, directory)
    (directory / "orvantis-recorder").unlink(missing_ok=True)  # a socket that an earlier recording left
    with socket.socket(socket.AF_UNIX) as server, open(directory / f"{name}.log", "wb") as log:
        server.bind(str(directory / "orvantis-recorder"))
        server.listen(1)
        server.settimeout(desktop.START_LIMIT_S)
        command = [stage.binaries / "orvantis-recorder", directory, "qt-window-capture", output, stage.window_id, 0, 0,
                   stage.width, stage.height, "1.0", audio_source]
        started = time.monotonic()
        recorder = subprocess.Popen(desktop.with_parent(map(str, command)), env=environment, stderr=log)
        try:
            line, _ = server.accept()
            with line, memory.PeakMemory(recorder.pid) as peak:
                if line.recv(1) != b"1":
                    raise RuntimeError("this recorder did not become ready")
                ready_ms = since_ms(started)
                time.sleep(0.5)  # from readiness to the first frame
                meter = XServerMeter(stage)
                time.sleep(stage.seconds)
                x_server = meter.rate()
                stopped = time.monotonic()
                line.sendall(b'{"action":"stop"}\n')
                json.loads(line.makefile().readline())["duration"]
                reply_ms = since_ms(stopped)
                peak.look()
                highest_resident = memory.highest_resident_mib(recorder.pid)
                line.sendall(b'{"action":"exit"}\n')
                code, processor = finish(recorder)
        finally:
            if recorder.returncode is None:
                desktop.end(recorder)
    if code != 0:
        raise RuntimeError(f"this recorder ended with {code}")
    return Recording(output, FRAME_MS, ready_ms, reply_ms, processor, x_server, peak.mib(), highest_resident)


def ffmpeg_command(stage, settings, output):
    """The same window, canvas, encoder, rates and fragments as this recorder's."""
    return ["ffmpeg", "-nostdin", "-loglevel", "error", "-f", "x11grab", "-framerate", str(X11GRAB_FPS),
            "-window_id", str(stage.window_id), "-i", stage.display,
            *(["-vf", f"scale={stage.width}:{stage.height}:flags=bilinear"] if stage.is_scaled else []),
            "-c:v", settings["encoder"], "-pix_fmt", settings["pixelFormat"], "-threads", str(settings["threads"]),
            "-b:v", str(settings["bitRate"]), "-maxrate", str(settings["maxRate"]),
            "-bufsize", str(settings["bufferSize"]), "-g", str(settings["gopSize"]),
            "-movflags", "+empty_moov+default_base_moof+frag_keyframe", "-frag_duration", "1000000", str(output)]


def record_with_ffmpeg(stage, directory, settings):
    """ffmpeg's own grabber. It is ready when its file has bytes in it, and done when it has ended."""
    output = directory / "ffmpeg.mp4"
    with open(directory / "ffmpeg.log", "wb") as log:
        started = time.monotonic()
        command = desktop.with_parent(ffmpeg_command(stage, settings, output))
        recorder = subprocess.Popen(command, env=private_environment(stage, directory), stderr=log)
        try:
            while not output.exists() or output.stat().st_size == 0:
                if recorder.poll() is not None or since_ms(started) > desktop.START_LIMIT_S * 1000:
                    raise RuntimeError("ffmpeg did not start: " + (directory / "ffmpeg.log").read_text())
                time.sleep(0.002)
            ready_ms = since_ms(started)
            with memory.PeakMemory(recorder.pid) as peak:
                meter = XServerMeter(stage)
                time.sleep(stage.seconds)
                x_server = meter.rate()
                peak.look()
            highest_resident = memory.highest_resident_mib(recorder.pid)
            stopped = time.monotonic()
            recorder.send_signal(signal.SIGINT)
            code, processor = finish(recorder)
            reply_ms = since_ms(stopped)
        finally:
            if recorder.returncode is None:
                desktop.end(recorder)
    if code not in (0, 255):  # 255 is its way to end when it is interrupted
        raise RuntimeError(f"ffmpeg ended with {code}: " + (directory / "ffmpeg.log").read_text())
    return Recording(output, 1000 / X11GRAB_FPS, ready_ms, reply_ms, processor, x_server, peak.mib(), highest_resident)


def encoder_alone(stage, painting_options, seconds):
    """The encoder on the same frames and nothing else: its settings, and milliseconds per recorded second."""
    frames = max(round(seconds * 1000 / FRAME_MS), 1)
    command = [stage.binaries / "encoderfloor", "--size", f"{stage.width}x{stage.height}", "--frames", str(frames),
               *painting_options]
    return json.loads(subprocess.run(command, check=True, capture_output=True).stdout)
