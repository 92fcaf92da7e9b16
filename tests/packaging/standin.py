#!/usr/bin/env -S python3 -S -E
"""Stands in for macOS's tools, under whose names it is linked. A Mach-O file is a JSON text here:
{"id": ..., "loads": [...], "rpaths": [...], "minos": ..., "architectures": [...], "signed": ...}

Every call is a line in $STANDIN_LOG, a JSON list. The tools refuse what the real ones refuse. One run of the script
calls them about a hundred times, so they start without what most of them do not use.
"""
import json
import os
import sys
from pathlib import Path


def refuse(text):
    sys.exit(f"{Path(sys.argv[0]).name}: {text}")


def read(path):
    try:
        return json.loads(Path(path).read_text(encoding="utf-8"))
    except ValueError:
        refuse(f"{path} is no object file")


def write(path, binary):
    Path(path).write_text(json.dumps(binary), encoding="utf-8")


def option(arguments, name):
    return arguments[arguments.index(name) + 1] if name in arguments else None


def uname(arguments):
    print({"-s": "Darwin", "-m": os.environ.get("STANDIN_MACHINE", "arm64")}[arguments[0]])


def otool(arguments):
    architecture, path = option(arguments, "-arch"), arguments[-1]
    binary = read(path)
    if architecture not in binary["architectures"]:
        refuse(f"{path} does not contain architecture {architecture}")
    commands = [("LC_SEGMENT_64", [("segname", "__TEXT")])]
    if binary["id"]:
        commands.append(("LC_ID_DYLIB", [("name", binary["id"] + " (offset 24)"), ("current version", "1.0.0")]))
    commands.append(("LC_BUILD_VERSION", [("platform", "1"), ("minos", binary["minos"]), ("sdk", "99.0"),
                                          ("ntools", "1"), ("tool", "3"), ("version", "1053.12")]))
    for name in binary["loads"]:
        commands.append(("LC_LOAD_DYLIB", [("cmdsize", "56"), ("name", name + " (offset 24)"),
                                           ("time stamp", "2 Thu Jan  1 00:00:02 1970")]))
    for path in binary["rpaths"]:
        commands.append(("LC_RPATH", [("cmdsize", "48"), ("path", path + " (offset 12)")]))
    print(f"{arguments[-1]}:")
    for number, (command, fields) in enumerate(commands):
        print(f"Load command {number}\n{'cmd':>12} {command}")
        for key, value in fields:
            print(f"{key:>12} {value}")


def install_name_tool(arguments):
    path = arguments.pop()
    binary = read(path)
    if not os.access(path, os.W_OK):
        refuse(f"{path} is read-only")
    deleted = set()
    while arguments:
        action = arguments.pop(0)
        if action == "-id":
            binary["id"] = arguments.pop(0)
        elif action == "-change":
            old, new = arguments.pop(0), arguments.pop(0)
            binary["loads"] = [new if name == old else name for name in binary["loads"]]
        elif action == "-delete_rpath":
            rpath = arguments.pop(0)
            if rpath in deleted:
                refuse(f"{action} {rpath} is there twice")
            deleted.add(rpath)
            if rpath not in binary["rpaths"]:
                refuse(f"no LC_RPATH {rpath} in {path}")
            binary["rpaths"].remove(rpath)
        else:
            refuse(f"unknown option {action}")
    binary.pop("signed", None)
    write(path, binary)


def main_file(path):
    """The file that a signature of this path is written to."""
    path = Path(path)
    if path.suffix == ".framework":
        if not (path / "Versions/Current/Resources/Info.plist").is_file():
            refuse(f"{path}: bundle format unrecognized")
        return path / path.stem
    if path.suffix == ".app":
        return path / "Contents/MacOS" / path.stem
    return path


def nested(app):
    return [path for folder in ("Frameworks", "PlugIns") for path in (Path(app) / "Contents" / folder).rglob("*")
            if path.is_file() and "Resources" not in path.parts]


def codesign(arguments):
    if "--verify" in arguments:
        for path in [main_file(arguments[-1]), *nested(arguments[-1])]:
            if "signed" not in read(path):
                refuse(f"{path}: code object is not signed at all")
        return
    values = [option(arguments, name) for name in ("--sign", "--options", "--entitlements")]
    for path in [argument for argument in arguments if argument.startswith("/")]:
        if path.endswith(".app"):
            for part in nested(path):
                if "signed" not in read(part):
                    refuse(f"{path}: code object is not signed at all; in subcomponent: {part}")
        file = main_file(path)
        write(file.resolve(), read(file) | {"signed": values})


def cmake(arguments):
    if "--list-presets=build" in arguments:
        print('Available build presets:\n\n  "release"')
    elif "--build" in arguments:
        import shutil

        shutil.copytree(os.environ["STANDIN_BUILD"], "build/release", dirs_exist_ok=True)


def qtpaths(arguments):
    print({"QT_INSTALL_PLUGINS": os.environ["STANDIN_PLUGINS"]}[option(arguments, "--query")])


def ditto(arguments):
    Path(arguments[-1]).write_text("archive", encoding="utf-8")


def plutil(arguments):
    import plistlib

    print(plistlib.loads(Path(arguments[-1]).read_bytes())[option(arguments, "-extract")])


def xcrun(arguments):
    refused = "STANDIN_NOTARY_REFUSES" in os.environ
    if arguments[:2] == ["notarytool", "submit"]:
        print("Successfully uploaded file\n  id: 2efe-27\nProcessing complete\n  id: 2efe-27\n  status:",
              "Invalid" if refused else "Accepted")
    if arguments[:2] == ["notarytool", "log"]:
        print('{"issues": [{"message": "The signature is invalid."}]}')
    if arguments[0] == "stapler" and refused:
        refuse("Record not found")


def spctl(arguments):
    pass


def brew(arguments):
    pass


if __name__ == "__main__":
    tool = Path(sys.argv[0]).name
    with open(os.environ["STANDIN_LOG"], "a", encoding="utf-8") as log:
        log.write(json.dumps([tool, *sys.argv[1:]]) + "\n")
    globals()[tool](sys.argv[1:])
