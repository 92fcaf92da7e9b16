#!/usr/bin/env python3
"""Checks the map of the program: the banners in recorder/gstrecorder.h against the files of recorder/ and media/.

Every method that the class declares under the banner of a file is defined in that file, every definition is declared
under its file's banner, every file with definitions has a banner and every banner names such a file.

    check_header_map.py SOURCE_DIRECTORY
"""
import re
import sys
from pathlib import Path

CLASS = "GstRecorder"
BANNER = re.compile(r"// ==== (\w+\.cpp): \S.*")
OTHER_BANNER = re.compile(r"// ==== .*")
DEFINITION = re.compile(rf"^(?:[\w:<>,&* ]+ [&*]?)?{CLASS}::(~?\w+)\(", re.MULTILINE)
# What the compiler or moc defines.
UNDEFINED_SECTIONS = ("Q_SIGNALS:", "signals:")


def class_body(header):
    start = re.search(rf"^class {CLASS}\b[^;{{]*{{$", header, re.MULTILINE)
    if not start:
        sys.exit(f"no class {CLASS} in the header")
    return header[start.end() : header.index("\n};", start.end())]


def without_comments(text):
    """Banners stay, as words that no code contains."""
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.DOTALL)
    lines = []
    for line in text.splitlines():
        banner = BANNER.search(line)
        if banner:
            lines.append(f"@{banner.group(1)};")
        elif OTHER_BANNER.search(line):
            lines.append("@;")
        else:
            lines.append(line.split("//")[0])
    return "\n".join(lines)


def statements(body):
    """The class's own statements: what stands in braces, nested records for example, is left out."""
    depth = 0
    statement = ""
    for character in body:
        if character == "{":
            depth += 1
        elif character == "}":
            depth -= 1
        elif character == ";" and depth == 0:
            yield " ".join(statement.split())
            statement = ""
        elif depth == 0:
            statement += character


def declared(header):
    """The set of (file, method); methods under no banner have the file ""."""
    found = set()
    file = ""
    section = ""
    for statement in statements(without_comments(class_body(header))):
        for label in re.findall(r"(?:\b(?:public|private|protected)\b(?: Q_SLOTS)?|\bQ_SIGNALS|\bsignals)\s*:(?!:)",
                                statement):
            section = re.sub(r"\s", "", label)
            statement = statement.replace(label, "", 1)
        statement = re.sub(r"\bGUARDED_BY\(\w+\)", "", statement.replace("Q_OBJECT", "")).strip()
        if statement.startswith("@"):
            file = statement[1:]
            continue
        if "(" not in statement or statement.startswith(("friend ", "struct ", "using ")):
            continue
        if section in UNDEFINED_SECTIONS or statement.endswith(("= delete", "= default", "= 0")):
            continue
        found.add((file, re.search(r"(~?\w+)\s*\(", statement).group(1)))
    return found


def defined(root):
    found = set()
    for folder in ("recorder", "media"):
        for path in sorted((root / folder).glob("*.cpp")):
            for name in DEFINITION.findall(path.read_text(encoding="utf-8")):
                found.add((path.name, name))
    return found


def main():
    root = Path(sys.argv[1])
    header = (root / "recorder" / f"{CLASS.lower()}.h").read_text(encoding="utf-8")
    in_header = declared(header)
    in_files = defined(root)
    banners = set(BANNER.findall(header))
    problems = [f"{name}() is declared under the banner of {file or 'no file'} and not defined there"
                for file, name in sorted(in_header - in_files)]
    problems += [f"{name}() is defined in {file} and not declared under its banner"
                 for file, name in sorted(in_files - in_header)]
    problems += [f"{file} has a banner and defines nothing of the class"
                 for file in sorted(banners - {file for file, _ in in_files})]
    problems += [f"{file} defines methods and has no banner"
                 for file in sorted({file for file, _ in in_files} - banners)]
    if not in_header or not in_files or not banners:
        problems.append("nothing was found to compare")
    for problem in problems:
        print(problem, file=sys.stderr)
    print(f"{len(in_header)} methods, {len(banners)} files, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
