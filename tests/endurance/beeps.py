"""How far the beeps of a window lie from its flashes in a recording of both."""
import csv
import subprocess
import tempfile

import run

import recorded  # of the bench

MOST_OFFSET_MS = 20  # of a beep
MOST_DRIFT_MS = 1  # a minute
FARTHEST_S = 1.5  # between two beeps of the window; they are 0.6 to 1.4 s apart
NEAR_S = 0.3  # how well the launcher knows when the recording began; more than a beep and its way through the encoder
ENOUGH_MINUTES = 3  # a few milliseconds come and go: only a recording of minutes tells a drift
PIECE_S = 600  # what is measured at once: its audio lies in memory


def pieces(file, directory):
    """(path, begin, end) of parts of the file, seconds; times in them are those of the whole."""
    listed = f"{directory}/list.csv"
    subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", str(file), "-map", "0", "-c", "copy", "-f", "segment",
                    "-segment_time", str(PIECE_S), "-reset_timestamps", "0", "-segment_list", listed,
                    f"{directory}/%03d.mkv"], check=True)
    with open(listed, newline="", encoding="utf-8") as lines:
        return [(f"{directory}/{name}", float(begin), float(end)) for name, begin, end in csv.reader(lines)]


def longest_silence(before_s, after_s, allowed):
    """Between two beeps: as long as the times in between that may be silent, and from each to the beep beyond."""
    return FARTHEST_S + sum(end - begin + FARTHEST_S for begin, end in allowed if begin < after_s and end > before_s)


class Heard:
    def __init__(self, stage, recorder, file):
        origin_s = recorder.ready_at + run.READY_DELAY_S
        # Where a beep may be missing or mutilated, seconds of the recording: what the window left out itself, and
        # where the pieces join.
        self.left_out = [(begin - origin_s - NEAR_S, end - origin_s + NEAR_S) for begin, end in stage.player_gaps]
        self.beeps = []  # (second, milliseconds after its flash)
        self.frames_drifts = []  # (milliseconds a minute, minutes) of each piece
        with tempfile.TemporaryDirectory(dir=recorder.directory) as directory:
            for path, begin, end in pieces(file, directory):
                if begin > 0:
                    self.left_out.append((begin - NEAR_S, begin + NEAR_S))
                self.measure(recorded.truth(stage, path, "--beeps"), (end - begin) / 60)
        self.beeps = [(at, offset) for at, offset in self.beeps if not self.is_left_out(at, at)]

    def measure(self, truth, minutes):
        if truth["error"] or not truth["audio"]:
            why = truth["error"] or "the window was painted too seldom"
            raise RuntimeError(f"nothing can be measured: {why}")
        self.beeps += [(beep["fileMs"] / 1000, beep["offsetMs"]) for beep in truth["audio"]["beeps"]]
        self.frames_drifts.append((truth["timing"]["driftMsPerMinute"], minutes))

    def is_left_out(self, begin_s, end_s):
        return any(begin < end_s and end > begin_s for begin, end in self.left_out)

    def misplaced(self):
        return [f"beep at {at:.2f} s is off by {offset:.1f} ms" for at, offset in self.beeps
                if abs(offset) > MOST_OFFSET_MS]

    def silences(self, end_s, besides=None):
        """Where beeps are missing between the recording's begin and its end. besides: (begin, end) of a time in which
        they may be missing; None when there is none."""
        allowed = self.left_out + ([besides] if besides else [])
        at = [0.0, *(at for at, _ in self.beeps), end_s]
        return [f"no beep from {before:.2f} to {after:.2f} s" for before, after in zip(at, at[1:])
                if after - before > longest_silence(before, after, allowed)]

    def frames_drift(self):
        """Of the frames from the window's clock, milliseconds a minute: the worst of the pieces that are long enough,
        or of a recording that is shorter."""
        enough = [drift for drift, minutes in self.frames_drifts if minutes >= ENOUGH_MINUTES]
        return max(enough or [drift for drift, _ in self.frames_drifts], key=abs)

    def beeps_drift(self):
        """Of the audio from the frames, over the whole recording, milliseconds a minute."""
        mean_at = sum(at for at, _ in self.beeps) / len(self.beeps)
        squares = sum((at - mean_at) ** 2 for at, _ in self.beeps)
        products = sum((at - mean_at) * offset for at, offset in self.beeps)
        return products / squares * 60 if squares else 0.0
