"""The directory of a recording's control socket. Its mode is 0700: nobody else's program can connect."""
from __future__ import annotations

import atexit
import os
import shutil
import tempfile

LONGEST_PARENT = 60  # bytes; a socket's whole path has room for about 100
_made: set[str] = set()


def make() -> str:
    usual = tempfile.gettempdir()
    parent = usual if len(os.fsencode(usual)) <= LONGEST_PARENT else "/tmp"
    directory = tempfile.mkdtemp(prefix=f"orvantis-{os.getpid()}-", dir=parent)
    _made.add(directory)
    status = os.lstat(directory)
    if status.st_mode & 0o777 != 0o700 or status.st_uid != os.geteuid():
        raise PermissionError(f"{directory} is not private")
    return directory


def remove(directory: str) -> None:
    _made.discard(directory)
    shutil.rmtree(directory, ignore_errors=True)


@atexit.register
def _remove_all() -> None:
    for directory in list(_made):
        remove(directory)
