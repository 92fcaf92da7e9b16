"""Files that a killed recorder leaves: how much of one is whole, and whether that decodes."""
import collections
import subprocess
import tempfile


def whole_mp4(content):
    """Bytes up to the end of the last whole fragment (moof with its mdat), and whether the header is whole."""
    at, whole, has_header, fragment_open = 0, 0, False, False
    while at + 8 <= len(content):
        size, kind = int.from_bytes(content[at:at + 4], "big"), content[at + 4:at + 8]
        if size == 1 and at + 16 <= len(content):
            size = int.from_bytes(content[at + 8:at + 16], "big")
        if size < 8 or at + size > len(content):
            break
        at += size
        has_header = has_header or kind == b"moov"
        fragment_open = kind == b"moof" or (fragment_open and kind != b"mdat")
        if has_header and not fragment_open:
            whole = at
    return whole, has_header


def vint(content, at, keeps_marker):
    """An EBML number of variable length: (value, bytes). None at the end of the content. All ones: None as value."""
    if at >= len(content) or content[at] == 0:
        return None
    length = 9 - content[at].bit_length()
    if at + length > len(content):
        return None
    value = int.from_bytes(content[at:at + length], "big")
    if not keeps_marker:
        value &= (1 << (7 * length)) - 1
        if value == (1 << (7 * length)) - 1:
            value = None  # not known: up to the next one of its kind
    return value, length


SEGMENT, CLUSTER = 0x18538067, 0x1F43B675


def whole_mkv(content):
    """Bytes up to the end of the last whole element, and whether the header is whole: Matroska without a cluster is
    not opened by anybody. Elements of unknown size (the segment, a cluster that is being written) are entered."""
    at, has_header = 0, False
    while True:
        kind = vint(content, at, True)
        size = vint(content, at + kind[1], False) if kind else None
        if not kind or not size:
            return at, has_header
        body = at + kind[1] + size[1]
        has_header = has_header or kind[0] == CLUSTER
        if kind[0] == SEGMENT or (kind[0] == CLUSTER and (size[0] is None or body + size[0] > len(content))):
            at = body
            continue
        if size[0] is None or body + size[0] > len(content):
            return at, has_header
        at = body + size[0]


def whole(file):
    """Bytes up to the end of what is whole, and whether the header is; without it there is nothing to look at."""
    content = file.read_bytes()
    return whole_mp4(content) if file.suffix == ".mp4" else whole_mkv(content)


def cut_to_whole(file):
    """Leaves out what is torn. Whether the header is there."""
    length, has_header = whole(file)
    if has_header and length < file.stat().st_size:
        with open(file, "r+b") as opened:
            opened.truncate(length)
    return has_header


def packets(file):
    """What ffprobe reads with its ordinary demuxer: (a list of stream, time and size of each packet, why it refuses
    the file or "")."""
    read = subprocess.run(["ffprobe", "-v", "error", "-show_entries", "packet=stream_index,pts,size", "-of",
                           "csv=p=0", str(file)], capture_output=True, text=True)
    return read.stdout.split(), read.stderr.strip() if read.returncode else ""


def refusal(file):
    """Why a file with a header cannot be used as it was left; None when it opens and gives each packet of its whole
    part. That something is said of the rest is no fault."""
    length, _ = whole(file)
    left = file.stat().st_size
    where = f"of {left} bytes, {length} of them whole"
    found, refused = packets(file)
    if refused:
        return f"{where}, it is refused: {refused}"
    with tempfile.NamedTemporaryFile(suffix=file.suffix) as cut:
        cut.write(file.read_bytes()[:length])
        cut.flush()
        expected, refused = packets(cut.name)
    missing = collections.Counter(expected) - collections.Counter(found)
    if refused or missing:
        return f"{where}, it gives {len(found)} packets, {missing.total()} are missing of {len(expected)} {refused}"
    return None


def decoding_errors(file):
    """What ffmpeg says of it, every packet of every stream decoded."""
    return subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", str(file), "-fps_mode", "passthrough",
                           "-enc_time_base", "-1", "-f", "null", "-"],
                          capture_output=True, text=True).stderr.strip()


def frame_times(file):
    """Seconds, in the order of the file."""
    output = subprocess.run(["ffprobe", "-v", "quiet", "-select_streams", "v:0", "-show_entries", "packet=pts_time",
                             "-of", "csv=p=0", str(file)], capture_output=True, text=True).stdout
    return [float(line.strip(",")) for line in output.split() if line.strip(",")]
