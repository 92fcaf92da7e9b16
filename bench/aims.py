"""What the recorder is to reach, and whether a run did."""
import dataclasses
import statistics
from typing import Callable

LATE_FROM_S = 4  # when the delay queue has filled for the first time


@dataclasses.dataclass(frozen=True)
class Aim:
    """No more than the limit. figure() takes the runs of the case; a time that is shorter than asked proves less."""
    case: str
    what: str
    limit: float
    unit: str
    figure: Callable
    digits: int = 0
    seconds: int = 0  # of recording that the aim asks for


def processor_ratio(runs):
    return statistics.median(run.this.with_x_server / run.ffmpeg.with_x_server for run in runs)


def memory_ratio(runs):
    return statistics.median(run.this.peak_mib / run.ffmpeg.peak_mib for run in runs)


def memory(runs):
    return statistics.median(run.this.peak_mib for run in runs)


def missed(runs):
    return max(run.this.missed for run in runs)


def missed_late(runs):
    return max(run.this.missed_late_percent for run in runs)


def missed_with_audio(runs):
    return max(run.audio.missed for run in runs)


def reply(runs):
    return statistics.median(run.this.reply_ms for run in runs)


def processor(case, limit):
    return Aim(case, "CPU with the X server's, of ffmpeg's", limit, "", processor_ratio, digits=2)


def no_missed_slot(case):
    return Aim(case, "missed slots", 0, "", missed, seconds=60)


AIMS = [
    processor("1080p-still", 0.35),
    processor("1080p-unchanged", 0.45),
    processor("1080p-quarter", 0.60),
    processor("1080p-all", 0.75),
    Aim("1080p-still", "peak memory, of ffmpeg's", 0.8, "", memory_ratio, digits=2),
    Aim("1080p-unchanged", "peak memory, of ffmpeg's", 0.9, "", memory_ratio, digits=2),
    Aim("1080p-quarter", "peak memory", 260, " MiB", memory),
    Aim("1080p-all", "peak memory", 680, " MiB", memory),
    no_missed_slot("4k-still"),
    no_missed_slot("4k-unchanged"),
    no_missed_slot("4k-quarter"),
    Aim("4k-all", f"missed slots after {LATE_FROM_S} s", 2, " %", missed_late, digits=1, seconds=60),
    Aim("4k-quarter", "peak memory", 1024, " MiB", memory),
    Aim("1080p-all", "stop to reply", 400, " ms", reply),
    Aim("1080p-quarter-10min", "missed slots, with audio", 0, "", missed_with_audio, seconds=600),
]
READY_LIMIT_MS = 200  # 123 of them are the three warm-up captures


def verdict(figure, limit, seconds, seconds_asked):
    """A miss is a miss after any time; a short run that misses nothing proves only itself."""
    if figure > limit:
        return "missed"
    return "met" if seconds >= seconds_asked else f"met in {seconds:g} s of {seconds_asked}"


def rounded_up(figure, limit, digits):
    """As text. A figure above the limit never reads like one that meets it."""
    text = f"{figure:.{digits}f}"
    while figure > limit >= float(text):
        digits += 1
        text = f"{figure:.{digits}f}"
    return text


def ready_row(results):
    """The slowest case counts; the median of its runs. None when this recorder recorded no case without audio."""
    medians = [(statistics.median(run.this.ready_ms for run in runs), case.title)
               for case, runs in results if all(run.this for run in runs)]
    if not medians:
        return None
    slowest, title = max(medians)
    return [f"the slowest: {title}", "launch to readiness", rounded_up(slowest, READY_LIMIT_MS, 0) + " ms",
            f"{READY_LIMIT_MS} ms", verdict(slowest, READY_LIMIT_MS, 0, 0)]


def rows(results):
    """For each aim of a case that was run: case, what, figure, aim, verdict. results: (case, its runs)."""
    table = []
    for case, runs in results:
        seconds = min(run.seconds for run in runs)
        for aim in AIMS:
            if aim.case == case.name:
                figure = aim.figure(runs)
                table.append([case.title, aim.what, rounded_up(figure, aim.limit, aim.digits) + aim.unit,
                              f"{aim.limit:.{aim.digits}f}{aim.unit}",
                              verdict(figure, aim.limit, seconds, aim.seconds)])
    ready = ready_row(results)
    return table + [ready] if ready else table
