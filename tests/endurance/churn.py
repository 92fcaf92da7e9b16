#!/usr/bin/env python3
"""Many short recordings, several at once, while clicks, resizes, audio nodes and stops come in storms.

    churn.py BINARIES [--count N] [--at-once K] [--seed S]

Each recorder has to answer its stop and to end with 0. Afterwards the servers hold what they held before: clients,
descriptors and shared memory of the X server, nodes of the audio server; and no temporary file is left.
"""
import argparse
import concurrent.futures
import contextlib
import json
import os
import pathlib
import random
import subprocess
import sys
import threading
import time

import brokenfile
import run

SETTLE_S = 20  # what others may take to see that a program has ended


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def shared_segments(pid):
    """Memory that the X server shares with its clients, mappings."""
    lines = pathlib.Path(f"/proc/{pid}/maps").read_text().splitlines()
    return sum("/memfd:" in line or "/SYSV" in line for line in lines)


def audio_nodes(stage):
    """Nodes and clients that the audio server lists, but for the one that asks."""
    listed = subprocess.run(["pw-dump"], env=stage.environment, capture_output=True, text=True, check=True).stdout
    kinds = [entry["type"] for entry in json.loads(listed)]
    return sum(kind.endswith((":Node", ":Client", ":Link", ":Port")) for kind in kinds)


def held(stage):
    return {"X server's descriptors": descriptors(stage.x_server_pid),
            "X server's shared segments": shared_segments(stage.x_server_pid),
            "audio server's objects": audio_nodes(stage),
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


def record_one(stage, number, seed):
    """What is wrong; None when nothing is."""
    chance = random.Random(f"{seed} {number}")
    audio = chance.choice([stage.app_audio(), "system", ""])
    try:
        with run.Run(stage, f"churn{number}", audio=audio) as recorder:
            recorder.connect()
            early = chance.random() < 0.3
            if not early:
                recorder.wait_until_ready()
                time.sleep(run.READY_DELAY_S + chance.uniform(0, 0.3))
            for _ in range(chance.randrange(0, 200)):
                recorder.click(chance.randrange(-50, 900), chance.randrange(-50, 700))
            for _ in range(chance.randrange(1, 5)):
                recorder.ask_to_stop()
            recorder.duration()
            recorder.exit()
            file = recorder.file()
            errors = brokenfile.decoding_errors(file) if file else "no file"
            for path in recorder.directory.iterdir():
                path.unlink()
            recorder.directory.rmdir()
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
    with run.stage(options.binaries) as stage:
        before = held(stage)
        with storms(stage, random.Random(seed)), concurrent.futures.ThreadPoolExecutor(options.at_once) as pool:
            outcomes = list(pool.map(lambda number: record_one(stage, number, seed), range(options.count)))
        deadline = time.monotonic() + SETTLE_S
        while (after := held(stage)) != before and time.monotonic() < deadline:
            time.sleep(0.2)
    wrong = [outcome for outcome in outcomes if outcome]
    wrong += [f"{what}: {before[what]} before, {after[what]} after" for what in before if before[what] != after[what]]
    print(json.dumps({"recordings": options.count, "seed": seed, "held": after, "wrong": wrong}))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
