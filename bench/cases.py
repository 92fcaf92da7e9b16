"""The cases of a side-by-side run."""
import dataclasses

PRESENTED_PER_SECOND = 30
PART_PER_SECOND = 60  # above twice the frame rate, so that no two frames need be alike
QUICK_S = 10  # of recording: the delay queue is full after three


def even(size):
    """As the recorder makes its canvas."""
    return size + size % 2


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    width: int  # of the window, pixels
    height: int
    what: str  # "still", "unchanged", "quarter", "all", "part"
    long_s: int = QUICK_S  # to record when all the time is taken that the aims ask for
    audio_only: bool = False  # recorded by this recorder only, with audio, and only on request
    per_canvas_pixel: int = 1  # pixels of the window, across and down

    @property
    def title(self):
        titles = {"still": "still", "unchanged": "presented unchanged", "quarter": "a quarter changes",
                  "all": "all changes", "part": "a part changes"}
        canvas = "" if self.per_canvas_pixel == 1 else f" on {self.canvas_width}x{self.canvas_height}"
        long = ", 10 minutes" if self.audio_only else ""
        return f"{self.width}x{self.height}{canvas}, {titles[self.what]}{long}"

    @property
    def canvas_width(self):
        return even(self.width // self.per_canvas_pixel)

    @property
    def canvas_height(self):
        return even(self.height // self.per_canvas_pixel)

    @property
    def presents(self):
        return self.what in ("unchanged", "quarter", "all")

    @property
    def paintings_per_second(self):
        if self.presents:
            return PRESENTED_PER_SECOND
        return PART_PER_SECOND if self.what == "part" else 0

    def painting_options(self):
        """For the truth window, and for what encodes the same frames."""
        rate = ["--fps", str(self.paintings_per_second)]
        return rate + ["--present", self.what] if self.presents else rate

    def phase_squares(self):
        """Centres of the two squares that tell the phase, canvas pixels; none when nothing changes by phases."""
        changing = {"quarter": self.height // 4, "all": self.height}.get(self.what)
        if changing is None:
            return []
        half = changing // 4 // 2
        centres = [(half, half), (self.width - half, changing - half)]
        return [(x // self.per_canvas_pixel, y // self.per_canvas_pixel) for x, y in centres]


def sizes(what, long_s=QUICK_S, long_4k_s=60):
    return [Case(f"1080p-{what}", 1920, 1080, what, long_s), Case(f"4k-{what}", 3840, 2160, what, long_4k_s)]


CASES = sorted([*sizes("still"), *sizes("unchanged"), *sizes("quarter"), *sizes("all"),
                *sizes("part", long_4k_s=QUICK_S)], key=lambda case: case.width)
CASES += [Case(f"2x-{what}", 3456, 2234, what, per_canvas_pixel=2) for what in ("still", "quarter", "all")]
CASES.append(Case("1080p-quarter-10min", 1920, 1080, "quarter", 600, audio_only=True))
