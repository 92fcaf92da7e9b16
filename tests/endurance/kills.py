#!/usr/bin/env python3
"""Kills recorders at random instants and looks at what they leave.

    kills.py BINARIES [--count N] [--at-once K] [--seed S]

Every file with a whole header has to open as it was left, with all that its whole fragments hold, also where the
kernel stopped in the middle of a write; what is torn is then cut off, and the rest has to decode without an error. Of
what was recorded, no more may be missing than the delay queue, one fragment and one frame hold, and STALL_S besides.
"""
import argparse
import collections
import concurrent.futures
import json
import pathlib
import random
import shutil
import sys
import tempfile
import time

import brokenfile
import run

HOLD_S = 3.0  # what the delay queue holds back
FRAGMENT_S = 24 * 0.041
FRAME_S = 0.041
STALL_S = 0.5  # a machine that is busy: the recorder got no processor for so long
MOST_LOST_S = HOLD_S + FRAGMENT_S + FRAME_S + STALL_S
PHASES = ("start", "warm-up", "recording", "finalising")


def live(recorder, phase, instant):
    """Brings a recorder to a random instant of a phase; instant: 0.0 to 1.0 of it. Gives the seconds recorded by
    then; what comes after the stop is not recorded any more."""
    if phase == "start":
        time.sleep(instant * 0.25)
        return 0
    recorder.connect()
    recorder.wait_until_ready()
    if phase == "warm-up":
        time.sleep(instant * 0.6)
        return recorder.recorded_s()
    # The end is judged by what was in the file before: it takes a recording that has written something.
    time.sleep(run.READY_DELAY_S + (instant * 6 if phase == "recording" else MOST_LOST_S + instant))
    recorded = recorder.recorded_s()
    if phase == "finalising":
        recorder.ask_to_stop()
        time.sleep(instant * 0.2)
    return recorded


def kept(file):
    """Where a file lies that somebody has to look at."""
    place = pathlib.Path(tempfile.mkdtemp(prefix="ov-killed-")) / file.name
    shutil.copy(file, place)
    return place


def look(file, recorded):
    """What is wrong with a file that has a header, or None; seconds lost, or None where that was not measured."""
    refusal = brokenfile.refusal(file)
    if refusal:
        return f"{refusal}; kept as {kept(file)}", None
    brokenfile.cut_to_whole(file)
    errors = brokenfile.decoding_errors(file)
    if errors:
        return f"does not decode: {errors}; kept as {kept(file)}", None
    times = brokenfile.frame_times(file)
    lost = recorded - times[-1] if times else recorded
    return (f"lost {lost:.2f} s" if lost > MOST_LOST_S else None), lost


Outcome = collections.namedtuple("Outcome", "phase wrong lost torn")


def kill_one(stage, number, instant):
    phase, lossless = PHASES[number % len(PHASES)], number // len(PHASES) % 2 == 1
    with_audio = (number + number // 4 + number // 8) % 2 == 1  # with each phase and each encoder, by turns
    canvas = run.FALLBACK_CANVAS if lossless else (640, 360)
    with run.Run(stage, "kill", canvas, stage.app_audio() if with_audio else "") as recorder:
        recorded = live(recorder, phase, instant)
        recorder.kill()
        file, torn, lost = recorder.file(), False, None
        whole, has_header = brokenfile.whole(file) if file else (0, False)
        if not has_header:
            wrong = f"no file with a header after {recorded:.2f} s" if recorded > MOST_LOST_S else None
        elif (file.suffix == ".mkv") != lossless:
            wrong = f"{file.name} is not the container that was to be tried"
        else:
            torn = whole < file.stat().st_size
            wrong, lost = look(file, recorded)
    what = f"{number} {phase} {'FFV1' if lossless else 'MPEG-4'} {'with' if with_audio else 'without'} audio"
    return Outcome(phase, f"{what}: {wrong}" if wrong else None, lost, torn)


def most_lost(outcomes):
    """Of each phase that left something to look at."""
    measured = [outcome for outcome in outcomes if outcome.lost is not None]
    return {phase: round(max(outcome.lost for outcome in measured if outcome.phase == phase), 3) for phase in PHASES
            if any(outcome.phase == phase for outcome in measured)}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--count", type=int, default=8)
    parser.add_argument("--at-once", type=int, default=2)
    parser.add_argument("--seed", type=int, default=None, help="of the random instants; told in the result")
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    chance = random.Random(seed)
    instants = [chance.random() for _ in range(options.count)]
    with run.stage(options.binaries) as stage, concurrent.futures.ThreadPoolExecutor(options.at_once) as pool:
        outcomes = list(pool.map(lambda number: kill_one(stage, number, instants[number]), range(options.count)))
    wrong = [outcome.wrong for outcome in outcomes if outcome.wrong]
    lost = most_lost(outcomes)
    wrong += [] if lost else ["there was nothing to look at"]
    print(json.dumps({"kills": options.count, "seed": seed,
                      "filesWithHeader": sum(outcome.lost is not None for outcome in outcomes),
                      "torn": sum(outcome.torn for outcome in outcomes), "mostSecondsLost": lost, "wrong": wrong}))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
