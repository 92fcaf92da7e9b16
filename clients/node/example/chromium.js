// A Chromium of this program's own, driven over DevTools: a pipe, so that nobody else can connect to it.
import { execFile, spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { promisify } from 'node:util';

const run = promisify(execFile);

export class Chromium {
    #process;
    #profile = fs.mkdtempSync(path.join(os.tmpdir(), 'chromium-'));
    #buffer = '';
    #lastId = 0;
    #waiting = new Map();
    #session; // with the page
    #onBinding = () => {};

    /** Opens one window with that page. size: of the window. onBinding: called with what the page passes on. */
    static async open({ binary = 'chromium', page, size, onBinding }) {
        const browser = new Chromium();
        browser.#onBinding = onBinding;
        await browser.#start(binary, page, size);
        return browser;
    }

    get pid() {
        return this.#process.pid;
    }

    async #start(binary, page, { width, height }) {
        const file = path.join(this.#profile, 'page.html');
        fs.writeFileSync(file, page);
        const root = process.getuid() === 0 ? ['--no-sandbox'] : [];
        this.#process = spawn(binary, [...root, '--remote-debugging-pipe', `--user-data-dir=${this.#profile}`,
            '--no-first-run', '--disable-gpu', '--disable-background-networking', '--disable-component-update',
            '--disable-sync', '--autoplay-policy=no-user-gesture-required', '--window-position=40,30',
            `--window-size=${width},${height}`, `--app=file://${file}`],
        { stdio: ['ignore', 'ignore', 'ignore', 'pipe', 'pipe'] }); // 3: to the browser, 4: from it
        await once(this.#process, 'spawn');
        this.#process.stdio[3].on('error', () => {});
        this.#process.stdio[4].setEncoding('utf8').on('data', (text) => this.#take(text));
        const end = () => this.#waiting.forEach(({ reject }) => reject(new Error('the browser ended')));
        this.#process.once('exit', end);
        await this.#attach();
    }

    async #attach() {
        let page;
        while (!page) {
            const { targetInfos } = await this.send('Target.getTargets', {});
            page = targetInfos.find(({ type, url }) => type === 'page' && url.startsWith('file:'));
        }
        const { sessionId } = await this.send('Target.attachToTarget', { targetId: page.targetId, flatten: true });
        this.#session = sessionId;
        await this.send('Runtime.enable');
        await this.send('Runtime.addBinding', { name: 'report' });
    }

    #take(text) {
        const messages = (this.#buffer + text).split('\0');
        this.#buffer = messages.pop();
        for (const message of messages.map((one) => JSON.parse(one))) {
            if (message.method === 'Runtime.bindingCalled')
                this.#onBinding(JSON.parse(message.params.payload));
            const waiting = this.#waiting.get(message.id);
            this.#waiting.delete(message.id);
            if (message.error)
                waiting?.reject(new Error(message.error.message));
            else
                waiting?.resolve(message.result);
        }
    }

    send(method, params = {}) {
        const id = ++this.#lastId;
        const message = { id, method, params, ...(this.#session && { sessionId: this.#session }) };
        this.#process.stdio[3].write(`${JSON.stringify(message)}\0`);
        return new Promise((resolve, reject) => this.#waiting.set(id, { resolve, reject }));
    }

    evaluate(expression) {
        return this.send('Runtime.evaluate', { expression });
    }

    async click(x, y) {
        for (const type of ['mousePressed', 'mouseReleased'])
            await this.send('Input.dispatchMouseEvent', { type, x, y, button: 'left', clickCount: 1 });
    }

    /** The id of the window with that title, as soon as it is shown. */
    async window(title) {
        const { stdout } = await run('xdotool',
            ['search', '--sync', '--all', '--onlyvisible', '--pid', String(this.pid), '--name', title],
            { timeout: 30_000 });
        return stdout.trim().split('\n').at(-1);
    }

    async close() {
        if (this.#process.exitCode === null && this.#process.signalCode === null) {
            this.#process.kill();
            await once(this.#process, 'exit');
        }
        fs.rmSync(this.#profile, { recursive: true, force: true, maxRetries: 10 });
    }
}
