#!/usr/bin/env python3
"""A launcher that is right but for one fault, which launcher-check has to find.

    faultylauncher.py FAULT RECORDER OUTPUT LOGS
"""
import contextlib
import json
import os
import socket
import subprocess
import sys
import tempfile
import time

FAULT, RECORDER, OUTPUT, LOGS = sys.argv[1:]
PATIENCE_S = 3


def has(name):
    return name == FAULT


def arguments():
    words = [LOGS, "qt-window-capture", OUTPUT, "77", "0", "0", "640", "360", "1", ""]
    changes = {"log-directory": (0, "/nowhere"), "capture-command": (1, "qt-capture"), "no-output": (2, ""),
               "hexadecimal-window": (3, "0x4d"), "fractional-origin": (4, "0.5"), "fractional-canvas": (6, "640.5"),
               "scale": (8, "one")}
    if FAULT in changes:
        position, word = changes[FAULT]
        words[position] = word
    return words[:-1] if has("nine-arguments") else words


def receive(line, last):
    received, deadline = b"", time.monotonic() + PATIENCE_S
    while not received.endswith(last):
        line.settimeout(max(deadline - time.monotonic(), 0.001))
        byte = line.recv(1)
        if not byte:
            raise OSError("the recorder has hung up")
        received += byte
    return received


def talk(line):
    clicks = {"three-numbers": b"click|1|2|3\n", "comma": b"click|1,5|2|0.5|0.5\n",
              "seconds": b"click|1|2|0.5|0.5|1700000000.5\n", "unknown-action": b'{"action":"Stop"}\n'}
    if has("stops-at-once"):
        line.sendall(b'{"action":"stop"}\n')
    if not has("takes-readiness-for-granted"):
        with contextlib.suppress(TimeoutError):
            receive(line, b"1")
    line.sendall(clicks.get(FAULT, b"click|1|2|0.5|0.5|1700000000000\n"))
    if not has("stops-at-once"):
        line.sendall(b'{"action":"stop"}' if has("no-line-feed") else b'{"action":"stop"}\n')
    if has("exits-at-once"):
        line.sendall(b'{"action":"exit"}\n')
    if has("one-read"):
        reply = line.recv(4096)
    else:
        reply = receive(line, b"\n")
    if has("exits-at-once"):
        return
    duration = json.loads(reply.removeprefix(b"1"))["duration"]
    line.sendall(b'{"action":"exit"}\n')
    if has("talks-on"):
        line.sendall(b"click|1|2|0.5|0.5|1700000000000\n")
    if duration == 0:
        raise ValueError("nothing was recorded")


def record(directory):
    server = socket.socket(socket.AF_UNIX)
    environment = dict(os.environ, TMPDIR=directory, ORVANTIS_END_WITH_LAUNCHER="1")
    if not has("listens-late"):
        server.bind(directory + "/orvantis-recorder")
        server.listen(1)
    recorder = subprocess.Popen([RECORDER, *arguments()], env=environment, stderr=subprocess.DEVNULL)
    if has("listens-late"):
        time.sleep(0.3)
        server.bind(directory + "/orvantis-recorder")
        server.listen(1)
    server.settimeout(PATIENCE_S)
    try:
        line, _ = server.accept()
        talk(line)
        if has("reports-failure"):
            return 1
        return 0 if recorder.wait(PATIENCE_S) == 0 else 1
    except (OSError, ValueError, subprocess.TimeoutExpired):
        if has("hangs"):
            time.sleep(600)
        return 0 if has("reports-success") else 1
    finally:
        if not has("leaves-recorder"):
            recorder.kill()
            recorder.wait()


directory = tempfile.mkdtemp()
if has("open-directory"):
    os.chmod(directory, 0o755)
code = record(directory)
if not has("leaves-directory"):
    os.unlink(directory + "/orvantis-recorder")
    os.rmdir(directory)
sys.exit(code)
