#!/usr/bin/env python3
"""Compares what the adapter takes for granted of the system (facts.txt) with what it uses.

The declarations in platform_decl are what a check without a Mac compiles against, and nothing that they do not
declare compiles; so their names are the adapter's, and names that it looks up at run time come to them. Each has to be
a row of facts.txt, with its value where it is a constant, and each row has to be used by the adapter.
"""
import re
import sys
import unittest
from pathlib import Path

here = Path(__file__).resolve().parent
root = here.parent.parent
oldest_system = (13, 0)  # CMAKE_OSX_DEPLOYMENT_TARGET


def without_comments(text):
    return re.sub(r"//[^\n]*|/\*.*?\*/", "", text, flags=re.S)


def adapter_text():
    files = [*sorted((root / "capture/macos").iterdir()), *sorted((root / "app").glob("*.cpp"))]
    return "\n".join(without_comments(file.read_text()) for file in files if file.suffix in (".h", ".mm", ".cpp"))


def declarations_text():
    """Without what only other systems need: the Mac's runtime has public headers."""
    text = ""
    for file in sorted((here / "platform_decl").rglob("*.h")):
        if file.name not in ("Base.h", "mach_vm.h"):
            text += re.sub(r"#ifndef __APPLE__.*?#endif", "", without_comments(file.read_text()), flags=re.S)
    return text


def selector_of(declaration):
    """'- (type)first:(type)name second:(type)name' as 'first:second:'."""
    depth, plain = 0, ""
    for character in declaration:
        depth -= character == ")"
        if not depth and character != ")":
            plain += character
        depth += character == "("
    return "".join(re.findall(r"\w+:", plain)) or plain.split()[0]


def members_of(kind, name, body):
    for mark, declaration in re.findall(r"^([-+])\s*\([^)]*\)([^;]*);", body, flags=re.M):
        if "unavailable" in declaration:
            continue
        yield f"{mark}[{name} {selector_of(declaration)}]", "method"
    for declaration in re.findall(r"^@property([^;]*);", body, flags=re.M):
        plain = re.sub(r"__attribute__\(\(.*?\)\)|PLATFORM_SINCE\([\d.]*\)|\([^)]*\)", "", declaration)
        words = re.findall(r"[A-Za-z_]\w*", plain)
        yield f"{name}.{words[-1]}", "property"
    yield name, kind


def value_of(expression, values):
    plain = re.sub(r"(?<=[0-9a-fA-F])U?L*\b", "", expression.strip())
    return eval(plain, {"__builtins__": {}}, dict(values))  # a constant expression of the declarations


def declared():
    """name: (kind, value or None)"""
    text = declarations_text()
    names = {}
    kinds = {"interface": "class", "protocol": "protocol"}
    for kind, name, body in re.findall(r"@(interface|protocol) (\w+)(?!\s*;)\b(.*?)@end", text, flags=re.S):
        names.update((member, (what, None)) for member, what in members_of(kinds[kind], name, body))
    values = {}
    enumeration = r"(?:enum\b[^;{]*|\bPLATFORM_(?:ENUM|OPTIONS)\([^)]*\)\s*)\{(.*?)\}"
    for body in re.findall(enumeration, text, flags=re.S):
        for name, expression in re.findall(r"(\w+)(?:\s+PLATFORM_SINCE\([^)]*\))?\s*=\s*([^,]+)", body):
            values[name] = value_of(expression, values)
            names[name] = ("constant", values[name])
    for declaration in re.findall(r"PLATFORM_C ([^;]*);", text):
        function = re.search(r"(\w+)\(", re.sub(r"PLATFORM_\w+(\([^)]*\))?", "", declaration))
        names[function[1] if function else declaration.split()[-1]] = ("function" if function else "variable", None)
    return names


def looked_up(adapter):
    """What is named in a text only: no compiler sees that it is there."""
    found = {name: ("class", None) for name in re.findall(r'objc_getClass\("(\w+)"\)', adapter)}
    found.update((name, ("function", None)) for name in re.findall(r'constexpr auto create\w+ = "(\w+)"', adapter))
    for name in re.findall(r'ainBundleString\("(\w+)"\)', adapter):
        found[f"NSBundle.{name}"] = ("property", None)
    return found


def is_used(name, adapter):
    words = re.findall(r"\w+", re.sub(r"^[-+]\[\w+ ", "", name) if name[0] in "-+" else name.split(".")[-1])
    if "." in name:
        setter = "set" + words[0][0].upper() + words[0][1:]
        return bool(re.search(rf"\b({words[0]}|{setter})\b", adapter))
    return all(re.search(rf"\b{word}\b", adapter) for word in words)


class Facts:
    def __init__(self, text):
        self.sources, self.rows = {}, {}
        for line in text.splitlines():
            if not line or line.startswith("#"):
                continue
            fields = [field.strip() for field in line.split("|")]
            if fields[0].startswith("source "):
                self.sources[fields[0].removeprefix("source ")] = fields[1]
            else:
                name, kind, value, source, since = fields
                if name in self.rows:
                    raise ValueError(f"{name} is there twice")
                self.rows[name] = (kind, int(value, 0) if value else None, source, since)


class FactsTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.adapter = adapter_text()
        cls.used = {**declared(), **looked_up(cls.adapter)}
        cls.facts = Facts((here / "facts.txt").read_text())

    def test_there_is_something_to_compare(self):
        kinds = [kind for kind, _ in self.used.values()]
        for kind, least in (("class", 12), ("protocol", 3), ("method", 15), ("property", 15), ("function", 25),
                            ("constant", 15), ("variable", 4)):
            self.assertGreaterEqual(kinds.count(kind), least, kind)

    def test_each_name_is_a_fact(self):
        self.assertEqual(self.used, {name: row[:2] for name, row in self.facts.rows.items()})

    def test_each_fact_is_used(self):
        # The simulated system delivers and answers what the adapter leaves alone; two types are not named anywhere.
        others = {"NSTerminateCancel", "NSURL", "SCStreamOutputTypeScreen", "SCWindow"}
        self.assertEqual({name for name in self.facts.rows if not is_used(name, self.adapter)}, others)

    def test_the_program_links_with_facts_only(self):
        """What the linker resolves a call with (scripts/mac-check) is in these files."""
        stubs = "".join(file.read_text() for file in (here / "stubs/System").rglob("*.tbd"))
        symbols = set(re.findall(r"\b_(\w+)", "".join(re.findall(r"symbols: \[(.*?)\]", stubs, flags=re.S))))
        classes = set(re.findall(r"\w+", "".join(re.findall(r"objc-classes: \[(.*?)\]", stubs, flags=re.S))))
        symbols |= {name for name, (kind, _) in looked_up(self.adapter).items() if kind == "function"}
        rows = self.facts.rows
        self.assertEqual(symbols, {name for name, row in rows.items() if row[0] in ("function", "variable")})
        self.assertLessEqual(classes, {name for name, row in rows.items() if row[0] == "class"})

    def test_each_fact_has_its_source(self):
        self.assertEqual({row[2] for row in self.facts.rows.values()}, set(self.facts.sources))
        for address in self.facts.sources.values():
            self.assertRegex(address, r"^https://\S+$")

    def test_the_oldest_system_has_it(self):
        for name, (*_, since) in self.facts.rows.items():
            if since != "-":
                self.assertLessEqual(tuple(int(part) for part in since.split(".")), oldest_system, name)


if __name__ == "__main__":
    sys.exit(unittest.main())
