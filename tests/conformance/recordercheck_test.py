#!/usr/bin/env python3
"""recorder-check finds nothing wrong with the recorder, and finds what recorders with one fault each do wrong.

    recordercheck_test.py RECORDER_CHECK RECORDER LAUNCHER_CHECK BINARIES
"""
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "bench"))
import desktop  # noqa: E402

CHECK, RECORDER, FAKE = sys.argv[1:4]
BINARIES = pathlib.Path(sys.argv[4])

# A recorder as a script; what the fake does in a mode; case; start of what is found.
FAULTS = [
    ("exit 7", "", "recording", "connection none in time"),
    ("fake", "twice", "recording", "readiness not one byte \"1\" but \"11\""),
    ("fake", "nonsense", "recording", "answer not the byte and one line with the duration but \"1what do you"),
    ("fake", "noreply", "recording", "answer not the byte and one line with the duration but \"1\""),
    ("fake", "nofile", "recording", "file the log names no closed file"),
    ("fake", "badexit", "recording", "end with 9, not 0"),
    ("fake", "", "repeated-stop", "answers 3 of them"),
    ("fake", "crasheslater", "lines", "nonsense ended the recorder"),
    ("fake", "", "no-window", "silence said without an image: \"1\""),
    ("fake", "noimage", "no-output", "answer not {\"duration\":0} alone but nothing"),
    ("fake", "", "exit-alone", "file the log names no closed file"),
    ("fake", "", "hang-up", "file the log names no closed file"),
    ("fake", "", "hang-up-unasked", "file the log names no closed file"),
    ("unset ORVANTIS_END_WITH_LAUNCHER; fake", "", "no-launcher", "end with 99, not 3"),
    ("fake", "", "few-arguments", "log does not say \"invalid param count\""),
    ("export ORVANTIS_END_WITH_LAUNCHER=1; fake", "", "hang-up-unasked", "goes on it ended with its launcher"),
]


def check(recorder, window, *options):
    """Exit code, and the lines of the table with single blanks."""
    result = subprocess.run([CHECK, "--recorder", recorder, "--window", str(window), *options],
                            stdout=subprocess.PIPE, text=True, check=False)
    return result.returncode, [re.sub(" +", " ", line) for line in result.stdout.splitlines()]


def check_script(script, mode, case):
    with tempfile.TemporaryDirectory() as directory:
        recorder = pathlib.Path(directory) / "recorder"
        fake = (f"FAKE_RECORDER_MODE='{mode}' FAKE_RECORDER_NOTES='{directory}' FAKE_RECORDER_CHECKS=1 "
                f"exec '{FAKE}' \"$@\"")
        recorder.write_text(f"#!/bin/sh\n{script.replace('fake', fake)}\n")
        recorder.chmod(0o700)
        return check(recorder, 77, "--cases", case)


class RecorderCheck(unittest.TestCase):
    def test_the_recorder(self):
        with desktop.private_x_server(1024, 768) as (display, _), \
                desktop.truth_window(BINARIES, display, 640, 480, ["--fps", "30"]) as window:
            os.environ["DISPLAY"] = display
            code, lines = check(RECORDER, window)
        self.assertRegex(lines[-1], "^[34][0-9] passed, 0 failed, 0 notes$", lines)
        self.assertEqual(code, 0)

    def test_every_fault(self):
        with concurrent.futures.ThreadPoolExecutor(8) as pool:  # they mostly wait
            results = pool.map(lambda row: check_script(*row[:3]), FAULTS)
        for (script, mode, case, found), (code, lines) in zip(FAULTS, results):
            with self.subTest(script=script, mode=mode, case=case):
                self.assertTrue(any(line.startswith(f"FAILED {case} {found}") for line in lines), lines)
                self.assertEqual(code, 1)

    def test_bad_usage(self):
        for arguments in ([], ["--window", "none"], ["--window", "0"], ["--window", "1", "--recorder", "/nowhere"],
                          ["--window", "1", "--recorder", RECORDER, "--cases", "none"],
                          ["--window", "1", "--recorder", RECORDER, "more"]):
            with self.subTest(arguments=arguments):
                result = subprocess.run([CHECK, *arguments], capture_output=True, text=True, check=False)
                self.assertEqual(result.returncode, 2)
                self.assertTrue(result.stderr.startswith("recorder-check: "), result.stderr)
                self.assertEqual(result.stdout, "")
                self.assertEqual("--window ID is missing" in result.stderr, not arguments)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], warnings="ignore")
