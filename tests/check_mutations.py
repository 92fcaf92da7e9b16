#!/usr/bin/env python3
"""Holds tests/mutations.txt, the list of seeded faults, against the sources and the tests that are built.

Fails when a line is not understood, when its file, its program or one of its tests does not exist, or when a part of
its expression changes nothing: such a fault would judge no test. Parts are separated by "; s/"; each gets what those
before it have left, as scripts/mutate does it.
Call: check_mutations.py SOURCE_DIRECTORY TESTS_FILE
TESTS_FILE has a line "PROGRAM TEST" for every test that is built.
"""
import re
import subprocess
import sys
from collections import namedtuple
from pathlib import Path

Fault = namedtuple("Fault", "what file parts program tests")

# One program for all of them: starting it takes longer than what it does. In: what follows, each ended by a zero byte:
# path, number of parts, parts. Out, for each part a line: changed, same, or what Perl says of it.
APPLY = r"""
$/ = "\0";
chomp(my @given = <STDIN>);
while (@given) {
    my ($path, $count) = splice @given, 0, 2;
    open my $file, "<", $path or die "$path: $!";
    local $_ = <$file>;
    for my $part (splice @given, 0, $count) {
        my $before = $_;
        eval "$part; 1" or do { print $@ =~ s/\s+/ /gr, "\n"; next };
        print $_ eq $before ? "same\n" : "changed\n";
    }
}
"""


def fault_in(line):
    """The last two fields are plain; the expression may hold bars."""
    what, file, rest = line.split(" | ", 2)
    expression, program, tests = rest.rsplit(" | ", 2)
    parts = [part.strip() for part in re.split(r";\s(?=\s*s/)", expression)]
    return Fault(what, file.strip(), parts, program.strip(), tests.split())


def applied(root, faults):
    """Of each part of each fault, in their order, what became of it."""
    given = []
    for fault in faults:
        given += [str(root / fault.file), str(len(fault.parts)), *fault.parts]
    perl = subprocess.run(["perl", "-e", APPLY], input="".join(text + "\0" for text in given), capture_output=True,
        text=True, check=True)
    return perl.stdout.splitlines()


def complaints_about(fault, built, programs, sources):
    """A test may be in the sources and left out of this build, as those that need root are."""
    if fault.program not in programs:
        yield f"there is no test program {fault.program}"
    if not fault.tests:
        yield "names no test"
    for test in fault.tests:
        if built.get(test, fault.program) != fault.program:
            yield f"{test} is in {built[test]}, not in {fault.program}"
        elif test not in built and test not in sources:
            yield f"there is no test {test}"


def listed_faults(path):
    """The faults, and what is not understood."""
    faults, complaints = [], []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        try:
            faults.append(fault_in(line))
        except ValueError:
            complaints.append(f"line {number} is not understood: {line}")
    names = [fault.what for fault in faults]
    complaints += [f"{name}: listed twice" for name in sorted({name for name in names if names.count(name) > 1})]
    return faults, complaints


def main():
    root = Path(sys.argv[1])
    lines = Path(sys.argv[2]).read_text(encoding="utf-8").splitlines()
    built = {test: program for program, test in (line.split() for line in lines if line)}
    programs = {program for path in (root / "tests").glob("*/CMakeLists.txt")
        for program in re.findall(r"orvantis_test_program\(NAME (\w+)", path.read_text(encoding="utf-8"))}
    sources = {path.stem for path in (root / "tests").glob("*/*_test.cpp")}

    faults, complaints = listed_faults(root / "tests/mutations.txt")
    for fault in faults:
        complaints += [f"{fault.what}: {text}" for text in complaints_about(fault, built, programs, sources)]
        if not (root / fault.file).is_file():
            complaints.append(f"{fault.what}: there is no file {fault.file}")
    there = [fault for fault in faults if (root / fault.file).is_file()]
    parts = [(fault, part) for fault in there for part in fault.parts]
    for (fault, part), outcome in zip(parts, applied(root, there), strict=True):
        if outcome == "same":
            complaints.append(f"{fault.what}: changes nothing in {fault.file}: {part}")
        elif outcome != "changed":
            complaints.append(f"{fault.what}: {part}: {outcome}")
    print(f"{len(faults)} faults, {len(parts)} expressions, {len(built)} tests built, {len(complaints)} complaints")
    print("\n".join(complaints))
    return 1 if complaints or not faults or not built else 0


if __name__ == "__main__":
    sys.exit(main())
