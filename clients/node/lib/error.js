// RecorderError: what became of a recording, for people (message) and for programs (code).

const SHOWN_LINES = 5;

export class RecorderError extends Error {
    /**
     * code is stable, see README.md. details: exitCode, signal, logFile, logLines, stderrLines, file, cause; all of
     * them may be missing.
     */
    constructor(code, message, details = {}) {
        const { cause, ...others } = details;
        super(withLastLines(message, others), cause === undefined ? undefined : { cause });
        this.name = 'RecorderError';
        this.code = code;
        this.exitCode = null;
        this.signal = null;
        this.logFile = null;
        this.logLines = [];
        this.stderrLines = [];
        this.file = null;
        Object.assign(this, others);
    }
}

function withLastLines(message, { logFile, logLines = [], stderrLines = [] }) {
    const from = logLines.length > 0 ? logLines : stderrLines;
    const where = logFile ? `; its log: ${logFile}` : '';
    return [message + where, ...from.slice(-SHOWN_LINES)].join('\n    ');
}
