#!/usr/bin/env python3
"""What scripts/bench makes of its measurements: missed slots, memory, paintings, and whether an aim is met.

    bench_test.py SOURCE_DIRECTORY
"""
import dataclasses
import mmap
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(sys.argv.pop(1)) / "bench"))

import aims
import cases
import memory
import recorded
import sidebyside
import tables

SLOT_MS = 41


def times(count, without=()):
    return [number * SLOT_MS for number in range(count) if number not in without]


def row(**changes):
    values = {field.name: 1.0 for field in dataclasses.fields(sidebyside.Row)}
    return sidebyside.Row(**{**values, "processor": 80.0, "x_server": 20.0, "ready_ms": 150.0, "peak_mib": 100.0,
                             "missed": 0, **changes})


def case(name):
    return next(one for one in cases.CASES if one.name == name)


def verdicts(name, seconds, *pairs):
    """what: (figure, result) for runs with these rows of this recorder and of ffmpeg."""
    runs = [sidebyside.Run(seconds, this=this, audio=this, ffmpeg=ffmpeg) for this, ffmpeg in pairs]
    return {what: (figure, result) for _, what, figure, _, result in aims.rows([(case(name), runs)])}


class Slots(unittest.TestCase):
    def test_every_missing_frame_counts(self):
        self.assertEqual(recorded.missed_slots(times(100), SLOT_MS), 0)
        self.assertEqual(recorded.missed_slots(times(100, without=(7, 8, 50)), SLOT_MS), 3)

    def test_first_frame_before_its_time_misses_nothing(self):
        moved = [0] + [time_ms + 21 for time_ms in times(100)[1:]]
        moved[30] += 31
        self.assertEqual(recorded.gaps_with_missed_slots(moved, SLOT_MS), [])
        del moved[50]
        self.assertEqual([slots for _, slots in recorded.gaps_with_missed_slots(moved, SLOT_MS)], [1])
        self.assertEqual(recorded.missed_slots(times(100, without=(1, 50)), SLOT_MS), 2)

    def test_only_what_was_missed_late_counts_as_late(self):
        early = times(1464, without=range(10, 60))
        self.assertEqual(recorded.missed_late_percent(early, SLOT_MS, 4), 0)
        self.assertEqual(recorded.missed_slots(early, SLOT_MS), 50)
        late = times(1098, without=range(300, 320))
        self.assertAlmostEqual(recorded.missed_late_percent(late, SLOT_MS, 4), 100 * 20 / 1000, places=6)

    def test_a_gap_over_the_limit_is_not_lost(self):
        self.assertGreater(recorded.missed_late_percent(times(300, without=range(90, 110)), SLOT_MS, 4), 0)

    def test_nothing_can_be_said_of_a_short_recording(self):
        self.assertRaises(RuntimeError, recorded.missed_late_percent, times(90), SLOT_MS, 4)


class Memory(unittest.TestCase):
    ROLLUP = ("7f00-7fff ---p 00000000 00:00 0  [rollup]\n"
              "Rss:  1200 kB\nPss:  507 kB\nPss_Anon:  300 kB\nPss_File:  7 kB\nPss_Shmem:  200 kB\n")
    STATUS = "Name:\tsome kB\nVmHWM:\t 2000 kB\nRssAnon:\t 300 kB\nRssFile:\t 50 kB\nRssShmem:\t 850 kB\n"

    def test_mapped_shared_memory_is_not_counted_again(self):
        self.assertEqual(memory.held_kib(self.ROLLUP, self.STATUS, 0), 550)
        self.assertEqual(memory.held_kib(self.ROLLUP, self.STATUS, 200), 550)

    def test_shared_memory_that_is_not_mapped_counts(self):
        self.assertEqual(memory.held_kib(self.ROLLUP, self.STATUS, 350), 700)

    def test_shared_memory_counts_once_however_often_it_is_mapped(self):
        content = bytes(16 * 1024 * 1024)
        descriptor = os.memfd_create("mapped")
        os.truncate(descriptor, len(content))
        mappings = [mmap.mmap(descriptor, len(content)) for _ in range(3)]
        before = memory.PeakMemory(os.getpid())
        before.look()
        for mapping in mappings:
            mapping.write(content)
        os.close(descriptor)
        after = memory.PeakMemory(os.getpid())
        after.look()
        self.assertAlmostEqual(after.mib() - before.mib(), 16, delta=2)

    def test_a_memory_file_counts_once_and_without_a_mapping(self):
        before = memory.shared_files_kib(os.getpid())
        descriptor = os.memfd_create("counted")
        second = os.dup(descriptor)
        os.write(descriptor, bytes(1024 * 1024))
        self.assertEqual(memory.shared_files_kib(os.getpid()) - before, 1024)
        os.close(descriptor)
        os.close(second)
        self.assertEqual(memory.shared_files_kib(os.getpid()), before)

    def test_the_peak_of_this_process_is_seen(self):
        peak = memory.PeakMemory(os.getpid())
        peak.look()
        small = peak.mib()
        block = bytearray(os.urandom(1024)) * (32 * 1024)
        peak.look()
        self.assertGreater(peak.mib() - small, 31)
        del block
        high = peak.mib()
        peak.look()
        self.assertEqual(peak.mib(), high)

    def test_the_end_of_the_process_ends_nothing_else(self):
        process = subprocess.Popen(["sleep", "60"])
        peak = memory.PeakMemory(process.pid)
        peak.look()
        seen = peak.mib()
        process.kill()
        process.wait()
        peak.look()
        self.assertEqual(peak.mib(), seen)

    def test_what_was_never_seen_is_not_small(self):
        self.assertRaises(RuntimeError, memory.PeakMemory(os.getpid()).mib)


class Phases(unittest.TestCase):
    def test_each_level_tells_its_painting(self):
        for phase in range(recorded.PHASES):
            luma = 16 + (16 + phase * 32) * 219 / 255
            for error in (-6, 0, 6):
                self.assertEqual(recorded.phase_of(luma + error), phase)

    def test_what_lies_between_tells_none(self):
        self.assertIsNone(recorded.phase_of(16 + 64 * 219 / 255))
        self.assertIsNone(recorded.phase_of(16))

    def test_squares_lie_in_the_part_that_changes(self):
        self.assertEqual(case("1080p-quarter").phase_squares(), [(33, 33), (1887, 237)])
        self.assertEqual(case("4k-all").phase_squares(), [(270, 270), (3570, 1890)])
        self.assertEqual(case("1080p-unchanged").phase_squares(), [])


class Aims(unittest.TestCase):
    def test_a_figure_at_the_limit_meets_it(self):
        result = verdicts("1080p-quarter", 10, (row(processor=40, peak_mib=260), row()))
        self.assertEqual(result["CPU with the X server's, of ffmpeg's"], ("0.60", "met"))
        self.assertEqual(result["peak memory"], ("260 MiB", "met"))

    def test_a_figure_just_above_the_limit_is_missed_and_reads_like_it(self):
        result = verdicts("1080p-quarter", 10, (row(peak_mib=260.2), row()))
        self.assertEqual(result["peak memory"], ("260.2 MiB", "missed"))
        self.assertEqual(result["CPU with the X server's, of ffmpeg's"], ("1.00", "missed"))

    def test_a_short_run_proves_only_itself(self):
        self.assertEqual(verdicts("4k-still", 10, (row(), row()))["missed slots"], ("0", "met in 10 s of 60"))
        self.assertEqual(verdicts("4k-still", 60, (row(), row()))["missed slots"], ("0", "met"))
        self.assertEqual(verdicts("4k-still", 10, (row(missed=1), row()))["missed slots"], ("1", "missed"))

    def test_one_bad_run_misses_slots_and_the_median_decides_the_rest(self):
        pairs = [(row(missed=missed, peak_mib=peak), row()) for missed, peak in ((0, 900), (2, 2000), (0, 1000))]
        result = verdicts("4k-quarter", 60, *pairs)
        self.assertEqual(result["missed slots"], ("2", "missed"))
        self.assertEqual(result["peak memory"], ("1000 MiB", "met"))

    def test_the_slowest_launch_counts(self):
        runs = [[sidebyside.Run(10, this=row(ready_ms=ready), ffmpeg=row())] for ready in (150, 201)]
        last = aims.rows([(case("1080p-still"), runs[0]), (case("1080p-all"), runs[1])])[-1]
        self.assertEqual(last, ["the slowest: 1920x1080, all changes", "launch to readiness", "201 ms", "200 ms",
                                "missed"])

    def test_the_long_case_is_recorded_with_audio_alone(self):
        run = sidebyside.Run(600, audio=row(missed=1))
        results = [(case("1080p-quarter-10min"), [run])]
        self.assertEqual([line[1:] for line in aims.rows(results)], [["missed slots, with audio", "1", "0", "missed"]])
        self.assertIn("| the same with audio |", tables.all_of(results))
        self.assertEqual(tables.ratios(results), "")

    def test_every_aim_has_its_case_and_can_be_met_by_a_long_run(self):
        for aim in aims.AIMS:
            self.assertGreaterEqual(case(aim.case).long_s, aim.seconds)


if __name__ == "__main__":
    unittest.main()
