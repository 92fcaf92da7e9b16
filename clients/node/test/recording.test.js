// Recordings with a recorder that behaves well or badly: what is promised, what is rejected, what is left behind.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

import { Recording, RecorderError } from 'orvantis-recorder';

import { isAlive, place, start } from './fake.js';

const own = `orvantis-${process.pid}-`;
const leftDirectories = () => fs.readdirSync(os.tmpdir()).filter((name) => name.startsWith(own));
const withCode = (code) => (error) => error instanceof RecorderError && error.code === code;

test('a recording from start to exit', async (t) => {
    const recording = await start(t, '', { canvas: { width: 640, height: 360 }, origin: { x: -5, y: 6 }, scale: 1.5,
        audio: 'app-pid:42', window: '0x4d' });
    await recording.ready;
    assert.equal(recording.isReady, true);
    recording.click({ x: 1.5, y: -2, nx: 0.25, ny: 0.75, time: 1700000000000.4 });
    recording.click({ x: 3, y: 4 });
    assert.deepEqual(await recording.stop(),
        { duration: 1234, file: path.join(recording.directory, 'clip.mp4'), wasReady: true });
    assert.equal(await recording.exit(), 0);
    assert.deepEqual(await recording.ended, { exitCode: 0, signal: null });

    const { directory } = recording;
    assert.deepEqual(recording.note('arguments').split('\0').slice(0, -1), [directory, 'qt-window-capture',
        path.join(directory, 'clip.mp4'), '77', '-5', '6', '640', '360', '1.5', 'app-pid:42']);
    assert.match(recording.note('environment'), /ORVANTIS_END_WITH_LAUNCHER=1\n/);
    const lines = recording.note('lines').split('\n').map((line) => line.replace(/^\d+ /, ''));
    assert.match(lines[1], /^click\|3\|4\|-1\|-1\|\d{13}$/);
    assert.deepEqual([lines[0], ...lines.slice(2)],
        ['click|1.5|-2|0.25|0.75|1700000000000', '{"action":"stop"}', '{"action":"exit"}', '']);
    assert.match(recording.logFile, /-orvantis-recorder-log\.txt$/);
});

test('the socket is private, connects one recorder and is gone afterwards', async (t) => {
    const before = leftDirectories();
    const recording = await start(t, '');
    const [directory] = leftDirectories().filter((name) => !before.includes(name));
    assert.equal(fs.statSync(path.join(os.tmpdir(), directory)).mode & 0o777, 0o700);
    await recording.ready;
    assert.match(recording.note('journal'), / connected 1 700 1 /);
    assert.deepEqual(fs.readdirSync(path.join(os.tmpdir(), directory)), []);
    await recording.dispose();
    assert.deepEqual(leftDirectories(), before);
});

test('a recorder in a session of its own, whatever the terminal sends', async (t) => {
    const recording = await start(t, '');
    await recording.ready;
    const [pid, group] = recording.note('process').split(' ');
    assert.equal(pid, group);
});

test('the file that was really written', async (t) => {
    const recording = await start(t, 'fallback');
    await recording.ready;
    assert.equal((await recording.stop()).file, path.join(recording.directory, 'clip.mkv'));
});

test('a missing binary', async (t) => {
    const before = leftDirectories();
    await assert.rejects(start(t, '', { recorder: '/nowhere/recorder' }),
        (error) => withCode('NOT_STARTED')(error) && error.cause.code === 'ENOENT' && /nowhere/.test(error.message));
    assert.deepEqual(leftDirectories(), before);
});

test('a log directory that cannot be made', async (t) => {
    const file = path.join(place(t), 'file');
    fs.writeFileSync(file, '');
    await assert.rejects(start(t, '', { logDirectory: path.join(file, 'logs') }), withCode('NOT_STARTED'));
});

for (const [mode, code, exitCode, signal] of [['setupfails', 'CAPTURE_FAILED', 2, null],
    ['crashes', 'CRASHED', null, 'SIGKILL']]) {
    test(`ended before it was ready: ${mode}`, async (t) => {
        const recording = await start(t, mode);
        await assert.rejects(recording.ready, (error) => {
            assert.deepEqual([error.code, error.exitCode, error.signal], [code, exitCode, signal]);
            assert.match(error.logLines.join('\n'), /recorder process identity/);
            assert.match(error.stderrLines.join('\n'), /standard error/);
            assert.match(error.message, /recorder process identity/);
            return true;
        });
        await assert.rejects(recording.stop(), withCode(code));
        await assert.rejects(recording.exit(), withCode(code));
    });
}

test('a crash while it records', async (t) => {
    const recording = await start(t, 'crasheslater');
    await recording.ready;
    const [end] = await once(recording, 'ended');
    assert.equal(end.signal, 'SIGKILL');
    assert.throws(() => recording.click({ x: 1, y: 2 }), withCode('CRASHED'));
    await assert.rejects(recording.stop(), withCode('CRASHED'));
    assert.throws(() => recording.click({ x: 1, y: 2 }), withCode('NOT_RECORDING'));
});

test('what a recorder said before its end, to a launcher that was busy', async (t) => {
    const recording = await start(t, 'crasheslater');
    Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, 300); // milliseconds, in which it comes and goes
    await recording.ready;
    await assert.rejects(recording.stop(), withCode('CRASHED'));
});

test('an end without an answer', async (t) => {
    const recording = await start(t, 'noreply');
    await recording.ready;
    await assert.rejects(recording.stop(), (error) => withCode('ENDED_EARLY')(error) && error.exitCode === 3);
});

test('no readiness: the rest works, and the answer comes with the byte', async (t) => {
    const recording = await start(t, 'noimage', { limits: { ready: 50 } });
    await assert.rejects(recording.ready, withCode('NO_READINESS'));
    const { duration, wasReady } = await recording.stop();
    assert.deepEqual([duration, wasReady], [41, false]);
    assert.equal(await recording.exit(), 0);
});

test('a stop before the readiness', async (t) => {
    const recording = await start(t, 'noimage');
    const result = recording.stop();
    await assert.rejects(recording.ready, withCode('STOPPED_BEFORE_READY'));
    assert.equal((await result).wasReady, false);
});

test('an output that cannot be written, which the log tells at once', async (t) => {
    const recording = await start(t, 'nooutput');
    await once(recording, 'log');
    fs.appendFileSync(recording.logFile, 'Critical: Unable to open video output file "/x" : "no" (a.cpp:3, void f())\n');
    await assert.rejects(recording.ready, withCode('NO_FILE'));
    await assert.rejects(recording.stop(), withCode('NO_FILE'));
    assert.equal(await recording.exit(), 0);
});

for (const mode of ['nofile', 'nooutput']) {
    test(`no file: ${mode}`, async (t) => {
        const recording = await start(t, mode, { limits: { ready: 50 } });
        await recording.ready.catch(() => {});
        await assert.rejects(recording.stop(), withCode('NO_FILE'));
        assert.equal(await recording.exit(), 0);
    });
}

for (const [mode, code, limits] of [['nonsense', 'BAD_REPLY', {}], ['deaf', 'NO_REPLY', { duration: 50 }],
    ['stubborn', 'NO_REPLY', { duration: 50, terminate: 50 }]]) {
    test(`no proper answer: ${mode}`, async (t) => {
        const recording = await start(t, mode, { limits });
        await recording.ready;
        await assert.rejects(recording.stop(), withCode(code));
        assert.equal(isAlive(recording.pid), false);
        assert.equal((await recording.ended).signal, mode === 'stubborn' ? 'SIGKILL' : null);
        assert.ok(recording.note('terminated') === '');
    });
}

test('no connection', async (t) => {
    const recording = await start(t, 'nobody', { limits: { connect: 50 } });
    await assert.rejects(recording.ready);
    await assert.rejects(recording.stop(), withCode('NOT_CONNECTED'));
    assert.equal(isAlive(recording.pid), false);
});

test('an exit that is not obeyed', async (t) => {
    const recording = await start(t, 'stays', { limits: { exit: 50 } });
    await recording.ready;
    await recording.stop();
    await assert.rejects(recording.exit(), withCode('NOT_ENDED'));
    assert.equal(isAlive(recording.pid), false);
});

test('an end that was no good one', async (t) => {
    const recording = await start(t, 'badexit');
    await recording.ready;
    await recording.stop();
    await assert.rejects(recording.exit(), (error) => withCode('BAD_EXIT')(error) && error.exitCode === 9);
});

test('dispose ends a recording in order, twice if need be', async (t) => {
    const recording = await start(t, '');
    await recording.ready;
    await Promise.all([recording.dispose(), recording[Symbol.asyncDispose ?? 'dispose'](), recording.exit()]);
    assert.equal((recording.note('lines').match(/"action"/g) ?? []).length, 2);
    assert.equal(isAlive(recording.pid), false);
});

test('several at once, also into one log directory', async (t) => {
    const logDirectory = place(t);
    const recordings = await Promise.all(Array.from({ length: 4 }, () => start(t, '')));
    const shared = await Promise.all(Array.from({ length: 3 }, () => start(t, '', { logDirectory })));
    const all = [...recordings, ...shared];
    const results = await Promise.all(all.map(async (recording) => {
        await recording.ready;
        const { file } = await recording.stop();
        return [file, await recording.exit()];
    }));
    assert.deepEqual(results, all.map(({ directory }) => [path.join(directory, 'clip.mp4'), 0]));
});

test('one after the other into one log directory', async (t) => {
    const logDirectory = place(t);
    const first = await start(t, 'dies', { logDirectory }); // connects when it is told to
    const second = start(t, '', { logDirectory });
    const logs = () => fs.readdirSync(logDirectory).length;
    while (logs() === 0)
        await new Promise((resolve) => setTimeout(resolve, 5));
    await new Promise((resolve) => setTimeout(resolve, 50));
    assert.equal(logs(), 1);
    fs.writeFileSync(path.join(first.directory, 'notes', 'go'), '');
    await (await second).ready;
    assert.equal(logs(), 2);
});

test('an answer with the end of the process right behind it', async (t) => {
    const recording = await start(t, 'quits');
    await recording.ready;
    assert.equal((await recording.stop()).duration, 1234);
    await recording.ended;
    assert.equal(await recording.exit(), 0);
});

test('an exit that does not wait for the stop is said behind the answer', async (t) => {
    const recording = await start(t, 'pieces');
    await recording.ready;
    const [{ duration }, code] = await Promise.all([recording.stop(), recording.exit()]);
    assert.deepEqual([duration, code], [1234, 0]);
    assert.doesNotMatch(recording.note('journal'), / early/);
});

test('a connection that is closed', async (t) => {
    const recording = await start(t, 'hangsup');
    await recording.ready;
    await once(recording, 'ended');
    await assert.rejects(recording.stop(), withCode('CONNECTION_LOST'));
    assert.equal(recording.note('terminated'), '');
});

test('warnings and criticals of the log', async (t) => {
    const recording = await start(t, '');
    const seen = [];
    recording.on('warning', ({ text }) => seen.push(['warning', text]));
    recording.on('critical', ({ text }) => seen.push(['critical', text]));
    await recording.ready;
    const log = recording.logFile;
    fs.appendFileSync(log, 'Warning: audio (of a kind) is late (a.cpp:3, void f())\nDebug: no warning (:0, )\n');
    await once(recording, 'warning');
    fs.appendFileSync(log, 'Critical: the disk is full (a.cpp:3, void f())\n');
    await once(recording, 'critical');
    assert.deepEqual(seen, [['warning', 'audio (of a kind) is late'], ['critical', 'the disk is full']]);
});

test('a recorder ends with a launcher that is killed', async (t) => {
    const script = fileURLToPath(new URL('leaver.js', import.meta.url));
    const directory = place(t);
    const leaver = spawn(process.execPath, [script], {
        env: { ...process.env, TMPDIR: directory }, // it leaves its own behind
        stdio: ['ignore', 'pipe', 'inherit'],
    });
    const [journal] = await once(leaver.stdout, 'data');
    const hungUp = () => / hungup/.test(fs.readFileSync(String(journal), 'utf8'));
    assert.equal(hungUp(), false);
    leaver.kill('SIGKILL');
    await once(leaver, 'exit');
    for (let tries = 0; tries < 1000 && !hungUp(); ++tries)
        await new Promise((resolve) => setTimeout(resolve, 10));
    assert.equal(hungUp(), true);
});

test('options that are refused', async () => {
    const good = { window: 1, output: 'clip.mp4' };
    const wrong = [{ window: undefined }, { window: 'abc' }, { window: 0 }, { window: 1.5 }, { output: '' },
        { output: 3 }, { canvas: { width: 640.5, height: 360 } }, { canvas: { width: 8, height: 360 } },
        { origin: { x: '1', y: 2 } }, { scale: NaN }, { audio: 7 }, { recorder: '' }, { limits: { ready: 0 } },
        { limits: { forever: 1 } }, { colour: 'red' }];
    for (const options of wrong)
        await assert.rejects(Recording.start({ ...good, ...options }), withCode('BAD_OPTION'));
    assert.throws(() => new Recording(), TypeError);
});

test('clicks that are refused', async (t) => {
    const recording = await start(t, '');
    await recording.ready;
    for (const click of [{ x: 1 }, { x: '1', y: 2 }, { x: 1, y: NaN }, { x: 1, y: 2, time: new Date() }])
        assert.throws(() => recording.click(click), withCode('BAD_OPTION'));
    await recording.stop();
    assert.throws(() => recording.click({ x: 1, y: 2 }), withCode('NOT_RECORDING'));
    assert.doesNotMatch(recording.note('lines'), /click/);
});
