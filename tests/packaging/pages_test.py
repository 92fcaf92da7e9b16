#!/usr/bin/env python3
"""The manual pages are well-formed, and what completes record-window's command line works in real shells.

    pages_test.py SOURCE_DIRECTORY
"""
import os
import pathlib
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

SOURCES = pathlib.Path(sys.argv[1]).resolve()
PAGES = SOURCES / "docs" / "man"
COMPLETION = SOURCES / "launcher" / "completion"
LIMIT = 60  # seconds that a shell may take in the end

LISTED = """window      size         process                   title
0x1400003   1280x720     4242 chromium             Release notes: 2
0x1600001   640x480      -                         Clock
"""

# Lists windows, and notes the rest.
PROGRAM = f"""#!/bin/sh
[ "$*" = --list ] || exec echo "$*" >"$HOME/started"
cat <<'END'
{LISTED}END
"""

# Puts the words in front of the function as bash does it, and prints what it finds.
ASK_BASH = """
source /usr/share/bash-completion/bash_completion
source "$1"
shift
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE="$*" COMP_POINT=${#COMP_LINE}
_record_window record-window "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


class ManualPages(unittest.TestCase):
    def test_mandoc_and_groff_have_nothing_to_say(self):
        pages = sorted(PAGES.glob("*.1"))
        self.assertEqual([page.name for page in pages], ["launcher-check.1", "orvantis-recorder.1",
                                                          "record-window.1", "recorder-check.1"])
        for command in (["mandoc", "-Tlint", "-Wwarning"], ["groff", "-mandoc", "-ww", "-z", "-Tascii"]):
            for page in pages:
                with self.subTest(command=command[0], page=page.name):
                    result = subprocess.run([*command, page], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                            text=True, check=False)
                    self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_page_of_the_recorder_has_its_options_and_arguments(self):
        usage = (SOURCES / "app" / "usage.cpp").read_text(encoding="utf-8")
        page = (PAGES / "orvantis-recorder.1").read_text(encoding="utf-8")
        options = set(re.findall(r"(?<![\w-])--?([a-z][a-z-]*)", usage))
        self.assertEqual(options, {"help", "h", "version", "request-permissions"})
        told = set(re.findall(r"Fl -([a-z-]+)", page)) | set(re.findall(r"^\.It Fl .* , (\w)$", page, re.M))
        self.assertEqual(options, told)
        arguments = re.search(r"Usage: orvantis-recorder (.*)", usage).group(1).lower()
        self.assertIn(f"\n.Ar {arguments}\n", page)


class Completion(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.home = pathlib.Path(directory.name)
        program = self.home / "bin" / "record-window"
        program.parent.mkdir()
        program.write_text(PROGRAM, encoding="utf-8")
        program.chmod(0o755)
        (self.home / "clips").mkdir()
        (self.home / "clip.mp4").touch()
        (self.home / "clips" / "a.webm").touch()
        self.environment = dict(os.environ, PATH=f"{program.parent}:{os.environ['PATH']}", HOME=str(self.home),
                                LC_ALL="C.UTF-8", TERM="dumb")

    # ---- bash ----

    def bash(self, *words):
        result = subprocess.run(["bash", "-c", ASK_BASH, "ask", COMPLETION / "record-window.bash", "record-window",
                                 *words], env=self.environment, cwd=self.home, capture_output=True, text=True,
                                timeout=LIMIT, check=False)
        self.assertEqual(result.stderr, "")
        return result.stdout.split()

    def test_bash(self):
        for words, expected in (
                (["--se"], ["--select", "--seconds"]),
                (["--active", "--out"], ["--output"]),
                (["--window", ""], ["0x1400003", "0x1600001"]),
                (["--window", "0x16"], ["0x1600001"]),
                (["--window", "=", "0x16"], ["0x1600001"]),
                (["--pid", ""], ["4242"]),
                (["--audio", ""], ["app", "app-pid:", "system", "none"]),
                (["--audio", "app-pid", ":"], ["4242"]),
                (["--output", "cli"], ["clips", "clip.mp4"]),
                (["--log-dir", "cli"], ["clips"]),
                (["--sha"], ["--share", "--share-only", "--sha256"]),
                (["--share-only", "clip.mp4", "cli"], ["clips", "clip.mp4"]),
                (["--seconds", ""], [])):
            with self.subTest(words=words):
                self.assertEqual(sorted(self.bash(*words)), sorted(expected))

    def test_bash_loads_it(self):
        """As an interactive bash would, from the place that it is installed to."""
        place = self.home / "share" / "bash-completion" / "completions"
        place.mkdir(parents=True)
        (place / "record-window").write_bytes((COMPLETION / "record-window.bash").read_bytes())
        said = subprocess.run(["bash", "--norc", "-ic", ". /usr/share/bash-completion/bash_completion; "
                               "_completion_loader record-window; complete -p record-window"],
                              env=dict(self.environment, XDG_DATA_HOME=str(self.home / "share")), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=LIMIT,
                              check=False).stdout
        self.assertEqual(said, "complete -F _record_window record-window\n")

    # ---- zsh: typed at a terminal; the program notes what it was started with ----

    def test_zsh(self):
        (self.home / ".zshrc").write_text(f"fpath=({COMPLETION} $fpath)\nautoload -U compinit\ncompinit -u\n"
                                          "zle-line-init() { : >~/takes-a-line }\nzle -N zle-line-init\n", encoding="utf-8")
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.home)
            os.execvpe("zsh", ["zsh", "-o", "noglobalrcs", "-i"], dict(self.environment, ZDOTDIR=str(self.home)))
        self.addCleanup(self.end, pid, terminal)
        for typed, expected in (
                ("--out\tx", "--output x"),
                ("--window 0x16\t", "--window 0x1600001"),
                ("--pid 42\t", "--pid 4242"),
                ("--audio sys\t", "--audio system"),
                ("--audio app-pid:42\t", "--audio app-pid:4242"),
                ("--output clip.\t", "--output clip.mp4"),
                ("--log-dir cli\t", "--log-dir clips"),
                ("--share-only clip.\tclips/a\t", "--share-only clip.mp4 clips/a.webm"),
                ("--verify clip.\t", "--verify clip.mp4"),
                ("--click 1,2@3 --cli\t4,5@6", "--click 1,2@3 --click 4,5@6"),
                ("--sel\t--act\t", "--select --act")): # only one of them chooses the window
            self.assertEqual(self.typed_in_zsh(terminal, typed), expected)

    def typed_in_zsh(self, terminal, typed):
        takes_a_line, notes = self.home / "takes-a-line", self.home / "started"
        self.wait_for(terminal, takes_a_line.exists)
        takes_a_line.unlink()
        notes.unlink(missing_ok=True)
        os.write(terminal, f"record-window {typed}\n".encode())
        self.wait_for(terminal, lambda: notes.exists() and notes.read_text(encoding="utf-8").endswith("\n"))
        return notes.read_text(encoding="utf-8").strip()

    def wait_for(self, terminal, is_so):
        """Reads the terminal meanwhile, as whoever does not could stop the shell."""
        shown, end = b"", time.monotonic() + LIMIT
        while not is_so():
            self.assertLess(time.monotonic(), end, shown)
            if select.select([terminal], [], [], 0.02)[0]:
                shown += os.read(terminal, 4096)

    @staticmethod
    def end(pid, terminal):
        os.kill(pid, signal.SIGKILL)
        os.waitpid(pid, 0)
        os.close(terminal)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
