#!/usr/bin/env python3
"""Reads in the shipped programs how they were hardened (CMakeLists.txt).

Fails when a program is not position independent, lets its tables of addresses be written to after the start, has an
executable stack, or was compiled without stack protector or marks for control-flow protection; and when a file of the
product is compiled without fortified calls of the C library, which show in a program only when it makes one that is
worth a check. Call: hardening_test.py SOURCE_DIRECTORY BUILD_DIRECTORY PROGRAM...
"""
import json
import re
import subprocess
import sys
from pathlib import Path

FOLDERS = ("app", "capture", "conformance", "launcher", "media", "recorder", "support")


def read(*arguments):
    return subprocess.run(arguments, capture_output=True, text=True, check=True).stdout


def landing_places(program, machine):
    """How many instructions in the code are there for control-flow protection alone."""
    sections = read("readelf", "-SW", program)
    offset, size = re.search(r" \.text\s+PROGBITS\s+\w+ (\w+) (\w+)", sections).groups()
    code = Path(program).read_bytes()[int(offset, 16) : int(offset, 16) + int(size, 16)]
    marks = {"X86-64": [b"\xf3\x0f\x1e\xfa"], "AArch64": [b"\x3f\x23\x03\xd5", b"\x5f\x24\x03\xd5"]}[machine]
    return sum(code.count(mark) for mark in marks)


def complaints_about(program):
    header = read("readelf", "-hW", program)
    segments = read("readelf", "-lW", program)
    dynamic = read("readelf", "-dW", program)
    symbols = read("readelf", "--dyn-syms", "-W", program)
    machine = "AArch64" if "AArch64" in header else "X86-64" if "X86-64" in header else None

    if not re.search(r"Type:\s+DYN", header) or not re.search(r"FLAGS_1.*\bPIE\b", dynamic):
        yield "is not position independent (-fPIE, -pie)"
    if "GNU_RELRO" not in segments or not re.search(r"\(FLAGS(_1)?\).*\b(BIND_)?NOW\b", dynamic):
        yield "binds symbols late (-z relro -z now)"
    stack = re.search(r"GNU_STACK\s+\S+\s+\S+\s+\S+\s+\S+\s+\S+\s+(\w+)", segments)
    if not stack or "E" in stack.group(1):
        yield "has an executable stack"
    if "__stack_chk_fail" not in symbols:
        yield "has no stack protector (-fstack-protector-strong)"
    # One a function, and a small program has a few hundred of them.
    if machine and landing_places(program, machine) < 100:
        yield "has no control-flow protection (-fcf-protection, -mbranch-protection)"


def unfortified_files(root, build):
    """Names of product files, and how many there are in all."""
    count, names = 0, []
    for entry in json.loads((build / "compile_commands.json").read_text(encoding="utf-8")):
        path = Path(entry["file"])
        if not path.is_relative_to(root) or path.relative_to(root).parts[0] not in FOLDERS:
            continue
        if re.search(r" -o (tests|bench)/", entry["command"]):
            continue  # compiled once more, for those
        count += 1
        if not re.search(r"-D_FORTIFY_SOURCE=[23]\b", entry["command"]):
            names.append(str(path.relative_to(root)))
    return names, count


def main():
    root, build, programs = Path(sys.argv[1]).resolve(), Path(sys.argv[2]), sys.argv[3:]
    complaints = [f"{Path(program).name} {complaint}" for program in programs
        for complaint in complaints_about(program)]
    names, count = unfortified_files(root, build)
    complaints += [f"{name} is compiled without _FORTIFY_SOURCE" for name in names]
    print(f"{len(programs)} programs, {count} files")
    print("\n".join(complaints))
    return 1 if complaints or not programs or not count else 0


if __name__ == "__main__":
    sys.exit(main())
