#!/usr/bin/env python3
"""What is installed is complete, and works from there.

    installed_test.py BUILD_DIRECTORY NODE
"""
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import tomllib
import unittest

BUILD, NODE = sys.argv[1:]
HERE = pathlib.Path(__file__).resolve().parent
CASES = "normal,crash"


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.prefix = pathlib.Path(directory.name)
        subprocess.run(["cmake", "--install", BUILD, "--prefix", cls.prefix], check=True, stdout=subprocess.DEVNULL)

    def test_programs(self):
        for name in ("orvantis-recorder", "record-window", "launcher-check", "recorder-check"):
            version = subprocess.run([self.prefix / "bin" / name, "--version"], capture_output=True, text=True,
                                     check=True).stdout
            self.assertRegex(version, f"^{name} [0-9.]+\n$")

    def test_clients_have_the_programs_version(self):
        version = subprocess.run([self.prefix / "bin" / "orvantis-recorder", "--version"], capture_output=True,
                                 text=True, check=True).stdout.split()[1]
        clients = self.prefix / "share" / "orvantis-recorder" / "clients"
        package = json.loads((clients / "node" / "package.json").read_text(encoding="utf-8"))
        project = tomllib.loads((clients / "python" / "pyproject.toml").read_text(encoding="utf-8"))
        self.assertEqual([package["version"], project["project"]["version"]], [version, version])

    def test_files(self):
        """All of them, but for the clients' and the pages', which are whole folders."""
        found = {str(path.relative_to(self.prefix)) for path in self.prefix.rglob("*") if path.is_file()}
        found = {name for name in found if not re.search("/(clients|tests|docs)/", name)}
        self.assertEqual(found, {
            "bin/orvantis-recorder", "bin/record-window", "bin/launcher-check", "bin/recorder-check",
            "share/bash-completion/completions/record-window", "share/zsh/site-functions/_record-window",
            "share/man/man1/orvantis-recorder.1", "share/man/man1/record-window.1",
            "share/man/man1/launcher-check.1", "share/man/man1/recorder-check.1",
            "share/doc/orvantis-recorder/README.md", "share/doc/orvantis-recorder/CHANGELOG.md",
            "share/doc/orvantis-recorder/CONTRIBUTING.md", "share/doc/orvantis-recorder/LICENSE"})

    def test_pages_link_to_what_is_there(self):
        documentation = self.prefix / "share" / "doc" / "orvantis-recorder"
        missing = []
        for page in documentation.rglob("*.md"):
            text = page.read_text(encoding="utf-8")
            missing += [f"{page.name}: {name}" for name in re.findall(r"(?<![\w/.-])docs/[\w./-]*\w", text)
                        if not (documentation / name).exists() and "docs/man" not in name]
        self.assertEqual(missing, [])

    def test_clients(self):
        clients = self.prefix / "share" / "orvantis-recorder" / "clients"
        found = {str(path.relative_to(clients)) for path in clients.rglob("*") if path.is_file()}
        wanted = {"node/package.json", "node/index.js", "node/index.d.ts", "node/README.md", "python/pyproject.toml",
                  "python/README.md", "python/orvantis_recorder/py.typed", "node/example/record-chromium.js",
                  "python/example/record_chromium.py"}
        self.assertEqual(wanted - found, set())
        self.assertEqual([name for name in found if "test" in name or "cache" in name], [])
        for launcher, interpreter in (("launcher.mjs", NODE), ("launcher.py", sys.executable)):
            with self.subTest(launcher=launcher):
                self.assert_passes(launcher, interpreter)

    def assert_passes(self, launcher, interpreter):
        """The launcher imports its client by its place beside it: here that is the installed one."""
        copy = self.prefix / "share" / "orvantis-recorder" / "tests" / "clients" / launcher
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_text((HERE / launcher).read_text(encoding="utf-8"), encoding="utf-8")
        result = subprocess.run([self.prefix / "bin" / "launcher-check", "--cases", CASES, "--", interpreter, copy,
                                 "{recorder}", "{output}", "{logs}"], stdout=subprocess.PIPE, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
