#!/usr/bin/env python3
"""A client's example records a real Chromium with audio, and the clicks that it reports are seen in the video.

    example_test.py BINARIES RECORDER COMMAND...      RECORDER and the output's path are appended to the command
"""
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "bench"))
import desktop  # noqa: E402

BINARIES, RECORDER = map(pathlib.Path, sys.argv[1:3])
COMMAND = sys.argv[3:]
LIMIT_S = 120
CANVAS = (640, 480)
PATCH = 24  # pixels around a click
RATE = 5  # frames a second that are looked at


def red_pixels(file, click):
    """Of the patch around a click, one number for each frame."""
    left, top = (round(fraction * size) - PATCH // 2 for fraction, size in zip((click["nx"], click["ny"]), CANVAS))
    frames = subprocess.run(
        ["ffmpeg", "-v", "error", "-nostdin", "-i", file, "-vf", f"fps={RATE},crop={PATCH}:{PATCH}:{left}:{top}",
         "-f", "rawvideo", "-pix_fmt", "rgb24", "-"], stdout=subprocess.PIPE, check=True).stdout
    size = PATCH * PATCH * 3
    return [sum(red > 150 and green < 130 and blue < 130
                for red, green, blue in zip(*[iter(frames[start:start + size])] * 3))
            for start in range(0, len(frames), size)]


class Example(unittest.TestCase):
    def test_chromium_with_audio_and_clicks(self):
        with tempfile.TemporaryDirectory() as directory, desktop.private_x_server(1024, 768) as (display, _), \
                desktop.private_audio(BINARIES) as (environment, _):
            output = str(pathlib.Path(directory) / "clip.mp4")
            run = subprocess.run([*COMMAND, RECORDER, output], env={**environment, "DISPLAY": display}, text=True,
                                 stdout=subprocess.PIPE, timeout=LIMIT_S, check=False)
            self.assertEqual(run.returncode, 0)
            result = json.loads(run.stdout)
            self.assertEqual(result["file"], output)
            first, second = result["clicks"]
            # The first click is made at least 1.5 s after the readiness, a second after the first frame; a marker
            # lives two seconds.
            between = (second["time"] - first["time"]) / (1000 if first["time"] > 1e11 else 1)
            shown = [red_pixels(output, click) for click in (first, second)]
            self.assertEqual([each[0] for each in shown], [0, 0], shown)
            self.assertTrue(all(max(each) > 20 for each in shown), shown)
            appeared = [next(i for i, count in enumerate(each) if count) / RATE for each in shown]
            self.assertAlmostEqual(appeared[1] - appeared[0], between, delta=0.4)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], warnings="ignore")
