"""The result of a side-by-side run as Markdown."""
import statistics

import aims

PARTS = [("this", "this recorder"), ("audio", "the same with audio"), ("ffmpeg", "ffmpeg x11grab")]
COLUMNS = [("CPU, ms per s", "processor"), ("X server CPU, ms per s", "x_server"),
           ("Peak memory, MiB", "peak_mib"), ("VmHWM, MiB", "highest_resident_mib"), ("Frames", "frames"),
           ("Missed slots", "missed"), ("Longest gap, ms", "longest_gap_ms"), ("Repeated frames", "repeated"),
           ("Launch to ready, ms", "ready_ms"), ("Stop to reply, ms", "reply_ms"), ("File, KiB per s", "kib_per_s")]


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def median_text(values):
    return "-" if None in values else f"{statistics.median(values):.0f}"


def recordings(results):
    rows = []
    for case, runs in results:
        for part, name in PARTS:
            recorded = [getattr(run, part) for run in runs]
            if None not in recorded:
                rows.append([case.title, name, *(median_text([getattr(row, field) for row in recorded])
                                                 for _, field in COLUMNS)])
        blank = ["-"] * len(COLUMNS)
        if all(run.encoder is not None for run in runs):
            rows.append([case.title, "encoder alone", median_text([run.encoder for run in runs]), *blank[1:]])
        alone = median_text([run.window_alone for run in runs])
        rows.append([case.title, "window alone", "-", alone, *blank[2:]])
    return table(["Case", "What", *(title for title, _ in COLUMNS)], rows)


def ratio(pairs):
    """Of each run's two numbers; nothing where one was not measured."""
    if any(None in pair for pair in pairs):
        return "-"
    values = sorted(one / other for one, other in pairs)
    text = f"{statistics.median(values):.2f}"
    return text if len(values) == 1 else f"{text} ({values[0]:.2f} to {values[-1]:.2f})"


def ratios(results):
    def of(part, field="processor"):
        return lambda run: getattr(getattr(run, part), field) if getattr(run, part) else None

    def encoder(run):
        return run.encoder

    columns = [("CPU, this recorder / ffmpeg", of("this"), of("ffmpeg")),
               ("the same with the X server's", of("this", "with_x_server"), of("ffmpeg", "with_x_server")),
               ("peak memory, this recorder / ffmpeg", of("this", "peak_mib"), of("ffmpeg", "peak_mib")),
               ("CPU, this recorder / encoder alone", of("this"), encoder),
               ("with audio / without", of("audio"), of("this")),
               ("ffmpeg / encoder alone", of("ffmpeg"), encoder)]
    rows = [[case.title, *(ratio([(one(run), other(run)) for run in runs]) for _, one, other in columns)]
            for case, runs in results if all(run.ffmpeg for run in runs)]
    return table(["Case", *(title for title, _, _ in columns)], rows) if rows else ""


def aimed(results):
    rows = aims.rows(results)
    return table(["Case", "What", "Figure", "Aim: at most", "Result"], rows) if rows else ""


def all_of(results):
    return "\n\n".join(text for text in (recordings(results), ratios(results), aimed(results)) if text)
