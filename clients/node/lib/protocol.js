// The bytes on the control socket: what the recorder says, in whatever pieces it arrives, and what it is told.
import { RecorderError } from './error.js';

export const STOP = '{"action":"stop"}\n';
export const EXIT = '{"action":"exit"}\n';

const READINESS = 0x31; // "1"
const LINE_FEED = 0x0a;
const LONGEST_LINE = 4096; // a reply has about 20 bytes
const SHOWN_BYTES = 80;

/** Takes bytes as they come. Gives what is complete: {type: 'ready'}, {type: 'duration', duration} or {type: 'wrong',
 * text}. */
export class ReplyReader {
    #buffer = Buffer.alloc(0);
    #isReady = false;

    take(bytes) {
        this.#buffer = Buffer.concat([this.#buffer, bytes]);
        const replies = [];
        for (let reply = this.#next(); reply; reply = this.#next())
            replies.push(reply);
        return replies;
    }

    #next() {
        if (!this.#isReady && this.#buffer[0] === READINESS) {
            this.#isReady = true;
            this.#buffer = this.#buffer.subarray(1);
            return { type: 'ready' };
        }
        const end = this.#buffer.indexOf(LINE_FEED);
        if (end < 0 && this.#buffer.length <= LONGEST_LINE)
            return null;
        const line = end < 0 ? this.#buffer : this.#buffer.subarray(0, end);
        this.#buffer = end < 0 ? Buffer.alloc(0) : this.#buffer.subarray(end + 1);
        return parsed(line);
    }
}

function parsed(line) {
    const wrong = { type: 'wrong', text: line.subarray(0, SHOWN_BYTES).toString() };
    if (line.length > LONGEST_LINE)
        return wrong;
    try {
        const duration = JSON.parse(line.toString())?.duration;
        return Number.isFinite(duration) && duration >= 0 ? { type: 'duration', duration } : wrong;
    } catch {
        return wrong;
    }
}

/** The line of one click. Throws a RecorderError with the code BAD_OPTION. */
export function clickLine({ x, y, nx = -1, ny = -1, time = Date.now() }) {
    for (const [name, value] of Object.entries({ x, y, nx, ny, time })) {
        if (typeof value !== 'number' || !Number.isFinite(value))
            throw new RecorderError('BAD_OPTION', `the click's ${name} is ${value}, no number`);
    }
    return `click|${x}|${y}|${nx}|${ny}|${Math.round(time)}\n`;
}
