// A launcher that starts a recording and waits to be killed. Prints the fake's journal's path when it is ready.
import { start } from './fake.js';

const recording = await start({ after() {} }, '');
await recording.ready;
process.stdout.write(`${recording.directory}/notes/journal`);
