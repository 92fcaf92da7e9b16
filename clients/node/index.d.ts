// Starts and steers orvantis-recorder, which records one window into a video file.
// Needs no other declarations, of Node.js neither.

declare global {
    interface SymbolConstructor {
        readonly asyncDispose: unique symbol;
    }
}

/** Milliseconds. The usual values are those of docs/control-protocol.md. */
export interface Limits {
    /** From the start of the process to its connection; 10,000. */
    connect?: number;
    /** From the start of the process to the window's first images; 30,000. */
    ready?: number;
    /** From "stop" to the closed file; 60,000. */
    duration?: number;
    /** From "exit" to the end of the process; 10,000. */
    exit?: number;
    /** From SIGTERM to SIGKILL; 70,000. */
    terminate?: number;
}

export interface StartOptions {
    /** The recorder's binary; `orvantis-recorder`, sought in PATH. */
    recorder?: string;
    /** The window's id: a number, or its text in decimal or after 0x. */
    window: number | bigint | string;
    /** The video. Its suffix becomes .mp4; `stop()` tells the file's real name. */
    output: string;
    /** Size of the video in whole pixels, 16 at least; 1280x720. */
    canvas?: { width: number; height: number };
    /** Origin of the window's screen, whole numbers; logged only. */
    origin?: { x: number; y: number };
    /** Scale of the window's screen; logged only. */
    scale?: number;
    /** `app-pid:` and a process id for one application, anything else for the whole display (the default). */
    audio?: string;
    /** Made when it is missing; the output's directory. */
    logDirectory?: string;
    /** Added to the recorder's environment, which is this process's. */
    environment?: Record<string, string>;
    limits?: Limits;
}

export interface Click {
    /** Global screen points, the origin at the top left of the main display. */
    x: number;
    y: number;
    /** The position as fractions of the window, 0 to 1, when they are known. */
    nx?: number;
    ny?: number;
    /** When it happened, milliseconds since the epoch; now. Up to 3 s late is in time. */
    time?: number;
}

export interface Result {
    /** Length of the recording, milliseconds. */
    duration: number;
    /** The closed file. */
    file: string;
    /** False when the window gave no image before the stop: the file then holds one black frame. */
    wasReady: boolean;
}

export interface ProcessEnd {
    exitCode: number | null;
    signal: string | null;
}

export interface LogLine {
    /** Empty for a line of another form. */
    level: 'debug' | 'info' | 'warning' | 'critical' | 'fatal' | '';
    text: string;
    /** The whole line. */
    line: string;
}

interface Events {
    /** Every line of the log. */
    log: [line: LogLine];
    warning: [line: LogLine];
    /** Also what is fatal. */
    critical: [line: LogLine];
    /** The process has ended, for whatever reason. */
    ended: [end: ProcessEnd];
}

/** One recording by one recorder, an EventEmitter of Node.js. Several may run at once. */
export class Recording {
    private constructor();

    /**
     * Starts a recorder, with a private directory for its control socket, which goes when the process ends. Rejects
     * with BAD_OPTION or NOT_STARTED. The recorder finishes its file and ends when this process dies.
     */
    static start(options: StartOptions): Promise<Recording>;

    /** Half a second before the first frame. Need not be awaited; a rejection that nobody awaits does no harm. */
    readonly ready: Promise<void>;
    /** The end of the process; never rejects. */
    readonly ended: Promise<ProcessEnd>;
    readonly isReady: boolean;
    readonly pid: number;
    /** Null as long as there is none. */
    readonly logFile: string | null;

    /** Reports a click, to be shown in the video. Throws BAD_OPTION, NOT_RECORDING, or why the recorder has ended. */
    click(click: Click): void;
    /** Ends the recording. Once; called again it gives the same promise. */
    stop(): Promise<Result>;
    /** Ends the process, normally after the stop. Resolves with its exit code, 0. */
    exit(): Promise<number>;
    /** Stops and exits what has not been yet, by force if need be. Never rejects. */
    dispose(): Promise<void>;
    /** The same, where the runtime has it (Node.js 18.18 and later). */
    [Symbol.asyncDispose](): Promise<void>;

    on<E extends keyof Events>(event: E, listener: (...values: Events[E]) => void): this;
    once<E extends keyof Events>(event: E, listener: (...values: Events[E]) => void): this;
    off<E extends keyof Events>(event: E, listener: (...values: Events[E]) => void): this;
}

export type ErrorCode =
    | 'BAD_OPTION'
    | 'NOT_STARTED'
    | 'NOT_CONNECTED'
    | 'CAPTURE_FAILED'
    | 'NO_READINESS'
    | 'STOPPED_BEFORE_READY'
    | 'NOT_RECORDING'
    | 'ENDED_EARLY'
    | 'CRASHED'
    | 'CONNECTION_LOST'
    | 'BAD_REPLY'
    | 'NO_REPLY'
    | 'NO_FILE'
    | 'NOT_ENDED'
    | 'BAD_EXIT';

/** What every promise here is rejected with. */
export class RecorderError extends Error {
    constructor(code: ErrorCode, message: string, details?: object);
    readonly code: ErrorCode;
    readonly exitCode: number | null;
    readonly signal: string | null;
    readonly logFile: string | null;
    /** The last lines of the log, and of stderr. */
    readonly logLines: string[];
    readonly stderrLines: string[];
    /** The file that the recorder has closed, if the log names one. */
    readonly file: string | null;
}
