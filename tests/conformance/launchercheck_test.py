#!/usr/bin/env python3
"""launcher-check finds every fault that faultylauncher.py can have, and none in a launcher without one.

    launchercheck_test.py LAUNCHER_CHECK
"""
import concurrent.futures
import pathlib
import re
import subprocess
import sys
import unittest

CHECK = sys.argv[1]
LAUNCHER = pathlib.Path(__file__).with_name("faultylauncher.py")

# Fault, case in which it shows, verdict, start of the line's check and sentence.
FAULTS = [
    ("nine-arguments", "normal", "FAILED", "arguments the recorder takes ten arguments and got 9"),
    ("log-directory", "normal", "FAILED", 'arguments argument 1 is "/nowhere"'),
    ("capture-command", "normal", "FAILED", 'arguments argument 2 is "qt-capture"'),
    ("no-output", "normal", "FAILED", 'arguments argument 3 is ""'),
    ("hexadecimal-window", "normal", "FAILED", 'arguments argument 4 is "0x4d"'),
    ("fractional-origin", "normal", "FAILED", 'arguments argument 5 is "0.5"'),
    ("fractional-canvas", "normal", "FAILED", 'arguments argument 7 is "640.5"'),
    ("scale", "normal", "FAILED", 'arguments argument 9 is "one"'),
    ("three-numbers", "normal", "FAILED", 'lines "click|1|2|3" has 3 numbers'),
    ("comma", "normal", "FAILED", 'lines in "click|1,5|2|0.5|0.5", "1,5" counts as 0'),
    ("seconds", "normal", "FAILED", 'lines in "click|1|2|0.5|0.5|1700000000.5", "1700000000.5" counts as 0'),
    ("unknown-action", "normal", "FAILED", 'lines "{"action":"Stop"}" is no line of the protocol'),
    ("stops-at-once", "slow-start", "FAILED", 'order "stop" came before the readiness byte'),
    ("takes-readiness-for-granted", "slow-start", "FAILED", 'order "stop" came before the readiness byte'),
    ("no-line-feed", "normal", "FAILED", 'stop no {"action":"stop"} came'),
    ("exits-at-once", "pieces", "FAILED", 'order it went on talking between "stop" and the duration'),
    ("one-read", "pieces", "FAILED", "result the launcher reports a failure, and there was none"),
    ("talks-on", "no-end", "FAILED", 'order it went on talking after "exit"'),
    ("listens-late", "normal", "note", "listening attempt "),
    ("open-directory", "normal", "note", "private the socket's directory has mode 0755"),
    ("leaves-directory", "normal", "note", "leftovers left in TMPDIR: tmp"),
    ("reports-failure", "normal", "FAILED", "result the launcher reports a failure"),
    ("reports-success", "crash-at-start", "FAILED", "result the launcher ends with 0"),
    ("hangs", "crash", "FAILED", "end the launcher did not end within the limit"),
    ("leaves-recorder", "no-connection", "FAILED", "recorder the launcher ended and left its recorder behind"),
]


def check(fault, case, *options):
    """Exit code, and the lines of the table with single blanks."""
    result = subprocess.run([CHECK, "--limit", "8", "--cases", case, *options, "--",
                             sys.executable, LAUNCHER, fault, "{recorder}", "{output}", "{logs}"],
                            stdout=subprocess.PIPE, text=True, check=False)
    return result.returncode, [re.sub(" +", " ", line) for line in result.stdout.splitlines()]


class LauncherCheck(unittest.TestCase):
    def test_launcher_without_a_fault(self):
        code, lines = check("none", "normal,slow-start,pieces,no-output,no-capture,crash-at-start,crash,early-end,"
                            "wrong-answer,no-connection,hang-up,no-answer,stubborn,launcher-dies", "--jobs", "14")
        self.assertEqual(code, 0, lines)
        self.assertRegex(lines[-1], "^[1-9][0-9]+ passed, 0 failed, 0 notes$")

    def test_every_fault(self):
        with concurrent.futures.ThreadPoolExecutor(8) as pool:  # they mostly wait
            results = pool.map(lambda row: check(row[0], row[1]), FAULTS)
        for (fault, case, verdict, finding), (code, lines) in zip(FAULTS, results):
            with self.subTest(fault=fault, case=case):
                self.assertTrue(any(line.startswith(f"{verdict} {case} {finding}") for line in lines), lines)
                self.assertEqual(code, 1 if verdict == "FAILED" else 0, lines)

    def test_launcher_that_cannot_be_started(self):
        result = subprocess.run([CHECK, "--cases", "normal", "--", "/nowhere/launcher", "{recorder}"],
                                stdout=subprocess.PIPE, text=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("it cannot be started", result.stdout)

    def test_launcher_that_starts_nothing(self):
        result = subprocess.run([CHECK, "--cases", "normal", "--", "true", "{recorder}"],
                                stdout=subprocess.PIPE, text=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("it never started the recorder", result.stdout)

    def test_bad_usage(self):
        for arguments in ([], ["--", "true"], ["--limit", "x", "--", "true", "{recorder}"],
                          ["--jobs", "0", "--", "true", "{recorder}"],
                          ["--cases", "none", "--", "true", "{recorder}"]):
            with self.subTest(arguments=arguments):
                result = subprocess.run([CHECK, *arguments], capture_output=True, text=True, check=False)
                self.assertEqual(result.returncode, 2)
                self.assertTrue(result.stderr.startswith("launcher-check: "), result.stderr)
                self.assertEqual(result.stdout, "")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
