"""The memory that a recorder holds, looked at from outside while it runs."""
import os
import pathlib
import threading
import time

# The kernel walks all pages of the process for a look: on this process's account, but on one of the same processors.
INTERVAL_S = 0.5
INTERVAL_IN_LOOKS = 50  # at least so many times as long as a look takes


def kib_values(text):
    """Lines "Name:  number kB" as a dictionary."""
    values = {}
    for line in text.splitlines():
        name, _, rest = line.partition(":")
        words = rest.split()
        if len(words) == 2 and words[1] == "kB" and words[0].isdigit():
            values[name] = int(words[0])
    return values


def shared_files_kib(pid):
    """What the process's open memory files hold, mapped or not."""
    files = {}
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        try:
            if os.readlink(entry).startswith("/memfd:"):
                status = entry.stat()
                files[status.st_dev, status.st_ino] = status.st_blocks / 2  # blocks of 512 bytes
        except FileNotFoundError:
            pass  # closed meanwhile
    return sum(files.values())


def held_kib(rollup, status, files_kib):
    """rollup, status: texts of smaps_rollup and status. A page of shared memory that is mapped at several addresses
    counts once; one that is shared with other processes counts in parts. The open files say more where not all of it
    is mapped. Libraries count whole: what else runs on the machine shares them, and would decide."""
    values = kib_values(rollup)
    shared = max(values["Pss_Shmem"], files_kib)
    return values["Pss_Anon"] + shared + kib_values(status)["RssFile"]


def highest_resident_mib(pid):
    """The kernel's own record of the most that was resident at once; it counts each mapping of a page."""
    return kib_values(pathlib.Path(f"/proc/{pid}/status").read_text())["VmHWM"] / 1024


class PeakMemory:
    """The most that a running process held when it was looked at. As a context: looks now and then, on a thread."""

    def __init__(self, pid):
        self.pid = pid
        self.peak_kib = 0.0
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.look_until_ended)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()

    def look(self):
        try:
            process = pathlib.Path(f"/proc/{self.pid}")
            rollup = (process / "smaps_rollup").read_text()
            status = (process / "status").read_text()
            self.peak_kib = max(self.peak_kib, held_kib(rollup, status, shared_files_kib(self.pid)))
        except (ProcessLookupError, FileNotFoundError, KeyError):
            pass  # it has ended, or is about to

    def look_until_ended(self):
        pause_s = INTERVAL_S
        while not self.ended.wait(pause_s):
            began = time.monotonic()
            self.look()
            pause_s = max(INTERVAL_S, INTERVAL_IN_LOOKS * (time.monotonic() - began))

    def mib(self):
        if self.peak_kib == 0:
            raise RuntimeError(f"the memory of process {self.pid} was never seen")
        return self.peak_kib / 1024
