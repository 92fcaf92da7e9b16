#!/usr/bin/env python3
"""Records a window that changes, with audio, for a long time, and watches what the recorder holds.

    soak.py BINARIES [--minutes M] [--every-slot]

Memory has to stay within 2 % of what it was after the first minutes, descriptors as they were, threads too, apart from
one that is made when the recorder has to hurry for the first time. With --every-slot no slot may be missed: that wants
a machine with nothing else to do. How far audio drifts from the frames is measured elsewhere (avsync_test). Eight
hours: --minutes 480.
"""
import argparse
import json
import pathlib
import statistics
import sys
import time

import brokenfile
import run

import memory  # of the bench
import recorded

SETTLED_AFTER_S = 30  # the delay queue has filled, and every buffer was used
LOOK_EVERY_S = 5
MOST_GROWTH = 0.02
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
        time.sleep(min(LOOK_EVERY_S, max(end - time.monotonic(), 0.1)))
        kib.append(held_kib(pid))
        held.append(counts(pid))
    return kib, held


def third(values, which):
    size = max(len(values) // 3, 1)
    return statistics.median(values[:size] if which == "first" else values[-size:])


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--every-slot", action="store_true")
    options = parser.parse_args()
    with run.stage(options.binaries) as stage, run.Run(stage, "soak", audio=stage.app_audio()) as recorder:
        recorder.connect()
        recorder.wait_until_ready()
        time.sleep(SETTLED_AFTER_S)
        kib, held = watch(recorder, options.minutes * 60 - SETTLED_AFTER_S)
        duration_ms = recorder.stop()
        recorder.exit()
        times_ms = [seconds * 1000 for seconds in brokenfile.frame_times(recorder.file())]
        errors = brokenfile.decoding_errors(recorder.file())
    growth = third(kib, "last") / third(kib, "first") - 1
    seen = {what: sorted({look[what] for look in held}) for what in MOST_CHANGE}
    changed = {what: values for what, values in seen.items() if values[-1] - values[0] > MOST_CHANGE[what]}
    missed = recorded.missed_slots(times_ms, SLOT_MS)
    wrong = [errors] if errors else []
    wrong += [f"memory grew by {growth:.1%}"] if growth > MOST_GROWTH else []
    wrong += [f"not constant: {changed}"] if changed else []
    wrong += [f"{missed} slots missed"] if missed and options.every_slot else []
    print(json.dumps({"minutes": round(duration_ms / 60000, 2), "frames": len(times_ms), "missedSlots": missed,
                      "memoryKiB": [round(min(kib)), round(max(kib))], "growthPercent": round(growth * 100, 2),
                      **held[-1], "wrong": wrong}))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
