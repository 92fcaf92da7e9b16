"""Records the same window with this recorder and with ffmpeg's x11grab, one after the other on one private X server,
and prints what each took as Markdown tables. What the numbers mean: docs/performance.md."""
import argparse
import contextlib
import dataclasses
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

import desktop
import subjects

DOCUMENT = desktop.ROOT / "docs" / "performance.md"
BEGIN_MARK = "<!-- side by side: begin -->"
END_MARK = "<!-- side by side: end -->"
REPAINTS_PER_SECOND = 60  # of an animated window; above twice the frame rate, so that no two frames need be alike


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    width: int  # of window and canvas, pixels
    height: int
    repaints_per_second: int

    @property
    def title(self):
        kind = "animated" if self.repaints_per_second else "static"
        return f"{self.width}x{self.height}, {kind}"


CASES = [
    Case("1080p-static", 1920, 1080, 0),
    Case("1080p-animated", 1920, 1080, REPAINTS_PER_SECOND),
    Case("4k-static", 3840, 2160, 0),
    Case("4k-animated", 3840, 2160, REPAINTS_PER_SECOND),
]


@dataclasses.dataclass
class Row:
    """What is printed of one recording, or the median of several."""
    processor: float  # milliseconds per recorded second
    x_server: float
    peak_mib: float
    frames: float
    missed: float
    longest_gap_ms: float
    repeated: float | None  # None: an unchanging window cannot tell
    ready_ms: float
    reply_ms: float
    kib_per_s: float


@dataclasses.dataclass
class Run:
    """One case, once."""
    this: Row
    audio: Row  # this recorder, with audio
    ffmpeg: Row
    encoder: float  # milliseconds per recorded second
    window_alone: float  # of the X server


def measured(case, stage, recording):
    times = subjects.packet_times_ms(recording.file)
    seconds = (times[-1] - times[0] + recording.slot_ms) / 1000
    repeated = None
    if case.repaints_per_second:
        report = subjects.truth(stage, recording.file)
        if report["error"] or report["framesDecoded"] != len(times):
            raise RuntimeError(f"{recording.file.name} does not show the window in every frame: {report['error']}")
        repeated = report["repeatedFrames"] if report["animated"] else None
    return Row(processor=recording.processor_ms / seconds, x_server=recording.x_server_ms_per_s,
               peak_mib=recording.peak_mib, frames=len(times),
               missed=subjects.missed_slots(times, recording.slot_ms),
               longest_gap_ms=subjects.longest_gap_ms(times), repeated=repeated,
               ready_ms=recording.ready_ms, reply_ms=recording.reply_ms,
               kib_per_s=recording.file.stat().st_size / 1024 / seconds)


def run_case(case, binaries, display, x_server_pid, seconds):
    with contextlib.ExitStack() as stack:
        directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="ov-bench-", dir="/tmp")))
        window = stack.enter_context(
            desktop.truth_window(binaries, display, case.width, case.height, case.repaints_per_second))
        stage = subjects.Stage(binaries, display, x_server_pid, window, case.width, case.height, seconds)
        alone = subjects.x_server_alone(stage, seconds / 3)
        floor = subjects.encoder_alone(stage, case.repaints_per_second)
        this = subjects.record_with_this(stage, directory)
        audio = subjects.record_with_audio(stage, directory)
        ffmpeg = subjects.record_with_ffmpeg(stage, directory, floor["settings"])
        return Run(measured(case, stage, this), measured(case, stage, audio), measured(case, stage, ffmpeg),
                   floor["cpuMsPerSecond"], alone)


def median_row(rows):
    def middle(name):
        values = [getattr(row, name) for row in rows]
        return None if None in values else statistics.median(values)
    return Row(**{field.name: middle(field.name) for field in dataclasses.fields(Row)})


def whole(value):
    return "-" if value is None else f"{value:.0f}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def recordings_table(results):
    rows = []
    for case, runs in results:
        for name, part in (("this recorder", "this"), ("the same with audio", "audio"), ("ffmpeg x11grab", "ffmpeg")):
            row = median_row([getattr(run, part) for run in runs])
            rows.append([case.title, name, *(whole(getattr(row, field.name)) for field in dataclasses.fields(Row))])
        encoder = statistics.median(run.encoder for run in runs)
        alone = statistics.median(run.window_alone for run in runs)
        rows.append([case.title, "encoder alone", whole(encoder)] + ["-"] * 9)
        rows.append([case.title, "window alone", "-", whole(alone)] + ["-"] * 8)
    return table(["Case", "What", "CPU, ms per s", "X server CPU, ms per s", "Peak memory, MiB", "Frames",
                  "Missed slots", "Longest gap, ms", "Repeated frames", "Launch to ready, ms", "Stop to reply, ms", "File, KiB per s"], rows)


def ratio(values):
    values = sorted(values)
    text = f"{statistics.median(values):.2f}"
    return text if len(values) == 1 else f"{text} ({values[0]:.2f} to {values[-1]:.2f})"


def ratios_table(results):
    rows = []
    for case, runs in results:
        rows.append([
            case.title,
            ratio([run.this.processor / run.ffmpeg.processor for run in runs]),
            ratio([(run.this.processor + run.this.x_server) / (run.ffmpeg.processor + run.ffmpeg.x_server)
                   for run in runs]),
            ratio([run.this.processor / run.encoder for run in runs]),
            ratio([run.audio.processor / run.this.processor for run in runs]),
            ratio([run.ffmpeg.processor / run.encoder for run in runs]),
        ])
    return table(["Case", "CPU, this recorder / ffmpeg", "the same with the X server's", "this recorder / encoder alone",
                  "with audio / without", "ffmpeg / encoder alone"], rows)


def first_match(pattern, text):
    match = re.search(pattern, text)
    return match.group(1) if match else "unknown"


def output_of(command):
    result = subprocess.run(command, capture_output=True, text=True, check=True)
    return result.stdout + result.stderr


def machine(binaries, display, load):
    processor = first_match(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    libraries = subjects.encoder_alone(subjects.Stage(binaries, display, 0, 0, 640, 480, 0.1), 0)
    ffmpeg = first_match(r"ffmpeg version (\S+)", output_of(["ffmpeg", "-version"]))
    x_server = first_match(r"X.Org version: (\S+)", output_of(["xdpyinfo", "-display", display]))
    return (f"Machine: {os.cpu_count()} processors ({processor}), {os.uname().sysname} {os.uname().release}; "
            f"Qt {libraries['qtVersion']}, FFmpeg libraries {libraries['ffmpegVersion']}, ffmpeg {ffmpeg}, "
            f"X server {x_server}. Load average when the run began: {load:.1f}.")


def write(text):
    document = DOCUMENT.read_text()
    before, begin, rest = document.partition(BEGIN_MARK)
    _, end, after = rest.partition(END_MARK)
    if not begin or not end:
        raise RuntimeError(f"{DOCUMENT} has no place for the tables")
    DOCUMENT.write_text(f"{before}{begin}\n\n{text}\n\n{end}{after}")


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__)
    parser.add_argument("--seconds", type=float, default=10, help="length of each recording (default: 10)")
    parser.add_argument("--repeat", type=int, default=1, help="runs of each case; medians are printed (default: 1)")
    parser.add_argument("--case", action="append", choices=[case.name for case in CASES],
                        help="only this case; may be repeated")
    parser.add_argument("--write", action="store_true", help=f"also put the tables into {DOCUMENT.name}")
    parser.add_argument("--binaries", type=pathlib.Path, default=desktop.ROOT / "build" / "release" / "bin",
                        help="directory of the programs to measure (default: build/release/bin)")
    return parser.parse_args()


def main():
    options = arguments()
    binaries = options.binaries.resolve()
    cases = [case for case in CASES if not options.case or case.name in options.case]
    load = os.getloadavg()[0]
    results = []
    with desktop.private_x_server(3840, 2160) as (display, x_server_pid):
        for case in cases:
            runs = []
            for number in range(options.repeat):
                print(f"{case.title}, run {number + 1} of {options.repeat}", file=sys.stderr)
                runs.append(run_case(case, binaries, display, x_server_pid, options.seconds))
            results.append((case, runs))
        description = machine(binaries, display, load)
    command = " ".join(["scripts/bench", *sys.argv[1:]])
    text = "\n\n".join([f"Command: `{command}`", description, recordings_table(results), ratios_table(results)])
    print(text)
    if options.write:
        write(text)


if __name__ == "__main__":
    main()
