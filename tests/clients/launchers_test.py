#!/usr/bin/env python3
"""This project's own launchers pass launcher-check: both clients, the sample, record-window.

    launchers_test.py LAUNCHER_CHECK NODE RECORD_WINDOW
"""
import concurrent.futures
import pathlib
import re
import subprocess
import sys
import tempfile
import textwrap
import unittest

CHECK, NODE, RECORD_WINDOW = sys.argv[1:]
HERE = pathlib.Path(__file__).resolve().parent
PLACES = ("{recorder}", "{output}", "{logs}")


def page_sample():
    """The launcher of docs/launcher.md, with its paths replaced and its waits shortened: the fakes that never answer
    would take minutes."""
    page = (HERE.parent.parent / "docs" / "launcher.md").read_text(encoding="utf-8")
    sample = textwrap.dedent(re.search(r"(?:^    import json.*\n)(?:^(?:    .*)?\n)+", page, re.MULTILINE)[0])
    replacements = {
        '"build/release/bin/orvantis-recorder"': "sys.argv[1]",
        '"/tmp/clip.mp4"': "sys.argv[2]", '"/tmp"': "sys.argv[3]",
        "import json": "import sys, json", "settimeout(10)": "settimeout(4)", 'receive(b"1", 30)': 'receive(b"1", 6)',
        "sleep(2)": "sleep(0.2)", "sleep(3)": "sleep(0.2)", r'receive(b"\n", 60)': r'receive(b"\n", 2)',
        "wait(10)": "wait(1.5)", "wait(70)": "wait(2)"}
    for old, new in replacements.items():
        if sample.count(old) != 1:
            raise AssertionError(f"docs/launcher.md has {old} {sample.count(old)} times")
        sample = sample.replace(old, new)
    return sample


def check(command):
    return subprocess.run([CHECK, "--jobs", "16", "--limit", "60", "--", *command, *PLACES], stdout=subprocess.PIPE,
                          text=True, check=False)


class Launchers(unittest.TestCase):
    def test_all(self):
        with tempfile.NamedTemporaryFile("w", suffix=".py") as sample:
            sample.write(page_sample())
            sample.flush()
            launchers = {
                "client for Node.js": [NODE, HERE / "launcher.mjs"],
                "client for Python": [sys.executable, HERE / "launcher.py"],
                "record-window": [HERE / "record-window.sh", RECORD_WINDOW],
                "sample": [sys.executable, sample.name],
            }
            with concurrent.futures.ThreadPoolExecutor(len(launchers)) as pool:  # they mostly wait
                results = dict(zip(launchers, pool.map(check, launchers.values())))
        for name, result in results.items():
            with self.subTest(launcher=name):
                self.assertEqual(result.returncode, 0, result.stdout)
                self.assertRegex(result.stdout, r"(?m)^1[0-9][0-9] passed, 0 failed, 0 notes$")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
