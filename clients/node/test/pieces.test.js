// Replies in whatever pieces they arrive, and lines of the log likewise.
import assert from 'node:assert/strict';
import { test } from 'node:test';

import { LineTail, finalizedOutput } from '../lib/log.js';
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
    assert.equal(finalizedOutput(String.raw`Debug: FFmpeg recorder finalized output "/a \"b\" \\ ü.mkv" duration 3 (:0, )`),
        '/a "b" \\ ü.mkv');
    assert.equal(finalizedOutput('Debug: something else "/a.mp4"'), undefined);
});
