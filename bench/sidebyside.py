"""Records the same window with this recorder and with ffmpeg's x11grab, one after the other on one private X server,
and prints what each took as Markdown tables. What the numbers mean: docs/performance.md."""
import argparse
import contextlib
import dataclasses
import os
import pathlib
import re
import subprocess
import sys
import tempfile

import aims
import desktop
import recorded
import subjects
import tables
from cases import CASES, QUICK_S

DOCUMENT = desktop.ROOT / "docs" / "performance.md"
BEGIN_MARK = "<!-- side by side: begin -->"
END_MARK = "<!-- side by side: end -->"


@dataclasses.dataclass
class Row:
    """What is printed of one recording, and what the aims are about."""
    processor: float  # milliseconds per recorded second
    x_server: float
    peak_mib: float
    highest_resident_mib: float
    frames: int
    missed: int
    missed_late_percent: float
    longest_gap_ms: float
    repeated: int | None  # None: an unchanging window cannot tell
    ready_ms: float
    reply_ms: float
    kib_per_s: float

    @property
    def with_x_server(self):
        return self.processor + self.x_server


@dataclasses.dataclass
class Run:
    """One case, once. None: not recorded."""
    seconds: float
    this: Row | None = None
    audio: Row | None = None  # this recorder, with audio
    ffmpeg: Row | None = None
    encoder: float | None = None  # milliseconds per recorded second
    window_alone: float = 0.0  # of the X server


def repeated_frames(case, stage, file, frames):
    if case.phase_squares():
        return recorded.repeated_phases(file, case.phase_squares(), frames)
    if case.what != "part":
        return None
    report = recorded.truth(stage, file)
    if report["error"] or report["framesDecoded"] != frames:
        raise RuntimeError(f"{file.name} does not show the window in every frame: {report['error']}")
    return report["repeatedFrames"] if report["animated"] else None


def measured(case, stage, recording):
    times = recorded.packet_times_ms(recording.file)
    seconds = (times[-1] - times[0] + recording.slot_ms) / 1000
    return Row(processor=recording.processor_ms / seconds, x_server=recording.x_server_ms_per_s,
               peak_mib=recording.peak_mib, highest_resident_mib=recording.highest_resident_mib, frames=len(times),
               missed=recorded.missed_slots(times, recording.slot_ms),
               missed_late_percent=recorded.missed_late_percent(times, recording.slot_ms, aims.LATE_FROM_S),
               longest_gap_ms=recorded.longest_gap_ms(times),
               repeated=repeated_frames(case, stage, recording.file, len(times)),
               ready_ms=recording.ready_ms, reply_ms=recording.reply_ms,
               kib_per_s=recording.file.stat().st_size / 1024 / seconds)


def run_case(case, binaries, display, x_server_pid, seconds, full):
    with contextlib.ExitStack() as stack:
        directory = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="ov-bench-", dir="/tmp")))
        options = case.painting_options()
        window = stack.enter_context(desktop.truth_window(binaries, display, case.width, case.height, options))
        stage = subjects.Stage(binaries, display, x_server_pid, window, case.canvas_width, case.canvas_height,
                               seconds, is_scaled=case.per_canvas_pixel > 1)
        run = Run(seconds, window_alone=subjects.x_server_alone(stage, QUICK_S / 3))
        if not case.audio_only:
            run.this = measured(case, stage, subjects.record_with_this(stage, directory))
        if full or case.audio_only:
            run.audio = measured(case, stage, subjects.record_with_audio(stage, directory))
        if not case.audio_only:
            # One frame tells the settings.
            floor = subjects.encoder_alone(stage, options, QUICK_S if full else 0)
            run.encoder = floor["cpuMsPerSecond"] if full else None
            run.ffmpeg = measured(case, stage, subjects.record_with_ffmpeg(stage, directory, floor["settings"]))
        return run


def first_match(pattern, text):
    match = re.search(pattern, text)
    return match.group(1) if match else "unknown"


def output_of(command):
    result = subprocess.run(command, capture_output=True, text=True, check=True)
    return result.stdout + result.stderr


def machine(binaries, display, load):
    processor = first_match(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    libraries = subjects.encoder_alone(subjects.Stage(binaries, display, 0, 0, 640, 480, 0), [], 0)
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
    parser.add_argument("--only", action="append", metavar="CASE", choices=[case.name for case in CASES],
                        help="this case; may be repeated: " + ", ".join(case.name for case in CASES))
    parser.add_argument("--long", action="store_true",
                        help="as long as the aims ask for: 60 s for most of 3840x2160, and a case of 10 minutes")
    parser.add_argument("--seconds", type=float, help=f"length of each recording, above 5 (default: {QUICK_S})")
    parser.add_argument("--full", action="store_true", help="also this recorder with audio, and the encoder alone")
    parser.add_argument("--repeat", type=int, default=1, help="runs of each case; medians are printed (default: 1)")
    parser.add_argument("--write", action="store_true", help=f"also put the tables into {DOCUMENT.name}")
    parser.add_argument("--binaries", type=pathlib.Path, default=desktop.ROOT / "build" / "release" / "bin",
                        help="directory of the programs to measure (default: build/release/bin)")
    options = parser.parse_args()
    if options.seconds is not None and options.seconds <= aims.LATE_FROM_S + 1:
        parser.error("--seconds: the delay queue takes the first of them")
    return options


def chosen(options):
    """The cases, with the seconds to record of each."""
    cases = [case for case in CASES
             if (case.name in options.only if options.only else options.long or not case.audio_only)]
    return [(case, options.seconds or (case.long_s if options.long else QUICK_S)) for case in cases]


def run_all(options, display, x_server_pid, binaries):
    results = []
    for case, seconds in chosen(options):
        runs = []
        for number in range(options.repeat):
            print(f"{case.title}, {seconds:g} s, run {number + 1} of {options.repeat}", file=sys.stderr)
            runs.append(run_case(case, binaries, display, x_server_pid, seconds, options.full))
        results.append((case, runs))
    return results


def main():
    options = arguments()
    binaries = options.binaries.resolve()
    load = os.getloadavg()[0]
    with desktop.private_x_server(3840, 2304) as (display, x_server_pid):
        results = run_all(options, display, x_server_pid, binaries)
        description = machine(binaries, display, load)
    command = " ".join(["scripts/bench", *sys.argv[1:]])
    text = "\n\n".join([f"Command: `{command}`", description, tables.all_of(results)])
    print(text)
    if options.write:
        write(text)


if __name__ == "__main__":
    main()
