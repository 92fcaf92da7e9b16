# Homebrew's formula. Address and checksum are those of an archive that is published nowhere yet: scripts/package writes
# a copy with the archive that it has just made. Never run on a Mac (docs/platforms.md).
class OrvantisRecorder < Formula
  desc "Record one application window into a video file"
  homepage "https://orvantis.invalid/recorder"
  url "https://orvantis.invalid/recorder/orvantis-recorder-0.1.0.tar.gz"
  sha256 "0000000000000000000000000000000000000000000000000000000000000000"
  license "GPL-3.0-or-later"

  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "pkgconf" => :build
  depends_on "ffmpeg"
  depends_on macos: :ventura
  depends_on "qtbase"

  def install
    system "cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DORVANTIS_TESTS=OFF", *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    assert_equal "record-window #{version}\n", shell_output("#{bin}/record-window --version")
    # Too few arguments: a log, and no recording.
    system bin/"orvantis-recorder.app/Contents/MacOS/orvantis-recorder", testpath
    assert_match "invalid param count", File.read(Dir[testpath/"*-orvantis-recorder-log.txt"].first)
  end
end
