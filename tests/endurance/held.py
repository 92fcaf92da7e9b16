"""What an X server, an audio server and the kernel hold because of programs that they serve."""
import ctypes
import ctypes.util
import json
import os
import pathlib
import subprocess


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def shared_mappings(pid):
    """Memory that a process shares with others, mappings."""
    lines = pathlib.Path(f"/proc/{pid}/maps").read_text().splitlines()
    return sum("/memfd:" in line or "/SYSV" in line for line in lines)


def segments(pids):
    """System V shared memory that these processes made, or were the last to attach or detach."""
    name, *lines = pathlib.Path("/proc/sysvipc/shm").read_text().splitlines()
    columns = name.split()
    rows = [dict(zip(columns, map(int, line.split()))) for line in lines]
    return sum(row["cpid"] in pids or row["lpid"] in pids for row in rows)


def shared_files():
    """Names in the machine's folder of shared memory: what lies there outlives a process that forgets it."""
    return {entry.name for entry in pathlib.Path("/dev/shm").iterdir()}


def in_use(names):
    """Those of the names that a living process maps or holds open: they are somebody else's work."""
    used = set()
    for process in pathlib.Path("/proc").iterdir():
        if not process.name.isdigit():
            continue
        try:
            held = (process / "maps").read_text() + "".join(
                os.readlink(entry) + "\n" for entry in (process / "fd").iterdir())
        except OSError:
            continue  # it has ended
        used |= {name for name in names if f"/dev/shm/{name}\n" in held}
    return used


def audio_objects(environment):
    """Nodes, clients, links and ports that the audio server lists, but for the one that asks."""
    listed = subprocess.run(["pw-dump"], env=environment, capture_output=True, text=True, check=True).stdout
    kinds = [entry["type"] for entry in json.loads(listed)]
    return sum(kind.endswith((":Node", ":Client", ":Link", ":Port")) for kind in kinds)


class _Cookie(ctypes.Structure):
    _fields_ = [("sequence", ctypes.c_uint)]


class _Client(ctypes.Structure):
    _fields_ = [("base", ctypes.c_uint32), ("mask", ctypes.c_uint32)]


class _Type(ctypes.Structure):
    _fields_ = [("atom", ctypes.c_uint32), ("count", ctypes.c_uint32)]


def _library(name):
    return ctypes.CDLL(ctypes.util.find_library(name))


class XResources:
    """A client of the X server that asks what all of them have there (its Resource extension)."""

    def __init__(self, display):
        self.xcb, self.res, self.c = _library("xcb"), _library("xcb-res"), _library("c")
        self.xcb.xcb_connect.restype = ctypes.c_void_p
        self.xcb.xcb_disconnect.argtypes = [ctypes.c_void_p]
        self.c.free.argtypes = [ctypes.c_void_p]
        self.connection = ctypes.c_void_p(self.xcb.xcb_connect(display.encode(), None))
        if self.xcb.xcb_connection_has_error(self.connection):
            raise RuntimeError(f"no connection to {display}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.xcb.xcb_disconnect(self.connection)

    def _ask(self, question, kind, items, *arguments):
        """The items of an answer, as tuples of their fields."""
        ask = getattr(self.res, f"xcb_res_{question}")
        ask.restype = _Cookie
        take = getattr(self.res, f"xcb_res_{question}_reply")
        take.restype, take.argtypes = ctypes.c_void_p, [ctypes.c_void_p, _Cookie, ctypes.c_void_p]
        begin = getattr(self.res, f"xcb_res_{question}_{items}")
        begin.restype, begin.argtypes = ctypes.POINTER(kind), [ctypes.c_void_p]
        count = getattr(self.res, f"xcb_res_{question}_{items}_length")
        count.argtypes = [ctypes.c_void_p]
        reply = take(self.connection, ask(self.connection, *map(ctypes.c_uint32, arguments)), None)
        if not reply:
            return []  # that client has gone meanwhile
        rows = begin(reply)
        found = [tuple(getattr(rows[n], field) for field, _ in kind._fields_) for n in range(count(reply))]
        self.c.free(reply)
        return found

    def counts(self):
        """(clients, resources of all of them)"""
        clients = self._ask("query_clients", _Client, "clients")
        return len(clients), sum(count for base, _ in clients
                                 for _, count in self._ask("query_client_resources", _Type, "types", base))
