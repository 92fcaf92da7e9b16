#!/usr/bin/env python3
"""Recordings in which the world stops or jumps, with audio and clicks.

    disturbed.py BINARIES [--seconds S]

- The recorder is stopped for S seconds (SIGSTOP), and so is the X server: frames are missing for that time and for no
  other, and what was clicked before and after has its markers.
- The audio server is stopped for S seconds: no frame is missed for it, and audio for that time only.
- The machine's clock is set an hour ahead, and then two hours back (libfaketime, for the recorder and its launcher):
  no slot is missed for it, and each click has its marker in the frames of its time.

The window flashes and beeps. Wherever a beep is heard, before and after, it is within 20 ms of its flash.
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

import beeps
import brokenfile
import run

HOUR_S = 3600
PLACE = (320, 300)  # of the window and the canvas: its plain field
FRACTIONS = (PLACE[0] / 640, PLACE[1] / 360)
MARKED_S = 1.0  # how long a marker lives at half its size
MOST_GAP_S = 0.3  # a machine that is busy
RESUMED_S = 0.5  # until audio flows again
MOST_BENT_MS = 50
FAKETIME = "/usr/lib/*/faketime/libfaketimeMT.so.1"  # Debian's libfaketime


class Clock:
    """The machine's clock as the recorder sees it, and as the launcher stamps its clicks."""

    def __init__(self, directory):
        self.offset_s = 0
        self.file = directory / "clock"
        self.set(0)
        self.variables = {"LD_PRELOAD": glob.glob(FAKETIME)[0], "FAKETIME_TIMESTAMP_FILE": str(self.file),
                          "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1", "DONT_FAKE_MONOTONIC": "1",
                          # A sanitizer wants to be the first library.
                          "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"}

    def set(self, offset_s):
        self.offset_s = offset_s
        fresh = self.file.with_suffix(".new")
        fresh.write_text(f"{offset_s:+d}\n")
        os.replace(fresh, self.file)

    def now_ms(self):
        return int((time.time() + self.offset_s) * 1000)

    @staticmethod
    def clean_up(pid):
        """libfaketime leaves its shared memory behind."""
        for name in (f"faketime_shm_{pid}", f"sem.faketime_sem_{pid}"):
            pathlib.Path("/dev/shm", name).unlink(missing_ok=True)


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


class Stop:
    """When something was stopped, seconds of the recording as near as the launcher can tell, and what is missing for
    it."""

    def __init__(self, begin_s, end_s, frames_miss, audio_misses):
        self.begin_s = begin_s
        self.end_s = end_s
        self.frames_miss = frames_miss
        self.audio_misses = audio_misses


def misses(file, stop):
    """What is wrong about the frames that are missing: all of a stop's, and no others."""
    times = brokenfile.frame_times(file)
    long = [(before, after) for before, after in zip(times, times[1:]) if after - before > MOST_GAP_S]
    expected = [(stop.begin_s, stop.end_s)] if stop and stop.frames_miss else []
    if len(long) == len(expected) and all(abs(there - due) <= MOST_GAP_S for gap, stopped_at in zip(long, expected)
                                          for there, due in zip(gap, stopped_at)):
        return []
    return [f"no frames {spans(long)}, and there should be none {spans(expected)}"]


def spans(times):
    return " and ".join(f"from {begin:.2f} to {end:.2f} s" for begin, end in times) or "at no time"


def misheard(stage, recorder, stop, duration_s):
    """What is wrong with the beeps: where, and where there are none."""
    heard = beeps.Heard(stage, recorder, recorder.file())
    besides = (stop.begin_s, stop.end_s + RESUMED_S) if stop and stop.audio_misses else None
    wrong = heard.misplaced() + heard.silences(duration_s, besides)
    # Frames that are all late after a stop would bend the line of their times.
    bent_ms = abs(heard.frames_drift()) * duration_s / 60
    return wrong + ([f"the frames' times are bent by {bent_ms:.0f} ms"] if bent_ms > MOST_BENT_MS else [])


def audio_end(file):
    """Seconds of the last audio packet's begin."""
    output = subprocess.run(["ffprobe", "-v", "quiet", "-select_streams", "a:0", "-show_entries", "packet=pts_time",
                             "-of", "csv=p=0", str(file)], capture_output=True, text=True, check=True).stdout.split()
    return float(output[-1].strip(",")) if output else 0.0


def finish(stage, recorder, clicked, stop=None):
    """Stops the recorder. What is given tells, when it is called, what is wrong with the file: reading files beside
    recordings would disturb those."""
    duration_s = recorder.stop() / 1000
    recorder.exit()
    return lambda: judged(stage, recorder, clicked, stop, duration_s)


def judged(stage, recorder, clicked, stop, duration_s):
    file = recorder.file()
    errors = brokenfile.decoding_errors(file)
    wrong = [errors] if errors else []
    wrong += misses(file, stop) + unmarked(file, clicked.at_s) + misheard(stage, recorder, stop, duration_s)
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


def stopped(stage, seconds, pid_of, frames_miss=True, audio_misses=True):
    """pid_of: of a recorder, the process that is stopped."""
    with recording(stage, "stopped") as (recorder, clicked):
        clicked.click(int(time.time() * 1000))
        pid, begin_s = pid_of(recorder), recorder.recorded_s()
        os.kill(pid, signal.SIGSTOP)
        time.sleep(seconds)
        os.kill(pid, signal.SIGCONT)
        stop = Stop(begin_s, recorder.recorded_s(), frames_miss, audio_misses)
        time.sleep(1)
        clicked.click(int(time.time() * 1000))
        return finish(stage, recorder, clicked, stop)


def clock_that_is_set(stage):
    clock = Clock(stage.directory)
    with contextlib.ExitStack() as stack:
        recorder, clicked = stack.enter_context(recording(stage, "clock", clock.variables))
        stack.callback(clock.clean_up, recorder.process.pid)
        for offset_s in (HOUR_S, -HOUR_S):
            clicked.click(clock.now_ms(), lambda: clock.set(offset_s))
            clicked.click(clock.now_ms())
        return finish(stage, recorder, clicked)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--seconds", type=float, default=5)
    options = parser.parse_args()
    with contextlib.ExitStack() as stack, concurrent.futures.ThreadPoolExecutor() as beside:
        # Each server that is stopped is one of its own: nobody else is to miss it.
        common, own_x, own_audio = (stack.enter_context(run.stage(options.binaries, beeps=True)) for _ in range(3))
        recordings = {
            "recorder stopped": (stopped, common, options.seconds, lambda recorder: recorder.process.pid),
            "X server stopped": (stopped, own_x, options.seconds, lambda _: own_x.x_server_pid, True, False),
            "audio server stopped": (stopped, own_audio, options.seconds, lambda _: own_audio.audio_server_pid(),
                                     False),
            "clock set": (clock_that_is_set, common)}
        made = [beside.submit(*recording) for recording in recordings.values()]
        judges = [recording.result() for recording in made]
        wrong = dict(zip(recordings, beside.map(lambda judge: judge(), judges)))
    print(json.dumps(wrong))
    return 1 if any(wrong.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
