"""The stage of a side-by-side run: a private X server, the truth window on it, and what the kernel says of a
process."""
import contextlib
import os
import pathlib
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")
START_LIMIT_S = 30


def processor_ms(pid):
    """Processor time of a running process and of the children that it has waited for, milliseconds."""
    stat = pathlib.Path(f"/proc/{pid}/stat").read_text()
    fields = stat.rpartition(")")[2].split()
    return sum(int(field) for field in fields[11:15]) * 1000 / TICKS_PER_SECOND


def with_parent(command):
    """The command, to be ended by the kernel when this process ends, however that happens."""
    return ["setpriv", "--pdeathsig", "TERM", *command]


def end(process):
    process.terminate()
    try:
        process.wait(START_LIMIT_S)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


@contextlib.contextmanager
def private_x_server(width, height):
    """An Xvfb of that size in pixels; gives (display, process id). XAUTHORITY opens it to this process's children."""
    with tempfile.TemporaryDirectory() as directory:
        authority = os.path.join(directory, "authority")
        subprocess.run([ROOT / "scripts" / "x-authority", authority], check=True)
        os.environ["XAUTHORITY"] = authority
        read_end, write_end = os.pipe()
        command = ["Xvfb", "-displayfd", str(write_end), "-auth", authority, "-screen", "0",
                   f"{width}x{height}x24", "-nolisten", "tcp", "-noreset"]
        server = subprocess.Popen(with_parent(command), pass_fds=[write_end], stderr=subprocess.DEVNULL)
        os.close(write_end)
        try:
            with os.fdopen(read_end) as number:
                display = number.readline().strip()
            if not display:
                raise RuntimeError("Xvfb did not start")
            yield f":{display}", server.pid
        finally:
            end(server)


@contextlib.contextmanager
def truth_window_process(binaries, environment, width, height, painting_options):
    """A window that shows which of its paintings it is; gives (its id, its process)."""
    command = [binaries / "truthwindow", "--geometry", f"{width}x{height}+0+0", *painting_options]
    window = subprocess.Popen(with_parent(command), stdout=subprocess.PIPE, text=True, env=environment)
    try:
        window_id = window.stdout.readline().strip()
        if window.stdout.readline().strip() != "ready":
            raise RuntimeError("the truth window did not appear")
        yield int(window_id, 16), window
    finally:
        end(window)


@contextlib.contextmanager
def truth_window(binaries, display, width, height, painting_options):
    """The same; gives its id."""
    environment = {**os.environ, "DISPLAY": display}
    with truth_window_process(binaries, environment, width, height, painting_options) as (window_id, _):
        yield window_id


@contextlib.contextmanager
def private_audio(binaries):
    """An audio server without an audio card, and a player of a tone; gives (environment, process id of the player)."""
    server = subprocess.Popen(with_parent([binaries / "audioserver"]), stdout=subprocess.PIPE, text=True)
    try:
        environment = dict(os.environ)
        for line in server.stdout:
            name, equals, value = line.strip().partition("=")
            if name == "ready":
                break
            environment.pop(name, None)
            if equals:
                environment[name] = value
        else:
            raise RuntimeError("the audio server did not start")
        player = subprocess.Popen(with_parent([binaries / "toneplayer", "--frequency", "440"]), stdout=subprocess.PIPE,
                                  text=True, env=environment)
        try:
            if not any(line.strip() == "playing" for line in player.stdout):
                raise RuntimeError("the player did not play")
            yield environment, player.pid
        finally:
            end(player)
    finally:
        end(server)
