#!/usr/bin/env python3
"""Recordings in which the world stops or jumps, with audio and clicks.

    disturbed.py BINARIES [--seconds S]

- The recorder is stopped for S seconds (SIGSTOP), and so is the X server: frames are missing for that time and no
  longer, the rest is recorded, and what was clicked before and after has its markers.
- The machine's clock is set an hour ahead, and then two hours back (libfaketime, for the recorder and its launcher):
  no slot is missed for it, and each click has its marker in the frames of its time.
"""
import argparse
import concurrent.futures
import contextlib
import glob
import json
import os
import pathlib
import signal
import subprocess
import sys
import time

import brokenfile
import run

HOUR_S = 3600
PLACE = (320, 300)  # of the window and the canvas: its plain field
FRACTIONS = (PLACE[0] / 640, PLACE[1] / 360)
MARKED_S = 1.0  # how long a marker lives at half its size
MOST_GAP_S = 0.3  # a machine that is busy
FAKETIME = "/usr/lib/*/faketime/libfaketimeMT.so.1"  # Debian's libfaketime


class Clock:
    """The machine's clock as the recorder sees it, and as the launcher stamps its clicks."""

    def __init__(self, directory):
        self.offset_s = 0
        self.file = directory / "clock"
        self.set(0)
        self.variables = {"LD_PRELOAD": glob.glob(FAKETIME)[0], "FAKETIME_TIMESTAMP_FILE": str(self.file), "FAKETIME_NO_CACHE": "1",
                          "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1"}

    def set(self, offset_s):
        self.offset_s = offset_s
        fresh = self.file.with_suffix(".new")
        fresh.write_text(f"{offset_s:+d}\n")
        os.replace(fresh, self.file)

    def now_ms(self):
        return int((time.time() + self.offset_s) * 1000)


class Clicked:
    """Clicks in the middle of the field, and when they were made."""

    def __init__(self, recorder):
        self.recorder = recorder
        self.at_s = []  # of the recording, as near as the launcher can tell

    def click(self, now_ms, meanwhile=lambda: None):
        """meanwhile: what happens before it is reported, which is half a second late."""
        self.at_s.append(self.recorder.recorded_s())
        meanwhile()
        time.sleep(0.5)
        self.recorder.click(*PLACE, *FRACTIONS, now_ms)
        time.sleep(2.2)  # the marker's life


def redness(file):
    """(time in seconds, how much red there is at PLACE, 0 to 255) of each frame."""
    x, y = PLACE
    pixels = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", str(file), "-fps_mode", "passthrough",
                             "-vf", f"crop=8:8:{x - 4}:{y - 4},scale=1:1:flags=area,format=rgb24", "-f", "rawvideo",
                             "-"], capture_output=True, check=True).stdout
    times = brokenfile.frame_times(file)
    if len(pixels) != 3 * len(times):
        raise RuntimeError(f"{len(times)} frames, {len(pixels)} bytes of pixels")
    return [(at, pixels[3 * n] - (pixels[3 * n + 1] + pixels[3 * n + 2]) // 2) for n, at in enumerate(times)]


def unmarked(file, clicks):
    """What is wrong about the markers: each frame in the second that follows a click shows one, and no frame before
    it."""
    wrong, frames = [], redness(file)
    for at in clicks:
        marked = [red for when, red in frames if at + MOST_GAP_S < when < at + MARKED_S]
        before = [red for when, red in frames if at - 0.5 < when < at - MOST_GAP_S]
        if marked and min(marked) < 30:
            wrong.append(f"click at {at:.2f} s is missing: {min(marked)}")
        if before and max(before) >= 30:
            wrong.append(f"click at {at:.2f} s shows too early: {max(before)}")
        if not marked:
            wrong.append(f"no frames for the click at {at:.2f} s")
    return wrong


def gaps(file, longest_s):
    times = brokenfile.frame_times(file)
    return [f"no frame from {before:.2f} to {after:.2f} s" for before, after in zip(times, times[1:])
            if after - before > longest_s]


def audio_end(file):
    """Seconds of the last audio packet's begin."""
    output = subprocess.run(["ffprobe", "-v", "quiet", "-select_streams", "a:0", "-show_entries", "packet=pts_time",
                             "-of", "csv=p=0", str(file)], capture_output=True, text=True, check=True).stdout.split()
    return float(output[-1].strip(",")) if output else 0.0


def finish(recorder, clicked, longest_gap_s):
    """Stops the recorder and gives what is wrong with what it leaves."""
    duration_s = recorder.stop() / 1000
    recorder.exit()
    file = recorder.file()
    errors = brokenfile.decoding_errors(file)
    wrong = [errors] if errors else []
    wrong += gaps(file, longest_gap_s) + unmarked(file, clicked.at_s)
    for what, end in (("video", brokenfile.frame_times(file)[-1]), ("audio", audio_end(file))):
        if abs(end - duration_s) > MOST_GAP_S:
            wrong.append(f"{what} ends at {end:.2f} s of {duration_s:.2f} s")
    return wrong


@contextlib.contextmanager
def recording(stage, name, variables=None):
    with run.Run(stage, name, audio=stage.app_audio(), variables=variables) as recorder:
        recorder.connect()
        recorder.wait_until_ready()
        time.sleep(run.READY_DELAY_S + 1)
        yield recorder, Clicked(recorder)


def stopped(stage, seconds, pid_of):
    """pid_of: of a recorder, the process that is stopped."""
    with recording(stage, "stopped") as (recorder, clicked):
        clicked.click(int(time.time() * 1000))
        os.kill(pid_of(recorder), signal.SIGSTOP)
        time.sleep(seconds)
        os.kill(pid_of(recorder), signal.SIGCONT)
        time.sleep(1)
        clicked.click(int(time.time() * 1000))
        return finish(recorder, clicked, seconds + MOST_GAP_S)


def clock_that_is_set(stage):
    clock = Clock(stage.directory)
    with recording(stage, "clock", clock.variables) as (recorder, clicked):
        for offset_s in (HOUR_S, -HOUR_S):
            clicked.click(clock.now_ms(), lambda: clock.set(offset_s))
            clicked.click(clock.now_ms())
        return finish(recorder, clicked, MOST_GAP_S)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--seconds", type=float, default=5)
    options = parser.parse_args()
    with run.stage(options.binaries) as stage, concurrent.futures.ThreadPoolExecutor() as beside:
        recorder_stopped = beside.submit(stopped, stage, options.seconds, lambda recorder: recorder.process.pid)
        clock_set = beside.submit(clock_that_is_set, stage)
        wrong = {"recorder stopped": recorder_stopped.result(), "clock set": clock_set.result(),
                 "X server stopped": stopped(stage, options.seconds, lambda _: stage.x_server_pid)}
    print(json.dumps(wrong))
    return 1 if any(wrong.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
