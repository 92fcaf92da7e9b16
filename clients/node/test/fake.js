// The fake recorder (launcher-check in the recorder's place) and a directory for one test.
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

import { Recording } from 'orvantis-recorder';

const program = process.env.LAUNCHER_CHECK;
if (!program)
    throw new Error('LAUNCHER_CHECK names no program');

/** A place for one test; gone when the test is. */
export function place(test) {
    const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kit-'));
    test.after(() => fs.rmSync(directory, { recursive: true, force: true }));
    return directory;
}

/** Starts a recording with the fake recorder in that mode. recording.note(name) is what the fake has noted. */
export async function start(test, mode, options = {}) {
    const directory = place(test);
    const notes = path.join(directory, 'notes');
    fs.mkdirSync(notes);
    const recording = await Recording.start({
        recorder: program,
        window: 77,
        output: path.join(directory, 'clip.mp4'),
        environment: { FAKE_RECORDER_MODE: mode, FAKE_RECORDER_NOTES: notes, FAKE_RECORDER_CHECKS: '1' },
        ...options,
    });
    test.after(() => recording.dispose());
    recording.directory = directory;
    recording.note = (name) => fs.readFileSync(path.join(notes, name), 'utf8');
    return recording;
}

export function isAlive(pid) {
    try {
        process.kill(pid, 0);
        return true;
    } catch {
        return false;
    }
}
