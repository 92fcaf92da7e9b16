// Records a Chromium window with its audio and with the clicks that are made in the page, and verifies the file.
//   node record-chromium.js RECORDER OUTPUT
// Needs an X display, an audio server, chromium, xdotool and ffmpeg. Prints one line of JSON.
import { execFile } from 'node:child_process';
import { setTimeout as sleep } from 'node:timers/promises';
import { promisify } from 'node:util';

import { Recording } from '../index.js';
import { Chromium } from './chromium.js';

const run = promisify(execFile);
const title = 'Launcher example';
const canvas = { width: 640, height: 480 };

// The page plays a tone and tells of its clicks: where on the screen, where in the window, and when.
const page = `<!DOCTYPE html><title>${title}</title>
<style>body { margin: 0; background: #dde; } p { animation: move 2s infinite alternate; font: 40px sans-serif; }
@keyframes move { to { transform: translateX(300px); } }</style><p>${title}
<script>
const audio = new AudioContext();
const tone = audio.createOscillator();
tone.frequency.value = 440;
tone.connect(audio.destination);
tone.start();
addEventListener('mousedown', (event) => report(JSON.stringify({
    x: event.screenX, y: event.screenY,
    nx: (event.screenX - screenX) / outerWidth, ny: (event.screenY - screenY) / outerHeight,
    time: performance.timeOrigin + event.timeStamp })));
</script>`;

async function probe(file) {
    const { stdout } = await run('ffprobe', ['-v', 'error', '-count_frames', '-show_entries',
        'stream=codec_type,codec_name,width,height,nb_read_frames:format=duration', '-of', 'json', file]);
    const { streams, format } = JSON.parse(stdout);
    return { streams, seconds: Number(format.duration) };
}

async function loudness(file) {
    const { stderr } = await run('ffmpeg', ['-nostdin', '-i', file, '-af', 'volumedetect', '-vn', '-f', 'null', '-']);
    return Number(/max_volume: (-?[\d.]+) dB/.exec(stderr)?.[1]);
}

/** Throws when the file is not what was recorded. */
async function verify({ file, duration }) {
    const { streams, seconds } = await probe(file);
    const video = streams.find((stream) => stream.codec_type === 'video');
    const audio = streams.find((stream) => stream.codec_type === 'audio');
    const loudest = await loudness(file);
    const checks = {
        'video of the canvas size': video?.width === canvas.width && video?.height === canvas.height,
        'several frames': Number(video?.nb_read_frames) > 10,
        'audio': Boolean(audio),
        'audio that can be heard': loudest > -60,
        'as long as the recorder says': Math.abs(seconds * 1000 - duration) < 1000,
    };
    const missing = Object.keys(checks).filter((name) => !checks[name]);
    if (missing.length > 0)
        throw new Error(`the file lacks: ${missing.join(', ')}`);
    return { frames: Number(video.nb_read_frames), seconds, loudest };
}

const [recorder, output] = process.argv.slice(2);
let recording;
const clicks = [];
const browser = await Chromium.open({ page, size: canvas, onBinding(click) {
    recording.click(click);
    clicks.push(click);
} });
try {
    recording = await Recording.start({
        recorder, output, canvas,
        window: await browser.window(title),
        audio: `app-pid:${browser.pid}`,
    });
    recording.on('warning', ({ text }) => console.error(`warning: ${text}`));
    await recording.ready;
    await sleep(1500);
    await browser.click(200, 300);
    await sleep(1000);
    await browser.click(400, 200);
    await sleep(1500);
    const result = await recording.stop();
    await recording.exit();
    console.log(JSON.stringify({ ...result, clicks, ...await verify(result) }));
} finally {
    await recording?.dispose();
    await browser.close();
}
