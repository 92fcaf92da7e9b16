#!/usr/bin/env python3
"""Records a window that changes, with audio, for a long time, and watches what the recorder holds.

    soak.py BINARIES [--minutes M] [--every-slot]

The window flashes and beeps: each beep is heard, within 20 ms of its flash, and in a recording of three minutes or
more neither drifts by a millisecond a minute: the frames from the window's clock, the audio from the frames. Memory is
compared with the median of the first minutes (of the first half of the looks, when there are fewer): the median of the
last third may lie 2 % above it, and the highest 10 %, as a recorder that is late holds what waits. Descriptors stay as
they were, threads too, apart from one that is made when the recorder has to hurry for the first time. With --every-slot
no slot may be missed, and the highest memory lie 2 % above: that wants a machine with nothing else to do. Eight hours:
--minutes 480.
"""
import argparse
import json
import pathlib
import statistics
import sys
import time

import beeps
import brokenfile
import run

import memory  # of the bench
import recorded

SETTLED_AFTER_S = 30  # the delay queue has filled, and every buffer was used
LOOK_EVERY_S = 5
LEAST_LOOKS = 15
EARLY_S = 180  # what is seen later is compared with this
MOST_GROWTH = 0.02
MOST_GROWTH_WHEN_LATE = 0.1
MOST_CHANGE = {"descriptors": 0, "threads": 1}  # the thread is the one that helps to convert
SLOT_MS = 41


def held_kib(pid):
    process = pathlib.Path(f"/proc/{pid}")
    return memory.held_kib((process / "smaps_rollup").read_text(), (process / "status").read_text(),
                           memory.shared_files_kib(pid))


def counts(pid):
    process = pathlib.Path(f"/proc/{pid}")
    return {"descriptors": len(list((process / "fd").iterdir())), "threads": len(list((process / "task").iterdir()))}


def watch(recorder, seconds):
    """(memory in KiB at each look, counts at each look)"""
    pid, kib, held = recorder.process.pid, [], []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        time.sleep(min(LOOK_EVERY_S, seconds / LEAST_LOOKS, max(end - time.monotonic(), 0.1)))
        kib.append(held_kib(pid))
        held.append(counts(pid))
    return kib, held


def growth(kib):
    """How far the usual late look, and the highest one, lie above the usual early one: fractions."""
    early = statistics.median(kib[:min(EARLY_S // LOOK_EVERY_S, (len(kib) + 1) // 2)])
    return statistics.median(kib[-max(len(kib) // 3, 1):]) / early - 1, max(kib) / early - 1


def heard(stage, recorder, duration_ms):
    """(what is wrong with the audio, what is told of it)"""
    measured = beeps.Heard(stage, recorder, recorder.file())
    wrong = measured.misplaced() + measured.silences(duration_ms / 1000)
    frames, audio = measured.frames_drift(), measured.beeps_drift()
    if duration_ms >= beeps.ENOUGH_MINUTES * 60000:
        wrong += [f"{what} drift by {drift:.2f} ms a minute" for what, drift in (("frames", frames), ("beeps", audio))
                  if abs(drift) >= beeps.MOST_DRIFT_MS]
    return wrong, {"beeps": len(measured.beeps), "playerGaps": len(stage.player_gaps),
                   "worstBeepMs": round(max((abs(offset) for _, offset in measured.beeps), default=0), 2),
                   "driftMsPerMinute": {"frames": round(frames, 3), "beeps": round(audio, 3)}}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--every-slot", action="store_true")
    options = parser.parse_args()
    with run.stage(options.binaries, beeps=True) as stage, run.Run(stage, "soak", audio=stage.app_audio()) as recorder:
        recorder.connect()
        recorder.wait_until_ready()
        time.sleep(SETTLED_AFTER_S)
        kib, held = watch(recorder, options.minutes * 60 - SETTLED_AFTER_S)
        duration_ms = recorder.stop()
        recorder.exit()
        times_ms = [seconds * 1000 for seconds in brokenfile.frame_times(recorder.file())]
        errors = brokenfile.decoding_errors(recorder.file())
        misheard, audio = heard(stage, recorder, duration_ms)
    seen = {what: sorted({look[what] for look in held}) for what in MOST_CHANGE}
    changed = {what: values for what, values in seen.items() if values[-1] - values[0] > MOST_CHANGE[what]}
    gaps = recorded.gaps_with_missed_slots(times_ms, SLOT_MS)
    missed = sum(slots for _, slots in gaps)
    usual, highest = growth(kib)
    most = MOST_GROWTH if options.every_slot else MOST_GROWTH_WHEN_LATE
    wrong = [errors] if errors else []
    wrong += misheard
    wrong += [f"memory grew by {usual:.1%}"] if usual > MOST_GROWTH else []
    wrong += [f"memory was once {highest:.1%} higher than early on"] if highest > most else []
    wrong += [f"not constant: {changed}"] if changed else []
    wrong += [f"{missed} slots missed"] if missed and options.every_slot else []
    print(json.dumps({"minutes": round(duration_ms / 60000, 2), "frames": len(times_ms), "missedSlots": missed,
                      "missedAtS": [round(time_ms / 1000, 1) for time_ms, _ in gaps[:20]],
                      "longestGapMs": round(recorded.longest_gap_ms(times_ms)),
                      "memoryKiB": [round(min(kib)), round(max(kib))], "growthPercent": round(usual * 100, 2),
                      "highestPercent": round(highest * 100, 2),
                      **audio, **held[-1], "wrong": wrong}))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
