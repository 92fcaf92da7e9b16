"""Records a Chromium window with its audio and with the clicks that are made in the page, and verifies the file.

    python3 record_chromium.py RECORDER OUTPUT

Needs an X display, an audio server, chromium, xdotool and ffmpeg. Prints one line of JSON.
"""
from __future__ import annotations

import asyncio
import dataclasses
import json
import re
import sys
from pathlib import Path
from typing import Any

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

from orvantis_recorder import LogLine, Recording, Result  # noqa: E402
from example.chromium import Chromium  # noqa: E402

TITLE = "Launcher example"
CANVAS = (640, 480)

# The page plays a tone and tells of its clicks: where on the screen, where in the window, and when.
PAGE = f"""<!DOCTYPE html><title>{TITLE}</title>
<style>body {{ margin: 0; background: #dde; }} p {{ animation: move 2s infinite alternate; font: 40px sans-serif; }}
@keyframes move {{ to {{ transform: translateX(300px); }} }}</style><p>{TITLE}
<script>
const audio = new AudioContext();
const tone = audio.createOscillator();
tone.frequency.value = 440;
tone.connect(audio.destination);
tone.start();
addEventListener('mousedown', (event) => report(JSON.stringify({{
    x: event.screenX, y: event.screenY,
    nx: (event.screenX - screenX) / outerWidth, ny: (event.screenY - screenY) / outerHeight,
    time: (performance.timeOrigin + event.timeStamp) / 1000 }})));
</script>"""


async def output_of(*command: str) -> str:
    process = await asyncio.create_subprocess_exec(*command, stdout=asyncio.subprocess.PIPE,
                                                   stderr=asyncio.subprocess.STDOUT)
    output, _ = await process.communicate()
    if process.returncode != 0:
        raise RuntimeError(output.decode())
    return output.decode()


async def verify(result: Result) -> dict[str, float]:
    """Raises RuntimeError when the file is not what was recorded."""
    found = json.loads(await output_of(
        "ffprobe", "-v", "error", "-count_frames", "-show_entries",
        "stream=codec_type,codec_name,width,height,nb_read_frames:format=duration", "-of", "json", result.file))
    video: dict[str, Any] = next((one for one in found["streams"] if one["codec_type"] == "video"), {})
    seconds = float(found["format"]["duration"])
    frames = int(video.get("nb_read_frames", 0))
    volume = re.search(r"max_volume: (-?[\d.]+) dB", await output_of(
        "ffmpeg", "-nostdin", "-i", result.file, "-af", "volumedetect", "-vn", "-f", "null", "-"))
    loudest = float(volume[1]) if volume else -91.0
    checks = {
        "video of the canvas size": (video.get("width"), video.get("height")) == CANVAS,
        "several frames": frames > 10,
        "audio": any(one["codec_type"] == "audio" for one in found["streams"]),
        "audio that can be heard": loudest > -60,
        "as long as the recorder says": abs(seconds * 1000 - result.duration_ms) < 1000,
    }
    missing = [name for name, passed in checks.items() if not passed]
    if missing:
        raise RuntimeError(f"the file lacks: {', '.join(missing)}")
    return {"frames": frames, "seconds": seconds, "loudest": loudest}


def show(line: LogLine) -> None:
    if line.level in ("warning", "critical"):
        print(f"{line.level}: {line.text}", file=sys.stderr)


async def record(recorder: str, output: str) -> dict[str, Any]:
    clicks: list[dict[str, float]] = []
    recordings: list[Recording] = []

    def on_click(click: dict[str, float]) -> None:
        recordings[0].click(**click)
        clicks.append(click)

    async with Chromium(PAGE, CANVAS, on_click) as browser:
        async with await Recording.start(
                recorder=recorder, output=output, canvas=CANVAS, window=await browser.window(TITLE),
                audio=f"app-pid:{browser.pid}", on_log=show) as recording:
            recordings.append(recording)
            await recording.ready()
            await asyncio.sleep(1.5)
            await browser.click(200, 300)
            await asyncio.sleep(1)
            await browser.click(400, 200)
            await asyncio.sleep(1.5)
            result = await recording.stop()
            await recording.exit()
    return {**dataclasses.asdict(result), "clicks": clicks, **await verify(result)}


if __name__ == "__main__":
    print(json.dumps(asyncio.run(record(*sys.argv[1:]))))
