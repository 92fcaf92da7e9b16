#!/usr/bin/env python3
"""Kills recorders at random instants and looks at what they leave.

    kills.py BINARIES [--count N] [--seed S]

Every file with a whole header has to open, and to decode without an error up to its last whole fragment. Of what was
recorded, no more may be missing than the delay queue, one fragment and one frame hold.
"""
import argparse
import json
import pathlib
import random
import sys
import time

import brokenfile
import run

HOLD_S = 3.0  # what the delay queue holds back
FRAGMENT_S = 24 * 0.041
FRAME_S = 0.041
STALL_S = 0.5  # a machine that is busy: the recorder got no processor for so long
PHASES = ("start", "warm-up", "recording", "finalising")


def live(recorder, phase, instant):
    """Brings a recorder to a random instant of a phase; instant: 0.0 to 1.0 of it. Gives the seconds recorded by
    then."""
    if phase == "start":
        time.sleep(instant * 0.25)
        return 0
    recorder.connect()
    recorder.wait_until_ready()
    if phase == "warm-up":
        time.sleep(instant * 0.6)
        return recorder.recorded_s()
    time.sleep(run.READY_DELAY_S + (instant * 6 if phase == "recording" else 1 + instant))
    recorded = recorder.recorded_s()
    if phase == "finalising":
        recorder.ask_to_stop()
        time.sleep(instant * 0.2)
    return recorded


def kill_one(stage, phase, lossless, with_audio, instant):
    """One run; gives (what is wrong, or None; seconds lost, or None where there was nothing to lose)."""
    canvas = run.FALLBACK_CANVAS if lossless else (640, 360)
    with run.Run(stage, "kill", canvas, stage.app_audio() if with_audio else "") as recorder:
        recorded = live(recorder, phase, instant)
        recorder.kill()
        file = recorder.file()
        if file is None or not brokenfile.cut_to_whole(file):
            missing = recorded > HOLD_S + FRAGMENT_S + STALL_S
            return ("no file with a header" if missing else None), None
        errors = brokenfile.decoding_errors(file)
        if errors:
            return f"does not decode: {errors}", None
        if (file.suffix == ".mkv") != lossless:
            return f"{file.name} is not the container that was to be tried", None
        times = brokenfile.frame_times(file)
        lost = recorded - times[-1] if times else recorded
        if phase == "finalising":
            return None, None  # what waited is being written; how far it came, nobody knows
        if lost > HOLD_S + FRAGMENT_S + FRAME_S + STALL_S:
            return f"lost {lost:.2f} s", lost
        return None, lost


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--count", type=int, default=8)
    parser.add_argument("--seed", type=int, default=None, help="of the random instants; told in the result")
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    chance = random.Random(seed)
    wrong, lost = [], []
    with run.stage(options.binaries) as stage:
        for number in range(options.count):
            phase = PHASES[number % len(PHASES)]
            lossless, with_audio = number // len(PHASES) % 2 == 1, number // (2 * len(PHASES)) % 2 == 0
            fault, seconds = kill_one(stage, phase, lossless, with_audio, chance.random())
            if fault:
                wrong.append(f"{number} {phase} {'FFV1' if lossless else 'MPEG-4'} audio {with_audio}: {fault}")
            if seconds is not None:
                lost.append(seconds)
    print(json.dumps({"kills": options.count, "seed": seed, "mostSecondsLost": round(max(lost, default=0), 3),
                      "wrong": wrong}))
    return 1 if wrong or not lost else 0


if __name__ == "__main__":
    sys.exit(main())
