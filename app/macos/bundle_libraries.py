#!/usr/bin/env python3
"""Makes an application bundle whole: copies every library that is not the system's into it, with Qt's plug-in.

    bundle_libraries.py BUNDLE QT_PLUGINS PLUGIN...

QT_PLUGINS is the directory that Qt loads plug-ins from, PLUGIN a file in it ("platforms/libqcocoa.dylib"). They end up
in Contents/PlugIns, libraries and frameworks in Contents/Frameworks. Every name of a library is resolved as the system
would from the place where the file came from, and then written anew, as @rpath/..., for the executable's one path
@executable_path/../Frameworks. Signatures do not survive that: sign afterwards.

LSMinimumSystemVersion is raised to the version that the libraries were built for. Ends with 1, and says why, when a
library is nowhere to be found or something in the bundle still points out of it.
"""
import plistlib
import re
import shutil
import subprocess
import sys
from pathlib import Path

ARCHITECTURE = "arm64"
RPATH = "@executable_path/../Frameworks"
SYSTEM = ("/usr/lib/", "/System/")
LOADING = ("LC_LOAD_DYLIB", "LC_LOAD_WEAK_DYLIB", "LC_REEXPORT_DYLIB", "LC_LOAD_UPWARD_DYLIB", "LC_LAZY_LOAD_DYLIB")
FRAMEWORK = re.compile(r"(?P<root>.*/(?P<name>[^/]+)\.framework)/Versions/(?P<version>[^/]+)/(?P=name)")
FIELD = re.compile(r"\s*(?P<key>\w+) (?P<value>.*?)(?: \(offset \d+\))?")


class Failure(Exception):
    """A text for the person who packages."""


def version_of(text):
    """Comparable: 13.0 and 13.0.0 are the same."""
    numbers = [int(number) for number in text.split(".")]
    return tuple(numbers + [0] * (3 - len(numbers)))


class Binary:
    """The load commands of one file, and where its relative names lead: from the place where the file came from."""

    def __init__(self, path, origin):
        self.path = path
        self.origin = origin
        self.id = ""
        self.new_id = ""
        self.loads = []
        self.rpaths = []
        self.minimum_system = "0"
        run = subprocess.run(["otool", "-arch", ARCHITECTURE, "-l", str(path)], capture_output=True, text=True)
        if run.returncode != 0:
            raise Failure(f"{origin}: otool cannot read it for {ARCHITECTURE}: {run.stderr.strip()}")
        for fields in load_commands(run.stdout):
            self.take(fields)

    def take(self, fields):
        command = fields.get("cmd")
        if command == "LC_ID_DYLIB":
            self.id = fields["name"]
        elif command in LOADING:
            self.loads.append(fields["name"])
        elif command == "LC_RPATH":
            self.rpaths.append(fields["path"])
        elif command == "LC_BUILD_VERSION":
            self.minimum_system = fields["minos"]
        elif command == "LC_VERSION_MIN_MACOSX":
            self.minimum_system = fields["version"]


def load_commands(listing):
    """The fields of each load command in what "otool -l" prints."""
    for block in re.split(r"^Load command \d+$", listing, flags=re.MULTILINE)[1:]:
        fields = {}
        for line in block.splitlines():
            match = FIELD.fullmatch(line)
            if match:
                fields.setdefault(match["key"], match["value"])
        yield fields


def expanded(path, binary, executable):
    """A path of the binary's load commands without the two words that stand for a directory."""
    for word, owner in (("@loader_path", binary), ("@executable_path", executable)):
        if path == word or path.startswith(word + "/"):
            return str(owner.origin.parent) + path[len(word) :]
    return path


class Bundle:
    """The bundle while it fills."""

    def __init__(self, root):
        self.contents = root / "Contents"
        self.frameworks = self.contents / "Frameworks"
        self.info_file = self.contents / "Info.plist"
        with open(self.info_file, "rb") as file:
            self.info = plistlib.load(file)
        path = self.contents / "MacOS" / self.info["CFBundleExecutable"]
        self.executable = Binary(path, path)
        self.binaries = [self.executable]
        self.places = {}  # the real path of a library -> its path below Contents/Frameworks

    def add_plugin(self, plugins, name):
        source = plugins / name
        if not source.is_file():
            raise Failure(f"Qt's plug-in {source} is not there")
        self.binaries.append(Binary(copied(source, self.contents / "PlugIns" / name), source.resolve()))

    def gather(self):
        """Until no library asks for another one; then every file gets its new names."""
        for binary in self.binaries:  # grows meanwhile
            names = {name: "@rpath/" + self.place_of(self.resolved(name, binary))
                     for name in binary.loads if not name.startswith(SYSTEM)}
            rename(binary, names, [RPATH] if binary is self.executable else [])
        (self.contents / "Resources").mkdir(exist_ok=True)
        # Qt's own paths, those of the machine that built it, are not to be searched.
        (self.contents / "Resources" / "qt.conf").write_text("[Paths]\nPlugins = PlugIns\n", encoding="utf-8")

    def resolved(self, name, binary):
        """The library's real path."""
        if name.startswith("@rpath/"):
            candidates = [expanded(rpath, owner, self.executable) + name[len("@rpath") :]
                          for owner in (binary, self.executable) for rpath in owner.rpaths]
        else:
            candidates = [expanded(name, binary, self.executable)]
        for candidate in map(Path, candidates):
            if candidate.is_file():
                return candidate.resolve()
        raise Failure(f"{binary.origin} needs {name}, which is not there")

    def place_of(self, library):
        """Copies the library unless it was copied; its path below Contents/Frameworks."""
        if library not in self.places:
            framework = FRAMEWORK.fullmatch(str(library))
            if framework:
                place = f"{framework['name']}.framework/Versions/{framework['version']}/{framework['name']}"
            else:
                place = Path(Binary(library, library).id or library).name
            if place in self.places.values():
                raise Failure(f"two libraries want to be {place}; one is {library}")
            self.places[library] = place
            binary = Binary(copied(library, self.frameworks / place), library)
            binary.new_id = "@rpath/" + place
            self.binaries.append(binary)
            if framework:
                complete_framework(Path(framework["root"]), self.frameworks, framework["version"])
        return self.places[library]

    def check(self):
        """Reads everything once more, as it is now."""
        problems = []
        for path in sorted(self.mach_o_files()):
            binary = Binary(path, path)
            for name in binary.loads:
                inside = name.startswith("@rpath/") and (self.frameworks / name[len("@rpath/") :]).is_file()
                if not inside and not name.startswith(SYSTEM):
                    problems.append(f"{path} points out of the bundle: {name}")
            expected = [RPATH] if path == self.executable.path else []
            if binary.rpaths != expected:
                problems.append(f"{path} has the run-time paths {binary.rpaths} instead of {expected}")
        if problems:
            raise Failure("\n".join(problems))

    def mach_o_files(self):
        yield self.executable.path
        for folder in (self.frameworks, self.contents / "PlugIns"):
            for path in folder.rglob("*"):
                if path.is_file() and not path.is_symlink() and "Resources" not in path.relative_to(folder).parts:
                    yield path

    def tell_minimum_system(self):
        stated = self.info["LSMinimumSystemVersion"]
        needed = max((binary.minimum_system for binary in self.binaries), key=version_of)
        if version_of(needed) > version_of(stated):
            self.info["LSMinimumSystemVersion"] = needed
            with open(self.info_file, "wb") as file:
                plistlib.dump(self.info, file)
            print(f"warning: the libraries were built for macOS {needed}, so the bundle needs {needed}, not {stated}")


def copied(source, target):
    """A file that can be changed; the packages' own are often read-only."""
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(source, target)
    target.chmod(0o755)
    return target


def complete_framework(source, frameworks, version):
    """What a framework needs beside its library to be one: its property list, and the links to this version."""
    target = frameworks / source.name
    shutil.copytree(source / "Versions" / version / "Resources", target / "Versions" / version / "Resources")
    (target / "Versions" / "Current").symlink_to(version)
    for name in (source.stem, "Resources"):
        (target / name).symlink_to(Path("Versions") / "Current" / name)


def rename(binary, names, kept_rpaths):
    """Gives the file its new id, the libraries it loads their new names, and takes the other run-time paths away."""
    arguments = ["-id", binary.new_id] if binary.new_id else []
    for old, new in names.items():
        arguments += ["-change", old, new]
    if arguments:
        change(binary, arguments)
    # A file may have a path twice, and a call may name it only once.
    while surplus := [rpath for rpath in Binary(binary.path, binary.path).rpaths if rpath not in kept_rpaths]:
        change(binary, [argument for rpath in dict.fromkeys(surplus) for argument in ("-delete_rpath", rpath)])


def change(binary, arguments):
    run = subprocess.run(["install_name_tool", *arguments, str(binary.path)], capture_output=True, text=True)
    if run.returncode != 0:
        raise Failure(f"{binary.path}: install_name_tool: {run.stderr.strip()}")


def main(arguments):
    if len(arguments) < 3:
        sys.exit("usage: bundle_libraries.py BUNDLE QT_PLUGINS PLUGIN...")
    try:
        bundle = Bundle(Path(arguments[0]).absolute())
        for name in arguments[2:]:
            bundle.add_plugin(Path(arguments[1]), name)
        bundle.gather()
        bundle.tell_minimum_system()
        bundle.check()
    except (Failure, OSError) as failure:
        sys.exit(f"bundle_libraries: {failure}")
    print(f"{len(bundle.binaries)} files, {len(bundle.places)} of them libraries")


if __name__ == "__main__":
    main(sys.argv[1:])
