// The type declarations: a launcher in TypeScript compiles, strictly, and does what they promise.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { test } from 'node:test';
import { fileURLToPath, pathToFileURL } from 'node:url';

import { place } from './fake.js';

const here = path.dirname(fileURLToPath(import.meta.url));

/** Compiles the launcher in a directory where the package is installed. */
function compiled(test) {
    const directory = place(test);
    fs.mkdirSync(path.join(directory, 'node_modules'));
    fs.symlinkSync(path.dirname(here), path.join(directory, 'node_modules', 'orvantis-recorder'));
    fs.writeFileSync(path.join(directory, 'package.json'), '{"type":"module"}');
    fs.copyFileSync(path.join(here, 'typed.ts'), path.join(directory, 'typed.ts'));
    const { status, stdout, error } = spawnSync('tsc', ['--strict', '--target', 'es2022', '--module', 'node16',
        '--moduleResolution', 'node16', 'typed.ts'], { cwd: directory, encoding: 'utf8' });
    assert.equal(error, undefined);
    assert.equal(stdout, '');
    assert.equal(status, 0);
    return path.join(directory, 'typed.js');
}

test('a launcher in TypeScript', async (t) => {
    const file = compiled(t);
    const launcher = await import(pathToFileURL(file));
    const directory = path.dirname(file);
    const notes = path.join(directory, 'notes');
    fs.mkdirSync(notes);
    const options = {
        recorder: process.env.LAUNCHER_CHECK,
        window: 1n,
        output: path.join(directory, 'clip.mp4'),
        environment: { FAKE_RECORDER_MODE: '', FAKE_RECORDER_NOTES: notes, FAKE_RECORDER_CHECKS: '1' },
    };
    const [result, code, seen] = await launcher.record(options);
    assert.deepEqual([result, code], [{ duration: 1234, file: options.output, wasReady: true }, 0]);
    assert.ok(seen.includes('ended 0 null'), seen);
    assert.equal(seen.at(-1), 'true true true 0');
    assert.ok(seen.some((line) => /^debug\d+$/.test(line)), seen);
    assert.deepEqual(await launcher.disposed(options), { exitCode: 0, signal: null });
    assert.deepEqual(await launcher.failure({ ...options, recorder: '/nowhere' }), ['NOT_STARTED', 0]);
});
