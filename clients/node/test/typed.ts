// A launcher in TypeScript, against the declarations. It is compiled and run (types.test.js): what is declared exists.
import { Recording, RecorderError } from 'orvantis-recorder';
import type { ErrorCode, LogLine, ProcessEnd, Result, StartOptions } from 'orvantis-recorder';

export async function record(options: StartOptions): Promise<[Result, number, string[]]> {
    const recording: Recording = await Recording.start({ limits: { connect: 10_000, ready: 30_000, duration: 60_000,
        exit: 10_000, terminate: 60_000 }, canvas: { width: 640, height: 360 }, origin: { x: 0, y: 0 }, scale: 1,
    audio: '', ...options });
    const seen: string[] = [];
    const onLine = (line: LogLine): void => void seen.push(line.level + line.text.length + line.line.length);
    recording.on('log', onLine).once('warning', onLine).on('critical', onLine).off('critical', onLine);
    recording.once('ended', (end: ProcessEnd) => seen.push(`ended ${end.exitCode} ${end.signal}`));
    await recording.ready;
    recording.click({ x: 1, y: 2, nx: 0.5, ny: 0.5, time: 1700000000000 });
    recording.click({ x: 1, y: 2 });
    const result = await recording.stop();
    const code = await recording.exit();
    await recording.dispose();
    const end: ProcessEnd = await recording.ended;
    seen.push(`${recording.isReady} ${recording.pid > 0} ${recording.logFile !== null} ${end.exitCode}`);
    return [result, code, seen];
}

export async function disposed(options: StartOptions): Promise<ProcessEnd> {
    const recording = await Recording.start(options);
    await recording[Symbol.asyncDispose]();
    return recording.ended;
}

export async function failure(options: StartOptions): Promise<[ErrorCode, number]> {
    try {
        await Recording.start(options);
        throw new Error('no failure');
    } catch (error) {
        if (!(error instanceof RecorderError))
            throw error;
        return [error.code, error.logLines.length + error.stderrLines.length];
    }
}

// Each of these has to be refused: the compiler complains where nothing is wrong.
export function refused(recording: Recording): void {
    // @ts-expect-error a start without a window
    void Recording.start({ output: 'clip.mp4' });
    // @ts-expect-error a canvas as text
    void Recording.start({ window: 1, output: 'clip.mp4', canvas: '640x360' });
    // @ts-expect-error an option that there is not
    void Recording.start({ window: 1, output: 'clip.mp4', colour: 'red' });
    // @ts-expect-error made by start() only
    void new Recording();
    // @ts-expect-error a click without a place
    recording.click({ nx: 1, ny: 1 });
    // @ts-expect-error an event that there is not
    recording.on('finished', () => undefined);
    // @ts-expect-error no result of "ready"
    void recording.ready.then((value: number) => value);
    // @ts-expect-error given by the recording only
    recording.isReady = true;
}
