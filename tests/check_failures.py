#!/usr/bin/env python3
"""Holds tests/failures.txt, the list of failures, against the tests and the log texts.

Fails when a failure has no test, when a test or its data row is not in the built test programs, when its log text is
in no list of log texts or not among what its tests compare, when it has none and one of its tests compares one, when a
listed warning or error is no failure, and when the table in docs/reliability.md is another one.
Call: check_failures.py [--write] SOURCE_DIRECTORY [TEST_PROGRAM...]
--write puts the table into the page. A program that is not there is not asked; its tests must then be in the sources.
"""
import os
import re
import subprocess
import sys
from collections import namedtuple
from pathlib import Path

BEGIN, END = "<!-- table of failures -->", "<!-- end of the table -->"
CAUSES = ("warning", "critical")
TEST = re.compile(r'(\w+)\.(\w+)(?: "([^"]*)")?')

Failure = namedtuple("Failure", "group name when then text beside tests")
Source = namedtuple("Source", "path functions shared")


def failures_in(path):
    """The list, in its order."""
    found, group = [], None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("["):
            group = line.strip("[]")
        elif not line.startswith(" "):
            found.append({"group": group, "name": line.strip(), "beside": [], "tests": []})
        else:
            key, _, value = line.strip().partition(" ")
            if key == "test":
                match = TEST.fullmatch(value)
                if not match:
                    raise SystemExit(f"{path}:{number}: not a test: {value}")
                found[-1]["tests"].append(match.groups())
            elif key == "beside":
                found[-1]["beside"].append(value)
            elif key in ("when", "then", "text") and key not in found[-1]:
                found[-1][key] = value
            else:
                raise SystemExit(f"{path}:{number}: not understood: {line}")
    for failure in found:
        for key in ("when", "then", "text"):
            if key not in failure:
                raise SystemExit(f"{path}: {failure['name']} has no line '{key}'")
    return [Failure(**failure) for failure in found]


def listed_texts(root):
    """(level, first literal) of every listed log text."""
    texts = []
    for name in ("required_texts.txt", "extra_texts.txt"):
        for line in (root / "tests/process" / name).read_text(encoding="utf-8").splitlines():
            if line and not line.startswith("#"):
                texts.append(tuple(line.split("|")[:2]))
    return texts


def literals(code):
    """The string literals of a piece of code; neighbouring ones are one."""
    joined = re.sub(r'"\s*\n\s*"', "", code)
    return [text.replace('\\"', '"') for text in re.findall(r'"((?:[^"\\\n]|\\.)*)"', joined)]


def test_sources(root):
    """The test classes by name: their member functions' code, and what all of these share."""
    sources = {}
    for path in sorted((root / "tests").glob("*/*_test.cpp")):
        code = path.read_text(encoding="utf-8")
        entered = re.search(r"ORVANTIS_TEST\((\w+)\)", code)
        if not entered:
            continue
        name = entered.group(1)
        pieces = re.split(rf"^(?:\w[\w:<>*& ]*\s)?{name}::(\w+)\(", code, flags=re.MULTILINE)
        functions = {}
        for function, body in zip(pieces[1::2], pieces[2::2]):
            functions[function] = functions.get(function, "") + body
        sources[name] = Source(path, functions, pieces[0])
    return sources


def built_tests(programs, names):
    """(class, function, data row or empty) of all tests of these classes in the programs, and the classes asked for."""
    # Only to be asked: what a sanitizer would say of leaks at such an end means nothing.
    environment = dict(os.environ, QT_QPA_PLATFORM="minimal", ASAN_OPTIONS="detect_leaks=0")
    found, asked = set(), set()
    for program in programs:
        known = subprocess.run([program, "?"], capture_output=True, text=True, env=environment, check=False).stderr
        plain = set(known.split())
        for name in names:
            if name.lower() not in plain:
                continue
            asked.add(name)
            tags = subprocess.run([program, name, "-datatags"],
                capture_output=True, text=True, env=environment, check=False)
            for line in tags.stdout.splitlines():
                _, function, *row = line.split(" ", 2)
                found.add((name, function, row[0] if row else ""))
    return found, asked


def is_compared(text, code, texts):
    """A literal that contains the text, or a part of it that no other text has."""
    for literal in literals(code):
        if text in literal:
            return True
        if len(literal) >= 20 and literal in text and sum(literal in other for _, other in texts) == 1:
            return True
    return False


def compared_texts(source, function, row, texts):
    """The warnings and errors that a test compares itself; of its data the row's statement, when one is named."""
    body, data = (source.functions.get(name, "").partition("\n}\n")[0] for name in (function, function + "_data"))
    if row:
        data = "".join(statement for statement in data.split(";\n") if f'"{row}"' in statement)
    return [text for kind, text in texts if kind in CAUSES and is_compared(text, body + data, texts)]


def complaints_about(failure, texts, sources, built, asked):
    if not failure.tests:
        yield "has no test"
    level, _, text = failure.text.partition(" ")
    code = ""
    for name, function, row in failure.tests:
        source = sources.get(name)
        if not source or function not in source.functions:
            yield f"its test is not in the sources: {name}.{function}"
            continue
        code += source.shared + source.functions[function] + source.functions.get(function + "_data", "")
        code += "".join(body for called, body in source.functions.items()
            if called != function and re.search(rf"\b{called}\(", source.functions[function]))
        if name not in asked:
            if row and f'"{row}"' not in code:
                yield f'its data row is not in the sources: {name}.{function} "{row}"'
        elif not any(test[:2] == (name, function) and row in (None, test[2]) for test in built):
            yield f'its test is not built: {name}.{function} "{row or ""}"'
    if level == "none":
        for name, function, row in failure.tests:
            source = sources.get(name)
            for compared in compared_texts(source, function, row, texts) if source else []:
                if not any(compared.startswith(other) for other in failure.beside):
                    yield f"has no text, but {name}.{function} compares: {compared}"
        return
    whole = [other for kind, other in texts if kind == level and other.startswith(text)]
    if not whole:
        yield f"its text is not listed: {failure.text}"
    elif not is_compared(text, code, texts):
        yield f"none of its tests compares: {text}"


def escaped(text):
    return text.replace("|", "\\|").replace("<", "&lt;").replace("_", "\\_")


def table(failures):
    lines = []
    for group in dict.fromkeys(failure.group for failure in failures):
        lines += ["", f"### {group}", "", "| when | then | line of the log that its tests compare | provoked by |", "|---|---|---|---|"]
        for failure in failures:
            if failure.group != group:
                continue
            level, _, text = failure.text.partition(" ")
            seen = "none" if level == "none" else f"{level}: `{text}`"
            tests = "<br>".join(f"`{name}.{function}`" + (f" ({row})" if row else "")
                for name, function, row in failure.tests)
            lines.append(f"| {escaped(failure.when)} | {escaped(failure.then)} | {seen} | {tests} |")
    return "\n".join(lines[1:]) + "\n"


def main():
    arguments = sys.argv[1:]
    write = "--write" in arguments
    if write:
        arguments.remove("--write")
    root, programs = Path(arguments[0]), [program for program in arguments[1:] if os.path.exists(program)]
    failures, texts, sources = failures_in(root / "tests/failures.txt"), listed_texts(root), test_sources(root)
    built, asked = built_tests(programs, sorted({name for failure in failures for name, _, _ in failure.tests}))

    complaints = [f"{failure.name}: {complaint}" for failure in failures
        for complaint in complaints_about(failure, texts, sources, built, asked)]
    names = [failure.name for failure in failures]
    complaints += [f"{name}: listed twice" for name in sorted({name for name in names if names.count(name) > 1})]
    told = [failure.text.partition(" ")[::2] for failure in failures]
    complaints += [f"no failure has the text: {level} {text}" for level, text in texts if level in CAUSES
        and not any(level == kind and text.startswith(start) for kind, start in told)]

    page = root / "docs/reliability.md"
    content = page.read_text(encoding="utf-8")
    before, _, rest = content.partition(BEGIN + "\n")
    _, _, after = rest.partition(END)
    expected = f"{before}{BEGIN}\n{table(failures)}{END}{after}"
    if write:
        page.write_text(expected, encoding="utf-8")
    elif content != expected:
        complaints.append(f"{page.name} has another table; tests/check_failures.py --write . makes it")
    print(f"{len(failures)} failures, {sum(len(failure.tests) for failure in failures)} tests named, "
        f"{len(asked)} classes asked of {len(programs)} programs, {len(complaints)} complaints")
    print("\n".join(complaints))
    return 1 if complaints or not failures else 0


if __name__ == "__main__":
    sys.exit(main())
