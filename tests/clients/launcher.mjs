// The client for Node.js as launcher-check wants it: one short recording, and an exit code that tells.
//   node launcher.mjs RECORDER OUTPUT LOGS
import { Recording } from '../../clients/node/index.js';

const [recorder, output, logDirectory] = process.argv.slice(2);
// Longer than the fake is slow, otherwise short.
const limits = { connect: 4000, ready: 6000, duration: 2000, exit: 1500, terminate: 1000 };
let recording;
try {
    recording = await Recording.start({ recorder, output, logDirectory, window: 77, limits });
    await recording.ready.catch((error) => {
        if (error.code !== 'NO_READINESS')
            throw error;
    });
    recording.click({ x: 10, y: 20, nx: 0.5, ny: 0.5 });
    const { wasReady } = await recording.stop();
    await recording.exit();
    process.exitCode = wasReady ? 0 : 1;
} catch (error) {
    console.error(error.code, error.message);
    process.exitCode = 1;
} finally {
    await recording?.dispose();
}
