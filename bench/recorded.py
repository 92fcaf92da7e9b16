"""What a recorded file says: when its frames are, and which painting of the window they show."""
import json
import subprocess

SQUARE_PX = 16  # read around the middle of a square that tells the phase
PHASES = 8
LEVEL_TOLERANCE = 10  # the levels are 32 apart


def packet_times_ms(file):
    """Presentation times of the video packets, ascending."""
    command = ["ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries", "packet=pts_time", "-of", "csv=p=0",
               str(file)]
    lines = subprocess.run(command, check=True, capture_output=True, text=True).stdout.split()
    return sorted(float(line.strip(",")) * 1000 for line in lines)


def missed_slots(times_ms, slot_ms):
    """Slots without a frame. A slot begins when its frame is due; after a gap the next frame begins them anew."""
    return sum(slots for _, slots in gaps_with_missed_slots(times_ms, slot_ms))


def gaps_with_missed_slots(times_ms, slot_ms):
    """(when the gap ends, slots that are missed in it)

    In an MP4 with audio the first frame lies before its time by what the audio encoder begins with (21 ms of AAC), so
    the slots are those of the second one, unless one is missed before it.
    """
    gaps = []
    due = times_ms[0]
    if len(times_ms) > 1 and times_ms[1] - due < 2 * slot_ms:
        due = times_ms[1] - slot_ms
    for time_ms in times_ms[1:]:
        due += slot_ms
        late_slots = int((time_ms - due) // slot_ms)
        if late_slots > 0:
            gaps.append((time_ms, late_slots))
            due = time_ms
        due = min(due, time_ms)
    return gaps


def missed_late_percent(times_ms, slot_ms, from_s):
    """Of the slots from that time of the recording on. A gap that reaches over it counts whole."""
    begin_ms = times_ms[0] + from_s * 1000
    before = [time_ms for time_ms in times_ms if time_ms <= begin_ms]
    rest = times_ms[len(before) - 1:]
    slots = (rest[-1] - rest[0]) / slot_ms
    if slots < 1:
        raise RuntimeError(f"the recording is not longer than {from_s} s")
    return 100 * missed_slots(rest, slot_ms) / slots


def longest_gap_ms(times_ms):
    return max(later - earlier for earlier, later in zip(times_ms, times_ms[1:]))


def has_audio(file):
    command = ["ffprobe", "-v", "error", "-select_streams", "a", "-count_packets", "-show_entries",
               "stream=nb_read_packets", "-of", "csv=p=0", f"file:{file}"]
    return int(subprocess.run(command, capture_output=True, text=True, check=True).stdout or "0") > 0


def truth(stage, file, *options):
    """What the recorded window's own counter and clock say of the file."""
    command = [stage.binaries / "truth-report", "--window", f"{stage.width}x{stage.height}", "--json", *options,
               str(file)]
    return json.loads(subprocess.run(command, check=True, capture_output=True).stdout)


def phase_of(luma):
    """Which painting a mean luma of 16 to 235 tells; None when it is none."""
    level = (luma - 16) * 255 / 219
    phase = round((level - 16) / 32)
    return phase if 0 <= phase < PHASES and abs(level - 16 - phase * 32) <= LEVEL_TOLERANCE else None


def phases(file, squares):
    """For each frame, what each of the two squares tells."""
    crops = [f"crop={SQUARE_PX}:{SQUARE_PX}:{x - SQUARE_PX // 2}:{y - SQUARE_PX // 2}" for x, y in squares]
    graph = f"extractplanes=y,split[a][b];[a]{crops[0]}[a1];[b]{crops[1]}[b1];[a1][b1]vstack"
    command = ["ffmpeg", "-v", "error", "-nostdin", "-i", str(file), "-filter_complex", f"[0:v:0]{graph}[out]",
               "-map", "[out]", "-vsync", "passthrough", "-f", "rawvideo", "-"]
    pixels = subprocess.run(command, check=True, capture_output=True).stdout
    size = SQUARE_PX * SQUARE_PX
    told = [phase_of(sum(pixels[at:at + size]) / size) for at in range(0, len(pixels), size)]
    return list(zip(told[0::2], told[1::2]))


def repeated_phases(file, squares, frames):
    """Frames that show the same painting as the frame before. Fails where one shows no whole painting."""
    told = phases(file, squares)
    bad = [number for number, (first, second) in enumerate(told) if first is None or first != second]
    if bad or len(told) != frames:
        raise RuntimeError(f"{file.name} has {frames} frames, {len(told)} were decoded, and {len(bad)} do not show one "
                           f"painting of the window: {[(number, told[number]) for number in bad[:5]]}")
    return sum(1 for one, next_one in zip(told, told[1:]) if one == next_one)
