#!/usr/bin/env python3
"""Many short recordings, several at once, while clicks, resizes, audio nodes and stops come in storms.

    churn.py BINARIES [--count N] [--at-once K] [--seed S]

Each recorder has to answer its stop and to end with 0. Afterwards the servers hold what they held before: clients,
resources, descriptors and shared memory of the X server, objects and descriptors of the audio server; no segment or
file of shared memory is left, and no temporary file.
"""
import argparse
import concurrent.futures
import contextlib
import json
import pathlib
import random
import subprocess
import sys
import threading
import time

import brokenfile
import held
import run

SETTLE_S = 20  # what others may take to see that a program has ended


class Books:
    """What is held now, thing by thing."""

    def __init__(self, stage, recorders):
        self.stage = stage
        self.recorders = recorders  # process ids
        self.shared_files = held.shared_files()
        self.begin = self.now()

    def now(self):
        stage = self.stage
        with held.XResources(stage.environment["DISPLAY"]) as x_resources:
            clients, resources = x_resources.counts()
        fresh = held.shared_files() - self.shared_files
        return {"X server's clients": clients,
                "X server's resources": resources,
                "X server's descriptors": held.descriptors(stage.x_server_pid),
                "X server's shared mappings": held.shared_mappings(stage.x_server_pid),
                "System V segments": held.segments(self.recorders | {stage.x_server_pid}),
                "shared memory files": len(fresh - held.in_use(fresh)),
                "audio server's objects": held.audio_objects(stage.environment),
                "audio server's descriptors": held.descriptors(stage.audio_server_pid()),
                "temporary files": len(list(stage.directory.iterdir()))}


@contextlib.contextmanager
def storms(stage, chance):
    """The window is resized and players come and go, until the end of the context."""
    ended = threading.Event()

    def resize():
        while not ended.wait(0.03):
            size = (str(chance.randrange(640, 900)), str(chance.randrange(360, 600)))
            subprocess.run(["xdotool", "windowsize", str(stage.window_id), *size], env=stage.environment,
                           stderr=subprocess.DEVNULL)

    def play():
        while not ended.is_set():
            with subprocess.Popen([stage.binaries / "toneplayer", "--frequency", "440"], env=stage.environment,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as player:
                ended.wait(0.3)
                player.terminate()

    threads = [threading.Thread(target=storm) for storm in (resize, play)]
    for thread in threads:
        thread.start()
    try:
        yield
    finally:
        ended.set()
        for thread in threads:
            thread.join()


def record_one(stage, number, seed, recorders, warms_up=False):
    """What is wrong; None when nothing is. recorders: process ids, to which this one is added. warms_up: what is
    played is recorded, and it is not stopped early."""
    chance = random.Random(f"{seed} {number}")
    audio = "system" if warms_up else chance.choice([stage.app_audio(), "system", ""])
    try:
        with run.Run(stage, f"churn{number}", audio=audio) as recorder:
            recorders.add(recorder.process.pid)
            recorder.connect()
            if warms_up or chance.random() >= 0.3:
                recorder.wait_until_ready()
                time.sleep(run.READY_DELAY_S + chance.uniform(0, 0.3))
            for _ in range(chance.randrange(0, 200)):
                recorder.click(chance.randrange(-50, 900), chance.randrange(-50, 700))
            for _ in range(chance.randrange(1, 5)):
                recorder.ask_to_stop()
            recorder.duration()
            recorder.exit()
            file = recorder.file()
            if not file:
                return f"recording {number}: no file"
            errors = brokenfile.decoding_errors(file)
            recorder.remove_known_files()
            return f"recording {number}: {errors}" if errors else None
    except (OSError, RuntimeError, subprocess.TimeoutExpired) as error:
        return f"recording {number}: {error!r}"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("binaries", type=pathlib.Path)
    parser.add_argument("--count", type=int, default=12)
    parser.add_argument("--at-once", type=int, default=4)
    parser.add_argument("--seed", type=int, default=None, help="of what happens; told in the result")
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(1 << 32)
    recorders = set()
    with run.stage(options.binaries) as stage:
        # An audio server keeps what it makes for the first one that records what is played.
        outcomes = [record_one(stage, 0, seed, recorders, warms_up=True)]
        books = Books(stage, recorders)
        with storms(stage, random.Random(seed)), concurrent.futures.ThreadPoolExecutor(options.at_once) as pool:
            outcomes += pool.map(lambda number: record_one(stage, number, seed, recorders),
                                 range(1, options.count))
        deadline = time.monotonic() + SETTLE_S
        while (after := books.now()) != books.begin and time.monotonic() < deadline:
            time.sleep(0.2)
    wrong = [outcome for outcome in outcomes if outcome]
    wrong += [f"{what}: {before} before, {after[what]} after" for what, before in books.begin.items()
              if before != after[what]]
    print(json.dumps({"recordings": options.count, "seed": seed, "held": after, "wrong": wrong}))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
