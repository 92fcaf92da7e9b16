// The recorder as a launcher sees it, without recording. fakerecorder.cpp tells how it is steered.
#pragma once

/// Whole life of the process; gives its exit code. FAKE_RECORDER_NOTES is set.
int runFakeRecorder(int argc, char** argv);
