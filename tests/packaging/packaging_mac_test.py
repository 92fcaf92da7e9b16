#!/usr/bin/env python3
"""The bundle for macOS: what it states of itself agrees with the code, and scripts/package-macos does what it says.

The script runs in a tree of its own, with standin.py under the names of macOS's tools. So its own steps are tested,
and what they ask of the tools; the tools themselves are not.

    packaging_mac_test.py SOURCE_DIRECTORY INFO_PLIST VERSION
"""
import json
import os
import plistlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(sys.argv[1])
INFO_FILE = Path(sys.argv[2])
VERSION = sys.argv[3]
IDENTITY = "Developer ID Application: Somebody (ABCDE12345)"
RPATH = "@executable_path/../Frameworks"
SYSTEM_LIBRARY = "/usr/lib/libSystem.B.dylib"


def text(path):
    return (SOURCE / path).read_text(encoding="utf-8")


class StatedByTheBundle(unittest.TestCase):
    def setUp(self):
        self.info = plistlib.loads(INFO_FILE.read_bytes())

    def test_nothing_is_left_unfilled(self):
        self.assertEqual(re.findall(r"@\w*@|\$\{", INFO_FILE.read_text(encoding="utf-8")), [])

    def test_queue_of_the_audio_carries_the_identifier(self):
        label = re.search(r'queueLabel = "([^"]+)"', text("capture/recorderaudiocapture.cpp"))[1]
        self.assertEqual(label, self.info["CFBundleIdentifier"] + ".screencapturekit.audio")

    def test_version_is_the_projects(self):
        self.assertEqual(self.info["CFBundleShortVersionString"], VERSION)
        self.assertEqual(self.info["CFBundleVersion"], VERSION)

    def test_executable_is_the_target(self):
        self.assertIn(f"add_executable({self.info['CFBundleExecutable']}\n", text("app/CMakeLists.txt"))
        self.assertEqual(self.info["CFBundlePackageType"], "APPL")

    def test_oldest_system(self):
        self.assertEqual(self.info["LSMinimumSystemVersion"], "13.0")

    def test_no_dock_icon_and_no_nap(self):
        self.assertIs(self.info["LSUIElement"], True)
        self.assertIs(self.info["LSAppNapIsDisabled"], True)

    def test_no_reason_for_what_is_not_asked_for(self):
        """The permission to record the screen has no text of the program's; that of audio is for other calls."""
        self.assertEqual([key for key in self.info if key.endswith("UsageDescription")], [])

    def test_hardened_runtime_without_exceptions(self):
        content = text("app/macos/orvantis-recorder.entitlements")
        self.assertEqual(plistlib.loads(content.encode()), {})
        # The parser that reads entitlements refuses what others take for a comment.
        self.assertNotIn("<!--", content)


class Mac:
    """A tree with the script, a build, Homebrew's libraries and the tools."""

    def __init__(self, root):
        self.root = root.resolve()
        self.brew = self.root / "homebrew"
        self.build = self.root / "built"
        self.executable = self.build / "bin/orvantis-recorder.app/Contents/MacOS/orvantis-recorder"
        self.tree = self.root / "tree"
        self.app = self.tree / "build/package/orvantis-recorder.app"
        self.log = self.root / "calls"
        for path in ("scripts/package-macos", "scripts/build", "scripts/setup", "app/macos/bundle_libraries.py",
                     "app/macos/orvantis-recorder.entitlements"):
            (self.tree / path).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(SOURCE / path, self.tree / path)
        tools = self.root / "tools"
        tools.mkdir()
        for name in ("uname", "otool", "install_name_tool", "codesign", "cmake", "ditto", "plutil", "xcrun", "spctl",
                     "brew"):
            (tools / name).symlink_to(SOURCE / "tests/packaging/standin.py")
        (tools / "python3").symlink_to(sys.executable)
        self.environment = {
            "PATH": f"{tools}:{os.environ['PATH']}",
            "STANDIN_LOG": str(self.log),
            "STANDIN_BUILD": str(self.build),
            "STANDIN_PLUGINS": str(self.brew / "share/qt/plugins"),
        }
        self.fill()

    def fill(self):
        """As Homebrew lays its libraries out: read-only, by absolute names and by names relative to the library."""
        cellar = self.brew / "Cellar"
        qt = cellar / "qtbase/6.9.0"
        ffmpeg = cellar / "ffmpeg/8.0/lib"
        self.binary(ffmpeg / "libavutil.60.8.100.dylib", "/brew/opt/ffmpeg/lib/libavutil.60.dylib")
        self.link(ffmpeg / "libavutil.60.dylib", "libavutil.60.8.100.dylib")
        self.binary(ffmpeg / "libavcodec.62.11.100.dylib", "/brew/opt/ffmpeg/lib/libavcodec.62.dylib",
                    [str(ffmpeg / "libavutil.60.dylib"), "@rpath/libwebp.7.dylib"], [str(self.brew / "lib")] * 2)
        self.link(ffmpeg / "libavcodec.62.dylib", "libavcodec.62.11.100.dylib")
        self.binary(self.brew / "lib/libwebp.7.dylib", "/brew/opt/webp/lib/libwebp.7.dylib",
                    ["@loader_path/libsharpyuv.0.dylib"])
        self.binary(self.brew / "lib/libsharpyuv.0.dylib", "@rpath/libsharpyuv.0.dylib")
        self.link(self.brew / "opt/ffmpeg", "../Cellar/ffmpeg/8.0")
        self.framework(qt, "QtCore", ["/System/Library/Frameworks/CoreFoundation.framework/Versions/A/CoreFoundation"])
        self.framework(qt, "QtGui", ["@rpath/QtCore.framework/Versions/A/QtCore"])
        self.binary(qt / "share/qt/plugins/platforms/libqcocoa.dylib", "",
                    ["@rpath/QtGui.framework/Versions/A/QtGui"], ["@loader_path/../../../../lib"])
        self.link(self.brew / "share", "Cellar/qtbase/6.9.0/share")
        (self.brew / "bin").mkdir()
        (self.brew / "bin/qtpaths").symlink_to(SOURCE / "tests/packaging/standin.py")

        self.binary(self.executable, "",
                    [str(qt / "lib/QtGui.framework/Versions/A/QtGui"), "@rpath/QtCore.framework/Versions/A/QtCore",
                     str(self.brew / "opt/ffmpeg/lib/libavcodec.62.dylib"),
                     str(self.brew / "opt/ffmpeg/lib/libavutil.60.dylib")],
                    [RPATH, str(qt / "lib")])
        shutil.copy(INFO_FILE, self.executable.parent.parent / "Info.plist")
        (self.build / "CMakeCache.txt").write_text(f"Qt6_DIR:PATH={self.brew}/lib/cmake/Qt6\n", encoding="utf-8")

    def binary(self, path, name, loads=(), rpaths=(), minimum="13.0", architectures=("x86_64", "arm64")):
        path.parent.mkdir(parents=True, exist_ok=True)
        if path.exists():
            path.unlink()
        path.write_text(json.dumps({
            "id": name, "loads": [SYSTEM_LIBRARY, *loads], "rpaths": list(rpaths), "minos": minimum,
            "architectures": architectures}), encoding="utf-8")
        path.chmod(0o755 if path == self.executable else 0o444)

    def framework(self, qt, name, loads):
        version = qt / f"lib/{name}.framework/Versions/A"
        self.binary(version / name, f"@rpath/{name}.framework/Versions/A/{name}", loads, ["@loader_path/../../../"])
        (version / "Resources").mkdir()
        (version / "Resources/Info.plist").write_bytes(plistlib.dumps({"CFBundleExecutable": name}))
        (version / "Headers").mkdir()
        self.link(version.parent / "Current", "A")
        self.link(version.parent.parent / name, f"Versions/Current/{name}")

    @staticmethod
    def link(path, target):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.symlink_to(target)

    def package(self, *arguments, **environment):
        return subprocess.run([self.tree / "scripts/package-macos", *arguments], text=True, capture_output=True,
                              env=self.environment | environment, cwd=self.root, check=False)

    def calls(self, *start):
        lines = [json.loads(line) for line in self.log.read_text(encoding="utf-8").splitlines()]
        return [line for line in lines if line[: len(start)] == list(start)]

    def packaged(self):
        """Every object file of the bundle by its path below Contents."""
        contents = self.app / "Contents"
        found = {}
        for path in contents.rglob("*"):
            if path.is_file() and not path.is_symlink() and path.suffix not in (".plist", ".conf"):
                found[str(path.relative_to(contents))] = json.loads(path.read_text(encoding="utf-8"))
        return found

    def signatures(self):
        return {name: binary.get("signed") for name, binary in self.packaged().items()}


class PackagedForATrial(unittest.TestCase):
    """One call of the script without arguments."""

    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.mac = Mac(Path(directory.name))
        cls.packaging = cls.mac.package()
        if cls.packaging.returncode != 0:
            raise AssertionError(cls.packaging.stderr)

    def test_what_is_in_the_bundle(self):
        self.assertEqual(sorted(self.mac.packaged()), [
            "Frameworks/QtCore.framework/Versions/A/QtCore", "Frameworks/QtGui.framework/Versions/A/QtGui",
            "Frameworks/libavcodec.62.dylib", "Frameworks/libavutil.60.dylib", "Frameworks/libsharpyuv.0.dylib",
            "Frameworks/libwebp.7.dylib", "MacOS/orvantis-recorder", "PlugIns/platforms/libqcocoa.dylib"])
        gui = self.mac.app / "Contents/Frameworks/QtGui.framework"
        self.assertEqual(plistlib.loads((gui / "Resources/Info.plist").read_bytes()), {"CFBundleExecutable": "QtGui"})
        self.assertEqual((gui / "QtGui").resolve(), gui / "Versions/A/QtGui")
        self.assertFalse((gui / "Versions/A/Headers").exists())

    def test_plug_ins_are_where_the_program_looks(self):
        relative = re.findall(r'"((?:\.\./)+PlugIns)"', text("app/startup.cpp"))
        self.assertEqual(len(relative), 2)
        beside, outside = relative
        self.assertTrue((self.mac.app / "Contents/MacOS" / beside / "platforms/libqcocoa.dylib").is_file())
        # Of a launcher that carries the bundle in its Contents/Helpers.
        nested = os.path.normpath(f"Launcher.app/Contents/Helpers/{self.mac.app.name}/Contents/MacOS/{outside}")
        self.assertEqual(nested, "Launcher.app/Contents/PlugIns")
        self.assertEqual((self.mac.app / "Contents/Resources/qt.conf").read_text(encoding="utf-8"),
                         "[Paths]\nPlugins = PlugIns\n")

    def test_every_name_leads_into_the_bundle(self):
        binaries = self.mac.packaged()
        loads = {name for binary in binaries.values() for name in binary["loads"]}
        self.assertEqual({name for name in loads if not name.startswith(("/usr/lib/", "/System/"))}, {
            "@rpath/QtCore.framework/Versions/A/QtCore", "@rpath/QtGui.framework/Versions/A/QtGui",
            "@rpath/libavcodec.62.dylib", "@rpath/libavutil.60.dylib", "@rpath/libsharpyuv.0.dylib",
            "@rpath/libwebp.7.dylib"})
        for name, binary in binaries.items():
            self.assertEqual(binary["rpaths"], [RPATH] if name.startswith("MacOS/") else [], name)
            if name.startswith("Frameworks/"):
                self.assertEqual(binary["id"], "@rpath/" + name[len("Frameworks/") :])

    def test_build_is_left_alone(self):
        built = self.mac.tree / "build/release/bin/orvantis-recorder.app"
        self.assertEqual((built / "Contents/MacOS/orvantis-recorder").read_bytes(),
                         self.mac.executable.read_bytes())
        self.assertFalse((built / "Contents/Frameworks").exists())

    def test_ad_hoc_is_signed_and_warned_of(self):
        self.assertEqual(set(map(tuple, self.mac.signatures().values())), {("-", None, None)})
        self.assertIn("warning: signed ad hoc", self.packaging.stderr)
        self.assertEqual(self.mac.calls("xcrun"), [])


class Packaging(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.mac = Mac(Path(directory.name))

    def package(self, *arguments, **environment):
        run = self.mac.package(*arguments, **environment)
        self.assertEqual(run.returncode, 0, run.stderr)
        return run

    def refused(self, message, *arguments, code=1, **environment):
        run = self.mac.package(*arguments, **environment)
        self.assertEqual(run.returncode, code, run.stderr)
        self.assertIn(message, run.stderr)
        return run

    def test_twice_gives_the_same(self):
        self.package()
        first = self.mac.packaged()
        self.package()
        self.assertEqual(self.mac.packaged(), first)

    def test_another_output_directory(self):
        self.package("--output", "elsewhere")  # of the caller's directory
        self.assertTrue((self.mac.root / f"elsewhere/orvantis-recorder-{VERSION}-arm64.zip").is_file())
        self.assertFalse(self.mac.app.exists())

    def test_libraries_for_a_newer_system_raise_the_oldest(self):
        self.mac.binary(self.mac.brew / "lib/libsharpyuv.0.dylib", "@rpath/libsharpyuv.0.dylib", minimum="15.0")
        run = self.package()
        self.assertIn("warning: the libraries were built for macOS 15.0", run.stdout)
        info = plistlib.loads((self.mac.app / "Contents/Info.plist").read_bytes())
        self.assertEqual(info, plistlib.loads(INFO_FILE.read_bytes()) | {"LSMinimumSystemVersion": "15.0"})

    def test_libraries_for_older_systems_do_not_lower_it(self):
        self.mac.binary(self.mac.brew / "lib/libsharpyuv.0.dylib", "@rpath/libsharpyuv.0.dylib", minimum="9.0")
        self.assertNotIn("warning: the libraries", self.package().stdout)
        self.assertEqual((self.mac.app / "Contents/Info.plist").read_bytes(), INFO_FILE.read_bytes())

    def test_missing_library(self):
        (self.mac.brew / "lib/libsharpyuv.0.dylib").unlink()
        self.refused("needs @loader_path/libsharpyuv.0.dylib, which is not there")
        self.assertEqual(self.mac.calls("codesign"), [])

    def test_two_libraries_of_one_name(self):
        other = self.mac.root / "other/libwebp.7.dylib"
        self.mac.binary(other, "/other/libwebp.7.dylib")
        self.mac.binary(self.mac.brew / "lib/libsharpyuv.0.dylib", "@rpath/libsharpyuv.0.dylib", [str(other)])
        self.refused("two libraries want to be libwebp.7.dylib")

    def test_library_for_another_processor(self):
        self.mac.binary(self.mac.brew / "lib/libwebp.7.dylib", "/brew/libwebp.7.dylib", architectures=["x86_64"])
        self.refused("libwebp.7.dylib: otool cannot read it for arm64")

    def test_missing_plug_in(self):
        (self.mac.brew / "share/qt/plugins/platforms/libqcocoa.dylib").unlink()
        self.refused("platforms/libqcocoa.dylib is not there")

    def test_executable_without_its_run_time_path(self):
        self.mac.binary(self.mac.executable, "", [], [])
        self.refused("has the run-time paths [] instead of")

    def test_identity_brings_the_hardened_runtime(self):
        run = self.package("--sign", IDENTITY)
        signatures = self.mac.signatures()
        self.assertEqual(signatures.pop("MacOS/orvantis-recorder"),
                         [IDENTITY, "runtime", "app/macos/orvantis-recorder.entitlements"])
        self.assertEqual(set(map(tuple, signatures.values())), {(IDENTITY, "runtime", None)})
        self.assertTrue(all("--timestamp" in call for call in self.mac.calls("codesign") if "--sign" in call))
        self.assertNotIn("ad hoc", run.stderr)
        self.assertEqual(self.mac.calls("xcrun"), [])

    def test_identity_of_the_environment(self):
        self.package(ORVANTIS_SIGN_IDENTITY=IDENTITY)
        self.assertEqual(self.mac.signatures()["Frameworks/libwebp.7.dylib"], [IDENTITY, "runtime", None])

    def test_notarised(self):
        self.package("--sign", IDENTITY, "--notarise", "shop")
        archive = str(self.mac.app.parent / f"orvantis-recorder-{VERSION}-arm64.zip")
        app = str(self.mac.app)
        tools = [call for call in self.mac.calls() if call[0] in ("ditto", "xcrun", "spctl")]
        archiving = ["ditto", "-c", "-k", "--keepParent", app, archive]
        self.assertEqual(tools, [
            archiving, ["xcrun", "notarytool", "submit", archive, "--keychain-profile", "shop", "--wait"],
            ["xcrun", "stapler", "staple", app], ["spctl", "--assess", "--type", "execute", app], archiving])

    def test_refused_by_apple(self):
        run = self.refused("the bundle has no ticket of Apple's", "--sign", IDENTITY, STANDIN_NOTARY_REFUSES="1",
                           ORVANTIS_NOTARY_PROFILE="shop")
        self.assertIn("status: Invalid", run.stderr)
        self.assertIn("The signature is invalid.", run.stderr)
        self.assertEqual(self.mac.calls("xcrun")[-1],
                         ["xcrun", "notarytool", "log", "2efe-27", "--keychain-profile", "shop"])

    def test_notarising_needs_an_identity(self):
        self.refused("Apple notarises only what an identity has signed", "--notarise", "shop", code=2)

    def test_wrong_arguments(self):
        self.assertIn("usage:", self.refused("unknown argument --fast", "--fast", code=2).stderr)
        for option in ("--sign", "--notarise", "--output"):
            self.refused(f"{option} needs a value", option, code=2)
            self.refused(f"{option} needs a value", option, "", code=2)

    def test_help(self):
        self.assertTrue(self.package("--help").stdout.startswith("usage: scripts/package-macos"))
        self.assertFalse(self.mac.log.exists())

    def test_other_machines_are_refused(self):
        self.refused("the bundle is for arm64; this is x86_64", STANDIN_MACHINE="x86_64")
        if sys.platform != "darwin":
            run = self.refused("a bundle is made on macOS; this is", PATH=os.environ["PATH"])
            self.assertEqual(run.stdout, "")
        self.assertFalse((self.mac.tree / "build").exists())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
