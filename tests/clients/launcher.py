"""The client for Python as launcher-check wants it: one short recording, and an exit code that tells.

    launcher.py RECORDER OUTPUT LOGS
"""
import asyncio
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "clients" / "python"))

from orvantis_recorder import Limits, Recording, RecorderError  # noqa: E402

# Longer than the fake is slow, otherwise short.
LIMITS = Limits(connect=4, ready=6, duration=2, exit=1.5, terminate=1)


async def record(recorder, output, logs):
    async with await Recording.start(recorder=recorder, output=output, log_directory=logs, window=77,
                                     limits=LIMITS) as recording:
        try:
            await recording.ready()
        except RecorderError as error:
            if error.code != "NO_READINESS":
                raise
        recording.click(10, 20, 0.5, 0.5)
        result = await recording.stop()
        await recording.exit()
        return 0 if result.was_ready else 1


try:
    sys.exit(asyncio.run(record(*sys.argv[1:])))
except RecorderError as error:
    print(error.code, error, file=sys.stderr)
    sys.exit(1)
