// Recording: one recorder, from its start to its end. What it promises is in index.d.ts.
import { spawn } from 'node:child_process';
import { EventEmitter, once } from 'node:events';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';

import { RecorderError } from './error.js';
import { LineTail, LogFollower, finalizedOutput } from './log.js';
import { readOptions } from './options.js';
import * as privateDirectory from './privatedirectory.js';
import { EXIT, ReplyReader, STOP, clickLine } from './protocol.js';

const LOG_POLL_MS = 100;
const LOST_CONNECTION_MS = 500; // between the end of the connection and that of the process
const LAST_REPLIES_MS = 1000; // for what a recorder that has ended left in the socket
const KEPT_LINES = 20; // in an error
const CAPTURE_FAILED = 2; // exit code
// Of the log: nothing will be recorded, and nothing else tells.
const NO_OUTPUT_TEXTS = ['Unable to open video output file', 'Unable to write FFmpeg output header'];

/** A promise with its two ends. Nobody has to await it: a rejection that nobody sees is no fault of the program. */
function deferred() {
    const result = {};
    result.promise = new Promise((resolve, reject) => Object.assign(result, { resolve, reject }));
    result.promise.catch(() => {});
    return result;
}

// A log file is named after the moment of the start, to the microsecond: two recorders do not start into one directory
// at once.
const turns = new Map();

async function inTurn(directory, start) {
    const before = turns.get(directory);
    const turn = deferred();
    turns.set(directory, turn.promise);
    await before;
    try {
        return await start(turn.resolve);
    } catch (error) {
        turn.resolve();
        throw error;
    } finally {
        turn.promise.then(() => turns.get(directory) === turn.promise && turns.delete(directory));
    }
}

export class Recording extends EventEmitter {
    #options;
    #directory; // of the socket
    #server;
    #process;
    #socket = null;
    #replies = new ReplyReader();
    #log;
    #stderr = new LineTail();
    #timers = new Map();

    #connected = deferred();
    #ready = deferred();
    #duration = deferred();
    #ended = deferred();
    #fault = null; // why the recorder was ended: [code, message]
    #isReady = false; // before the stop
    #isAnswered = false; // the stop
    #end = null; // of the process: {exitCode, signal}
    #stopping = null; // the promises that were given out
    #exiting = null;
    #disposing = null;

    /** Listens, then starts the recorder. */
    static async start(options) {
        const checked = readOptions(options);
        return inTurn(checked.logDirectory, async (letNextStart) => {
            const recording = new Recording(checked);
            await recording.#start();
            Promise.race([recording.#connected.promise, recording.ended]).then(letNextStart, letNextStart);
            return recording;
        });
    }

    constructor(options) {
        super();
        if (!options?.arguments)
            throw new TypeError('use await Recording.start(options)');
        this.#options = options;
    }

    get ready() {
        return this.#ready.promise;
    }

    get ended() {
        return this.#ended.promise;
    }

    get isReady() {
        return this.#isReady;
    }

    get pid() {
        return this.#process.pid;
    }

    get logFile() {
        this.#log.read();
        return this.#log.path;
    }

    // ==== start ==================================================================================================

    async #start() {
        try {
            fs.mkdirSync(this.#options.logDirectory, { recursive: true });
            fs.accessSync(this.#options.logDirectory, fs.constants.W_OK | fs.constants.X_OK);
            this.#directory = privateDirectory.make();
            await this.#listen();
            await this.#spawn();
        } catch (cause) {
            this.#cleanUp();
            const message = `cannot start ${this.#options.recorder}: ${cause.message}`;
            throw new RecorderError('NOT_STARTED', message, { cause });
        }
    }

    async #listen() {
        this.#server = net.createServer((socket) => this.#takeConnection(socket));
        this.#server.listen(path.join(this.#directory, 'orvantis-recorder'));
        await once(this.#server, 'listening');
    }

    /** In a session of its own: a Ctrl-C in the terminal is for the launcher, which ends the recording in order. */
    async #spawn() {
        const since = Date.now();
        this.#process = spawn(this.#options.recorder, this.#options.arguments, {
            detached: true,
            env: {
                ...process.env,
                ORVANTIS_END_WITH_LAUNCHER: '1',
                ...this.#options.environment,
                TMPDIR: this.#directory,
            },
            stdio: ['ignore', 'ignore', 'pipe'],
        });
        this.#process.once('exit', (exitCode, signal) => this.#onExit(exitCode, signal));
        this.#process.stderr.on('data', (bytes) => this.#stderr.take(bytes));
        this.#limit('connect', () => this.#giveUp('NOT_CONNECTED', 'the recorder did not connect in time'));
        this.#limit('ready',
            () => this.#ready.reject(this.#error('NO_READINESS', 'the window gave no image in time')));
        await once(this.#process, 'spawn');
        this.#process.on('error', () => {}); // a signal that could not be sent
        this.#log = new LogFollower(this.#options.logDirectory, this.pid, since, (line) => this.#onLogLine(line));
        this.#timers.set('log', setInterval(() => this.#log.read(), LOG_POLL_MS));
    }

    #takeConnection(socket) {
        this.#server.close(); // the recorder connects once
        if (this.#socket || this.#end) {
            socket.destroy();
            return;
        }
        this.#socket = socket;
        this.#clear('connect');
        socket.on('data', (bytes) => this.#replies.take(bytes).forEach((reply) => this.#onReply(reply)));
        socket.on('error', () => {}); // "close" follows
        socket.on('close', () => this.#onDisconnected());
        this.#connected.resolve();
    }

    // ==== what the launcher wants ================================================================================

    click(click) {
        const line = clickLine(click);
        if (this.#end && !this.#stopping && !this.#exiting)
            throw this.#error(...this.#reasonOfEnd());
        if (!this.#socket?.writable || this.#stopping || this.#exiting)
            throw this.#error('NOT_RECORDING', 'clicks are for the time from the connection to the stop');
        this.#socket.write(line);
    }

    stop() {
        this.#stopping ??= this.#stop();
        this.#stopping.catch(() => {});
        return this.#stopping;
    }

    async #stop() {
        if (this.#exiting)
            throw this.#error('NOT_RECORDING', 'the recorder was told to exit before');
        await this.#untilConnected();
        const wasReady = this.#isReady;
        this.#socket.write(STOP);
        this.#limit('duration', () => this.#giveUp('NO_REPLY', 'the recorder did not answer "stop" in time'));
        const duration = await this.#duration.promise;
        this.#clear('duration');
        this.#ready.reject(this.#error('STOPPED_BEFORE_READY', 'it was stopped before the window gave an image'));
        const file = this.#finishedFile();
        if (file === null)
            throw this.#error('NO_FILE', 'the recorder wrote no file');
        return { duration, file, wasReady };
    }

    exit() {
        this.#exiting ??= this.#exit();
        this.#exiting.catch(() => {});
        return this.#exiting;
    }

    async #exit() {
        await this.#stopping?.catch(() => {});
        if (!this.#end || !this.#isAnswered)
            await this.#sendExit();
        const { exitCode, signal } = await this.ended;
        this.#ready.reject(this.#error('STOPPED_BEFORE_READY', 'the recorder was told to exit before it was ready'));
        if (this.#fault)
            throw this.#error(...this.#fault);
        if (exitCode !== 0)
            throw this.#error(signal ? 'CRASHED' : 'BAD_EXIT',
                `the recorder did not end well (${this.#endInWords()})`);
        return exitCode;
    }

    async #sendExit() {
        await this.#untilConnected();
        const { exit, duration } = this.#options.limits;
        this.#socket.write(EXIT);
        // Without a stop the file is still to be finished.
        this.#limit('exit', () => this.#giveUp('NOT_ENDED', 'the recorder did not end in time'),
            this.#stopping ? exit : exit + duration);
    }

    /** The wait for the readiness ends with it, too. */
    async #untilConnected() {
        this.#clear('ready');
        await this.#connected.promise;
        if (this.#end)
            throw this.#error(...this.#reasonOfEnd());
    }

    dispose() {
        this.#disposing ??= this.#dispose();
        return this.#disposing;
    }

    async #dispose() {
        if (!this.#exiting && !this.#end)
            await this.stop().catch(() => {});
        await this.exit().catch(() => {});
        await this.ended;
    }

    // ==== what the recorder does =================================================================================

    #onReply(reply) {
        if (reply.type === 'ready' && !this.#stopping) {
            this.#isReady = true;
            this.#clear('ready');
            this.#ready.resolve();
        } else if (reply.type === 'duration' && this.#stopping) {
            this.#isAnswered = true;
            this.#duration.resolve(reply.duration);
        } else if (reply.type !== 'ready') {
            this.#giveUp('BAD_REPLY', `the recorder said ${JSON.stringify(reply.text ?? reply)}, which is no answer`);
        }
    }

    #onDisconnected() {
        if (!this.#end && !this.#exiting)
            this.#limit('lost',
                () => this.#giveUp('CONNECTION_LOST', 'the recorder closed the connection and lives on'),
                LOST_CONNECTION_MS);
    }

    #onLogLine(line) {
        this.emit('log', line);
        if (line.level === 'warning')
            this.emit('warning', line);
        else if (line.level === 'critical' || line.level === 'fatal')
            this.emit('critical', line);
        if (NO_OUTPUT_TEXTS.some((text) => line.text.startsWith(text)))
            this.#ready.reject(this.#error('NO_FILE', 'the recorder cannot write the output'));
    }

    /** SIGTERM, with which the recorder finishes its file, then SIGKILL. What waits is told when it has ended. */
    #giveUp(code, message) {
        if (this.#fault || this.#end)
            return;
        this.#fault = [code, message];
        this.#process.kill('SIGTERM');
        this.#limit('terminate', () => this.#process.kill('SIGKILL'));
    }

    async #onExit(exitCode, signal) {
        this.#end = { exitCode, signal };
        await this.#lastReplies();
        this.#cleanUp();
        this.#log?.read();
        this.#log?.close();
        this.#ended.resolve({ ...this.#end });
        const error = this.#error(...this.#reasonOfEnd());
        for (const waiting of [this.#connected, this.#duration])
            waiting.reject(error);
        if (!this.#exiting)
            this.#ready.reject(error);
        this.emit('ended', { ...this.#end });
    }

    /** A connection or a reply can still be on its way to this process. */
    async #lastReplies() {
        const late = new Promise((resolve) => this.#timers.set('late', setTimeout(resolve, LAST_REPLIES_MS)));
        if (!this.#socket)
            await new Promise((resolve) => setImmediate(() => setImmediate(resolve)));
        if (this.#socket && !this.#socket.closed)
            await Promise.race([new Promise((resolve) => this.#socket.once('close', resolve)), late]);
    }

    /** When it was not told to end. */
    #reasonOfEnd() {
        if (this.#fault)
            return this.#fault;
        if (this.#end.signal)
            return ['CRASHED', `the recorder was ended by ${this.#end.signal}`];
        if (this.#end.exitCode === CAPTURE_FAILED && !this.#isReady)
            return ['CAPTURE_FAILED', 'the recorder could not set up the capture of the window'];
        return ['ENDED_EARLY', `the recorder ended before it was told to (${this.#endInWords()})`];
    }

    #endInWords() {
        return this.#end.signal ?? `exit code ${this.#end.exitCode}`;
    }

    /** The file that the recorder has closed: its suffix can differ from the one that was asked for. */
    #finishedFile() {
        this.#log.read();
        const named = this.#log.finalized ?? this.#stderr.lines.map(finalizedOutput).findLast((file) => file);
        return named && fs.existsSync(named) ? named : null;
    }

    // ==== odds and ends ==========================================================================================

    #error(code, message) {
        this.#log?.read();
        return new RecorderError(code, message, {
            exitCode: this.#end?.exitCode ?? null,
            signal: this.#end?.signal ?? null,
            logFile: this.#log?.path ?? null,
            logLines: this.#log?.lines.slice(-KEPT_LINES) ?? [],
            stderrLines: this.#stderr.lines.slice(-KEPT_LINES),
            file: this.#log?.finalized ?? null,
        });
    }

    #limit(name, onOver, limitMs = this.#options.limits[name]) {
        this.#clear(name);
        this.#timers.set(name, setTimeout(onOver, limitMs));
    }

    #clear(name) {
        clearTimeout(this.#timers.get(name));
        this.#timers.delete(name);
    }

    #cleanUp() {
        for (const name of [...this.#timers.keys()])
            this.#clear(name);
        this.#socket?.destroy();
        this.#server?.close();
        if (this.#directory)
            privateDirectory.remove(this.#directory);
    }
}

// Where the runtime has it: "await using recording = await Recording.start(...)".
if (Symbol.asyncDispose) {
    Object.defineProperty(Recording.prototype, Symbol.asyncDispose, {
        value() {
            return this.dispose();
        },
    });
}
