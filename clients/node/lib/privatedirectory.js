// The directory of a recording's control socket. Its mode is 0700: nobody else's program can connect.
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const LONGEST_PARENT = 60; // bytes; a socket's whole path has room for about 100
const made = new Set();

process.on('exit', () => {
    for (const directory of made)
        remove(directory);
});

export function make() {
    const usual = os.tmpdir();
    const parent = Buffer.byteLength(usual) <= LONGEST_PARENT ? usual : '/tmp';
    const directory = fs.mkdtempSync(path.join(parent, `orvantis-${process.pid}-`));
    made.add(directory);
    const { mode, uid } = fs.lstatSync(directory);
    if ((mode & 0o777) !== 0o700 || uid !== process.geteuid())
        throw new Error(`${directory} is not private`);
    return directory;
}

export function remove(directory) {
    made.delete(directory);
    fs.rmSync(directory, { recursive: true, force: true });
}
