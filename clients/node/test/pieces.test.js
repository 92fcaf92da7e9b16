// Replies in whatever pieces they arrive, and lines of the log likewise.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { test } from 'node:test';

import { LineTail, LogFollower, finalizedOutput } from '../lib/log.js';
import { ReplyReader } from '../lib/protocol.js';

const duration = { type: 'duration', duration: 41 };
const ready = { type: 'ready' };

function replies(...pieces) {
    const reader = new ReplyReader();
    return pieces.flatMap((piece) => reader.take(Buffer.from(piece)));
}

test('byte and line in one read', () => assert.deepEqual(replies('1{"duration":41}\n'), [ready, duration]));
test('byte by byte', () => assert.deepEqual(replies(...'1{"duration":41}\n'), [ready, duration]));
test('a line without the byte', () => assert.deepEqual(replies('{"duration":41}\n'), [duration]));
test('no line without its line feed', () => assert.deepEqual(replies('1', '{"duration":41}'), [ready]));

for (const wrong of ['12{"duration":41}\n', 'x\n', '\n', '{"duration":"41"}\n', '{"duration":-1}\n', 'null\n'])
    test(`wrong: ${JSON.stringify(wrong)}`, () => assert.equal(replies(wrong).at(-1).type, 'wrong'));

test('a line longer than any answer, with and without its end', () => {
    const long = `{"duration":41,"more":"${'x'.repeat(5000)}"}`;
    assert.deepEqual(replies('1', `${long}\n`, '{"duration":41}\n').map(({ type }) => type),
        ['ready', 'wrong', 'duration']);
    assert.deepEqual(replies('1', long).map(({ type }) => type), ['ready', 'wrong']);
});

test('characters of the log that are cut in two', () => {
    const tail = new LineTail();
    const bytes = Buffer.from('Größe\nnext');
    assert.deepEqual([...bytes].flatMap((byte) => tail.take(Buffer.of(byte))), ['Größe']);
});

test('the name of a file as the log quotes it', () => {
    const line = String.raw`Debug: FFmpeg recorder finalized output "/a \"b\" \\ ü.mkv" duration 3 (:0, )`;
    assert.equal(finalizedOutput(line), '/a "b" \\ ü.mkv');
    assert.equal(finalizedOutput(`Debug: 3 ${line}`), undefined);
    assert.equal(finalizedOutput('Debug: something else "/a.mp4"'), undefined);
});

/** What a follower makes of a directory with that one log in it. */
function found(t, write) {
    const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kit-'));
    t.after(() => fs.rmSync(directory, { recursive: true }));
    const log = path.join(directory, '1-orvantis-recorder-log.txt');
    write(log, directory);
    const follower = new LogFollower(directory, 42, Date.now(), () => {});
    follower.read();
    follower.close();
    return follower.path === log;
}

test('only the recorder\'s own log is believed', (t) => {
    const line = 'Debug: recorder process identity pid 42 applicationFilePath "/r" (:0, )\n';
    assert.equal(found(t, (log) => fs.writeFileSync(log, `Debug: 0 /r (:0, )\n${line}`)), true);
    assert.equal(found(t, (log) => fs.writeFileSync(log, line.replace('42', '421'))), false);
    assert.equal(found(t, (log) => fs.writeFileSync(log, `Debug: 3 ${line}`)), false);
    assert.equal(found(t, (log, directory) => {
        fs.writeFileSync(path.join(directory, 'planted'), line);
        fs.symlinkSync('planted', log);
    }), false);
    assert.equal(found(t, (log) => {
        fs.writeFileSync(log, line);
        fs.utimesSync(log, 1, 1);
    }), false);
});
