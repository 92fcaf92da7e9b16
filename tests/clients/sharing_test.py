#!/usr/bin/env python3
"""What a real Chromium shows of a recording: of the MP4 its audio only, of the WebM copy everything.

    sharing_test.py RECORD-WINDOW
"""
import asyncio
import base64
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "clients" / "python" / "example")]
import desktop  # noqa: E402
from chromium import Chromium  # noqa: E402

RECORD_WINDOW = pathlib.Path(sys.argv[1]).resolve()
LIMIT_S = 120
SECONDS = 4
COLOURS = ((200, 40, 40), (40, 160, 60), (50, 70, 210), (220, 200, 60))  # one for each second
TOLERANCE = 14  # of 255: two lossy encodings

# Plays a file that the page is given in base64, and tells what is shown. A blob is of the page's own origin, so that
# its pixels may be read.
PAGE = """<!DOCTYPE html><title>sharing</title><video id=video></video><script>
async function play(encoded, type) {
    const bytes = Uint8Array.from(atob(encoded), (character) => character.charCodeAt(0));
    const blob = new Blob([bytes], { type });
    const video = document.getElementById('video');
    const samples = [];
    const canvas = document.createElement('canvas');
    const sample = (now, frame) => {
        canvas.width = video.videoWidth;
        canvas.height = video.videoHeight;
        const context = canvas.getContext('2d', { willReadFrequently: true });
        context.drawImage(video, 0, 0);
        const pixel = context.getImageData(canvas.width / 2, canvas.height / 2, 1, 1).data;
        samples.push([frame.mediaTime, pixel[0], pixel[1], pixel[2]]);
        video.requestVideoFrameCallback(sample);
    };
    video.requestVideoFrameCallback(sample);
    const ended = new Promise((resolve) => { video.onended = video.onerror = resolve; });
    video.src = URL.createObjectURL(blob);
    await video.play().catch(() => 0);
    await ended;
    const audio = await new AudioContext().decodeAudioData(bytes.buffer);
    return JSON.stringify({
        samples, error: video.error && video.error.message, width: video.videoWidth, height: video.videoHeight,
        duration: video.duration, audioBytes: video.webkitAudioDecodedByteCount, audioSeconds: audio.duration,
        loudest: audio.getChannelData(0).reduce((most, value) => Math.max(most, Math.abs(value)), 0) });
}
</script>"""


def make_clip(path):
    """As the recorder writes it: MPEG-4 Part 2 and AAC in a fragmented MP4, BT.601 with limited range, and tagged so."""
    inputs = []
    for colour in COLOURS:
        inputs += ["-f", "lavfi", "-i", "color=c=0x{:02x}{:02x}{:02x}:s=320x240:r=24:d=1,format=rgb24".format(*colour)]
    chain = "".join(f"[{i}:v]" for i in range(SECONDS)) + f"concat=n={SECONDS},scale=out_color_matrix=bt601:out_range=tv"
    subprocess.run(
        ["ffmpeg", "-v", "error", "-nostdin", *inputs, "-f", "lavfi", "-i", f"sine=f=440:r=48000:d={SECONDS}",
         "-filter_complex", chain + ",format=yuv420p[v]", "-map", "[v]", "-map", f"{SECONDS}:a", "-c:v", "mpeg4", "-b:v",
         "6M", "-color_primaries", "bt709", "-color_trc", "iec61966-2-1", "-colorspace", "smpte170m", "-color_range",
         "tv", "-c:a", "aac", "-ac", "2", "-movflags", "frag_keyframe+empty_moov+write_colr", path], check=True)


async def play(file, kind):
    """What the page tells of the file."""
    encoded = base64.b64encode(file.read_bytes()).decode()
    async with Chromium(PAGE, (640, 480), lambda _: None) as browser:
        async def ask(expression):
            return await asyncio.wait_for(browser.send(
                "Runtime.evaluate", expression=expression, awaitPromise=True, returnByValue=True), LIMIT_S)

        while (await ask("typeof play"))["result"].get("value") != "function":
            await asyncio.sleep(0.05)  # the page is not there yet
        answer = await ask(f"play('{encoded}', '{kind}')")
    if "exceptionDetails" in answer:
        raise RuntimeError(answer["exceptionDetails"])
    return json.loads(answer["result"]["value"])


class Sharing(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.recording = pathlib.Path(directory.name) / "clip.mp4"
        cls.copy = pathlib.Path(directory.name) / "clip.webm"
        make_clip(cls.recording)
        subprocess.run([RECORD_WINDOW, "--share-only", cls.recording, cls.copy], check=True, timeout=LIMIT_S,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def played(self, file, kind):
        with desktop.private_x_server(800, 600) as (display, _):
            os.environ["DISPLAY"] = display
            return asyncio.run(play(file, kind))

    def test_copy_is_shown_with_its_colours_and_its_audio(self):
        found = self.played(self.copy, "video/webm")
        self.assertIsNone(found["error"])
        self.assertEqual((found["width"], found["height"]), (320, 240))
        self.assertAlmostEqual(found["duration"], SECONDS, delta=0.1)
        self.assertAlmostEqual(found["audioSeconds"], SECONDS, delta=0.1)
        self.assertGreater(found["audioBytes"], 0)
        self.assertGreater(found["loudest"], 0.05)
        self.assertGreater(len(found["samples"]), SECONDS)  # a busy machine leaves many out
        seconds = set()
        for time, *pixel in found["samples"]:
            second = int(time + 0.001)
            seconds.add(second)
            for value, expected in zip(pixel, COLOURS[second]):
                self.assertAlmostEqual(value, expected, delta=TOLERANCE, msg=f"{pixel} at {time} s")
        self.assertEqual(seconds, set(range(SECONDS)))

    def test_recording_itself_shows_nothing_and_is_heard(self):
        found = self.played(self.recording, "video/mp4")
        self.assertEqual(found["samples"], [])
        self.assertEqual((found["width"], found["height"]), (0, 0))
        self.assertAlmostEqual(found["duration"], SECONDS, delta=0.1)
        self.assertGreater(found["audioBytes"], 0)
        self.assertGreater(found["loudest"], 0.05)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], warnings="ignore")
