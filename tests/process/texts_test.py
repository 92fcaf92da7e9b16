#!/usr/bin/env python3
"""Holds every log statement of the sources against the lists of log texts.

Fails when a listed required text is in no statement of its level, and when a statement has a text that is in
neither list. Call: texts_test.py SOURCE_DIRECTORY
"""
import re
import sys
from pathlib import Path

FOLDERS = ("app", "recorder", "capture", "media")
LEVELS = {"qDebug": "debug", "qInfo": "info", "qWarning": "warning", "qCritical": "critical", "qFatal": "fatal"}
TOKEN = re.compile(
    r"""
      (?P<comment> //[^\n]* | /\*.*?\*/ )
    | (?P<text> (?<![\w'])(?:u8|u|U|L)?"(?:[^"\\\n]|\\.)*" )
    | (?P<character> '(?:[^'\\\n]|\\.)' )
    | (?P<name> [A-Za-z_]\w* )
    | (?P<mark> << | [^\s\w] )
    """,
    re.VERBOSE | re.DOTALL,
)


def tokens_of(source):
    """(kind, value) pairs without comments; neighbouring texts are one, as the compiler joins them."""
    tokens = []
    for match in TOKEN.finditer(source):
        kind, value = match.lastgroup, match.group()
        if kind == "comment":
            continue
        if kind == "text":
            value = value[value.index('"') + 1 : -1]
            if tokens and tokens[-1][0] == "text":
                tokens[-1] = ("text", tokens[-1][1] + value)
                continue
        tokens.append((kind, value))
    return tokens


def operands(tokens, start):
    """What a statement streams: the token lists between its "<<", from the one at start to the statement's end."""
    items, depth = [], 0
    for kind, value in tokens[start:]:
        if depth == 0 and value == ";":
            break
        if depth == 0 and value == "<<":
            items.append([])
            continue
        depth += {"(": 1, "[": 1, "{": 1, ")": -1, "]": -1, "}": -1}.get(value, 0) if kind == "mark" else 0
        if depth < 0:
            break
        items[-1].append((kind, value))
    return items


def statements(tokens):
    """(level, streamed items, position) of every log statement."""
    for i, (kind, value) in enumerate(tokens):
        is_call = [mark for _, mark in tokens[i + 1 : i + 4]] == ["(", ")", "<<"]
        if kind == "name" and value in LEVELS and is_call:
            yield LEVELS[value], operands(tokens, i + 3), i
        elif kind == "name" and value in LEVELS:
            raise SystemExit(f"a log call of another form: {value} {tokens[i + 1 : i + 6]}")


def parameters_before(tokens, position):
    """The enclosing function's name and its "const char*" parameters: their places in the list by their names."""
    for i in range(position, 0, -1):
        if tokens[i] == ("mark", ")") and tokens[i + 1][1] in ("{", "const"):
            start = i
            while tokens[start] != ("mark", "("):
                start -= 1
            values = [value for _, value in tokens[start + 1 : i]]
            places, place = {}, 0
            for j, value in enumerate(values):
                place += value == ","
                if values[j : j + 3] == ["const", "char", "*"]:
                    places[values[j + 3]] = place
            if places:
                return tokens[start - 1][1], places
    return None, {}


def handed_on(files, function, place):
    """The literals that calls of a function pass at a place of its parameter list."""
    for tokens in files:
        for i, (kind, value) in enumerate(tokens[:-2]):
            if kind == "name" and value == function and tokens[i + 2][0] == "text":
                arguments, j = [], i + 2
                while tokens[j] != ("mark", ")"):
                    arguments += [tokens[j][1]] if tokens[j][0] == "text" else []
                    j += 1
                if place < len(arguments):
                    yield arguments[place]


def found_texts(files):
    """The set of (level, literal, ...) of all log statements."""
    found = set()
    for tokens in files:
        for level, items, position in statements(tokens):
            texts = tuple(item[0][1] for item in items if len(item) == 1 and item[0][0] == "text")
            if texts:
                found.add((level, *texts))
            function, places = parameters_before(tokens, position)
            if items and len(items[0]) == 1 and items[0][0][1] in places:
                for literal in handed_on(files, function, places[items[0][0][1]]):
                    found.add((level, literal, *texts))
    return found


def listed_texts(path):
    lines = path.read_text(encoding="utf-8").splitlines()
    return [tuple(line.split("|")) for line in lines if line and not line.startswith("#")]


def main():
    root, here = Path(sys.argv[1]), Path(__file__).parent
    required = listed_texts(here / "required_texts.txt")
    extra = listed_texts(here / "extra_texts.txt")
    sources = sorted(p for folder in FOLDERS for p in (root / folder).rglob("*") if p.suffix in (".cpp", ".h", ".mm"))
    found = found_texts([tokens_of(path.read_text(encoding="utf-8")) for path in sources])

    complaints = [f"no log statement for: {text}" for text in required + extra if text not in found]
    complaints += [f"not in the lists: {text}" for text in sorted(found - set(required) - set(extra))]
    doubled = {text for text in required + extra if (required + extra).count(text) > 1}
    complaints += [f"listed twice: {text}" for text in sorted(doubled)]
    print(f"{len(sources)} files, {len(found)} kinds of log lines, {len(required)} required")
    print("\n".join(complaints))
    return 1 if complaints or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
