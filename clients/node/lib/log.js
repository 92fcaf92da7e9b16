// The recorder's log file: found among others, followed while it grows.
import fs from 'node:fs';
import path from 'node:path';

const NAME = /-orvantis-recorder-log\.txt$/;
const FINALIZED = /^Debug: FFmpeg recorder finalized output ("(?:[^"\\]|\\.)*")/;
const LINE = /^(Debug|Warning|Critical|Fatal|Info): (.*) \(.*:\d+, .*\)$/;
const CHUNK = 64 * 1024;
const KEPT_LINES = 200;
const CLOCK_SLACK_MS = 2000; // file systems round times

/** Keeps the last lines of what comes in pieces. */
export class LineTail {
    lines = [];
    #rest = '';
    #decoder = new TextDecoder();

    /** Gives the lines that these bytes completed. */
    take(bytes) {
        const pieces = (this.#rest + this.#decoder.decode(bytes, { stream: true })).split('\n');
        this.#rest = pieces.pop().slice(-CHUNK);
        this.lines.push(...pieces);
        this.lines.splice(0, this.lines.length - KEPT_LINES);
        return pieces;
    }
}

export class LogFollower {
    path = null; // as long as it is not found
    finalized = null; // the file that the recorder has closed
    #directory;
    #identity;
    #since;
    #descriptor = null;
    #closed = false;
    #tail = new LineTail();
    #onLine;

    /** onLine: called with {level, text, line} for every line. since: a moment before the recorder was started. */
    constructor(directory, pid, since, onLine) {
        this.#directory = directory;
        this.#identity = `\nDebug: recorder process identity pid ${pid} `; // the blank makes it the whole number
        this.#since = since - CLOCK_SLACK_MS;
        this.#onLine = onLine;
    }

    get lines() {
        return this.#tail.lines;
    }

    /** Reads what is new. A log that cannot be read has no lines; the recording goes on without. */
    read() {
        try {
            if (this.path === null && !this.#closed)
                this.#find();
            if (this.#descriptor !== null)
                this.#readOn();
        } catch {
            this.close();
        }
    }

    close() {
        this.#closed = true;
        if (this.#descriptor !== null)
            fs.closeSync(this.#descriptor);
        this.#descriptor = null;
    }

    #find() {
        for (const name of fs.readdirSync(this.#directory)) {
            const candidate = path.join(this.#directory, name);
            if (!NAME.test(name) || !this.#mayBeOurs(fs.lstatSync(candidate)))
                continue;
            const descriptor = fs.openSync(candidate, fs.constants.O_RDONLY | fs.constants.O_NOFOLLOW);
            const start = Buffer.alloc(CHUNK);
            const size = fs.readSync(descriptor, start, 0, CHUNK, 0);
            const isOurs = this.#mayBeOurs(fs.fstatSync(descriptor));
            if (isOurs && `\n${start.toString('utf8', 0, size)}`.includes(this.#identity)) {
                this.path = candidate;
                this.#descriptor = descriptor;
                return;
            }
            fs.closeSync(descriptor);
        }
    }

    /** The directory can be one where others write, too. */
    #mayBeOurs(status) {
        return status.isFile() && status.uid === process.geteuid() && status.mtimeMs >= this.#since;
    }

    #readOn() {
        const chunk = Buffer.alloc(CHUNK);
        for (let size = 1; size > 0;) {
            size = fs.readSync(this.#descriptor, chunk, 0, CHUNK, null);
            for (const line of this.#tail.take(chunk.subarray(0, size)))
                this.#takeLine(line);
        }
    }

    #takeLine(line) {
        this.finalized = finalizedOutput(line) ?? this.finalized;
        const match = LINE.exec(line);
        this.#onLine({ level: match ? match[1].toLowerCase() : '', text: match ? match[2] : line, line });
    }
}

/** The file that a line says to be closed; nothing for other lines. */
export function finalizedOutput(line) {
    const match = FINALIZED.exec(line);
    try {
        // The escapes are JSON's, but for a few that names hardly have.
        return match ? JSON.parse(match[1]) : undefined;
    } catch {
        return undefined;
    }
}
