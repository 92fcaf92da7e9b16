// What a recording is started with: checked here, because the recorder takes a number that it cannot read for 0.
import path from 'node:path';

import { RecorderError } from './error.js';

// Milliseconds; docs/control-protocol.md gives the reasons.
const USUAL_LIMITS = {
    connect: 10_000,
    ready: 30_000,
    duration: 60_000,
    exit: 10_000,
    terminate: 70_000,
};
const OPTIONS = ['recorder', 'window', 'output', 'canvas', 'origin', 'scale', 'audio', 'logDirectory', 'environment',
    'limits'];
const SMALLEST_CANVAS = 16; // pixels

function refuse(message) {
    throw new RecorderError('BAD_OPTION', message);
}

function checkNames(what, object, names) {
    for (const name of Object.keys(object)) {
        if (!names.includes(name))
            refuse(`${what} has no "${name}"; there are ${names.join(', ')}`);
    }
}

function text(name, value) {
    if (typeof value !== 'string' || value.includes('\0'))
        refuse(`${name} is no text`);
    return value;
}

function filePath(name, value) {
    if (text(name, value) === '')
        refuse(`${name} is empty`);
    return path.resolve(value);
}

function whole(name, value, least = -(2 ** 31)) {
    if (!Number.isInteger(value) || value < least || value > 2 ** 31 - 1)
        refuse(`${name} is ${value}, no whole number${least > 0 ? ` of at least ${least}` : ''}`);
    return String(value);
}

function windowId(value) {
    const form = typeof value === 'string' ? /^([0-9]+|0[xX][0-9a-fA-F]+)$/.test(value)
        : typeof value === 'bigint' || Number.isSafeInteger(value);
    if (!form || BigInt(value) <= 0n)
        refuse(`window is ${String(value)}, no window id (a number, or its text in decimal or after 0x)`);
    return BigInt(value).toString();
}

function limits(given) {
    checkNames('limits', given, Object.keys(USUAL_LIMITS));
    const result = { ...USUAL_LIMITS, ...given };
    for (const [name, value] of Object.entries(result)) {
        if (!(value > 0 && value < 2 ** 31)) // what a timer can hold
            refuse(`limits.${name} is ${value}, no number of milliseconds`);
    }
    return result;
}

/** The ten arguments, and what the launcher's own end needs. Throws a RecorderError with the code BAD_OPTION. */
export function readOptions(options) {
    checkNames('start', options, OPTIONS);
    const { recorder = 'orvantis-recorder', canvas = { width: 1280, height: 720 } } = options;
    const { origin = { x: 0, y: 0 }, scale = 1, audio = '', environment = {} } = options;
    if (text('recorder', recorder) === '')
        refuse('recorder is empty');
    if (!Number.isFinite(scale))
        refuse(`scale is ${scale}, no number`);
    const output = filePath('output', options.output);
    const logDirectory = filePath('logDirectory', options.logDirectory ?? path.dirname(output));
    return {
        recorder,
        output,
        logDirectory,
        environment,
        limits: limits(options.limits ?? {}),
        arguments: [
            logDirectory,
            'qt-window-capture',
            output,
            windowId(options.window),
            whole('origin.x', origin.x),
            whole('origin.y', origin.y),
            whole('canvas.width', canvas.width, SMALLEST_CANVAS),
            whole('canvas.height', canvas.height, SMALLEST_CANVAS),
            String(scale),
            text('audio', audio),
        ],
    };
}
