// support.mjs: what the tests in this language share: processes, temporary folders, a host app whose answers
// the test writes, and a server that is driven line by line.
//
// Everything made here is gone when the test process ends, however it ends. The server never writes to
// standard error: whatever a process started here writes there fails the test file.

import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import {
    mkdirSync, mkdtempSync, openSync, readFileSync, readdirSync, realpathSync, rmSync, writeFileSync,
} from 'node:fs';
import { createRequire } from 'node:module';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

export function setting(name) {
    const value = process.env[name];
    if (!value) throw new Error(`${name} is not set: start the tests with the script "run" beside them`);
    return value;
}

export const checkout = resolve(dirname(fileURLToPath(import.meta.url)), '../..');

/// The published entries as typed from the requirements, in catalog order.
export function golden(kind) {
    const folder = join(checkout, 'Tests/Golden', kind);
    return readdirSync(folder)
        .sort()
        .map((name) => JSON.parse(readFileSync(join(folder, name), 'utf8')));
}

/// A `require` for the packages that are installed in `folder`, outside the source tree.
export const packagesIn = (folder) => createRequire(join(folder, 'package.json'));

export const pause = (milliseconds) => new Promise((done) => setTimeout(done, milliseconds));

// --- what has to be gone at the end ------------------------------------------------------------------------

const stops = [];
const folders = [];

/// Ends the processes and hosts that a failed test left behind, which would keep the tests from ending.
export const stopAll = () => stops.splice(0).forEach((stop) => stop());
process.on('exit', () => {
    stopAll();
    const complained = readFileSync(complaintsFile, 'utf8');
    for (const folder of folders) rmSync(folder, { recursive: true, force: true });
    if (complained !== '') throw new Error(`standard error was written to:\n${complained}`);
});
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.once(signal, () => process.exit(1));

/// A new folder without symbolic links in its path. The path is short: a socket's path has to fit 104 bytes.
export function temporaryFolder() {
    const base = tmpdir().length <= 20 ? tmpdir() : '/tmp';
    const folder = realpathSync(mkdtempSync(join(base, 'tidewell-')));
    folders.push(folder);
    return folder;
}

// --- processes ---------------------------------------------------------------------------------------------

const complaintsFile = join(temporaryFolder(), 'standard-error');
/// The descriptor of the file that is the standard error of every process started here.
export const complaints = openSync(complaintsFile, 'a');

export function startProcess(command, args, options = {}) {
    const child = spawn(command, args, { stdio: ['pipe', 'pipe', complaints], ...options });
    stops.push(() => child.kill('SIGKILL'));
    child.stdin?.on('error', () => {}); // a program that has ended reads no more; the test judges that
    return child;
}

/// Resolves to [exit status, signal]; one of them is null. To be called before the end can come.
export const endOf = (child) => once(child, 'exit');

// --- JSON as it is written ---------------------------------------------------------------------------------

const tokensOf = (text) => text.match(/"(?:[^"\\]|\\.)*"|[{}[\]:,]|[^\s{}[\]:,"]+/g) ?? [];

function membersWithin(value) {
    if (value === null || typeof value !== 'object') return 0;
    const own = Array.isArray(value) ? 0 : Object.keys(value).length;
    return Object.values(value).reduce((sum, one) => sum + membersWithin(one), own);
}

/// JSON.parse, but an error where an object has a member twice, of which that keeps the last only.
export function parsed(text) {
    const value = JSON.parse(text);
    const written = tokensOf(text).filter((token) => token === ':').length;
    assert.equal(membersWithin(value), written, `a member stands twice in ${text.slice(0, 200)}`);
    return value;
}

/// The members of an object's text by name, each as it is written: 3.0 is not 3, nor "\u0061" "a".
export function membersOf(text) {
    parsed(text);
    const members = {};
    let [name, depth] = [undefined, 0];
    for (const token of tokensOf(text).slice(1, -1)) {
        if (depth === 0 && token === ',') name = undefined;
        else if (name === undefined) members[(name = JSON.parse(token))] = '';
        else if (depth > 0 || token !== ':') members[name] += token;
        depth += { '{': 1, '[': 1, '}': -1, ']': -1 }[token] ?? 0;
    }
    return members;
}

// --- the host app ------------------------------------------------------------------------------------------

/// A host whose answers the test writes: `answer` takes an envelope and gives the reply line, as text or
/// bytes without the line feed, null to hang up, or undefined to stay silent. `lines` are the requests that
/// have come in, `envelopes` the same decoded, `nextEnvelope()` is the one to come.
export async function startScriptedHost(socket, answer) {
    const lines = [];
    const envelopes = [];
    const connections = new Set();
    const waiting = [];
    const host = createServer((connection) => {
        connections.add(connection);
        connection.on('close', () => connections.delete(connection)).on('error', () => {});
        let received = '';
        connection.setEncoding('utf8').on('data', (text) => {
            received += text;
            if (!received.endsWith('\n')) return;
            const envelope = parsed(received);
            lines.push(received);
            received = '';
            envelopes.push(envelope);
            waiting.splice(0).forEach((wake) => wake(envelope));
            const reply = answer(envelope);
            if (reply === undefined) return;
            connection.end(reply === null ? '' : Buffer.concat([Buffer.from(reply), Buffer.from('\n')]));
        });
    });
    mkdirSync(dirname(socket), { recursive: true });
    host.listen(socket);
    await once(host, 'listening');
    stops.push(() => host.close());
    return {
        lines,
        envelopes,
        nextEnvelope: () => new Promise((wake) => waiting.push(wake)),
        answerNow(reply) {
            for (const connection of connections) connection.end(`${reply}\n`);
        },
        async stop() {
            for (const connection of connections) connection.destroy();
            host.close();
            await once(host, 'close');
        },
    };
}

// --- the server --------------------------------------------------------------------------------------------

/// The lines of a stream. Only a line feed ends one. An end within a line is an error, and so is a byte that
/// is no UTF-8.
export async function* linesOf(stream) {
    const decoder = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true });
    let rest = '';
    for await (const bytes of stream) {
        const lines = (rest + decoder.decode(bytes, { stream: true })).split('\n');
        rest = lines.pop();
        yield* lines;
    }
    assert.equal(rest, '', 'the output ended within a line');
}

/// The server as its own client sees it: requests in, reply lines out.
export class Server {
    #child;
    #lines;

    constructor(env = {}, [program, ...args] = [setting('TIDEWELL_SERVER')]) {
        this.#child = startProcess(program, args, { env });
        this.#lines = linesOf(this.#child.stdout);
        this.end = endOf(this.#child);
    }

    /// Text goes out as it is, a message as one line.
    send(...messages) {
        for (const message of messages) {
            this.#child.stdin.write(typeof message === 'string' ? message : `${JSON.stringify(message)}\n`);
        }
    }

    /// The next reply line; undefined at the end of the output.
    async line() {
        return (await this.#lines.next()).value;
    }

    /// The next reply line's message.
    async reply() {
        const line = await this.line();
        return line === undefined ? undefined : parsed(line);
    }

    async ask(message) {
        this.send(message);
        return this.reply();
    }

    closeInput() {
        this.#child.stdin.end();
    }

    stopReading() {
        this.#child.stdout.destroy();
    }

    kill(signal) {
        this.#child.kill(signal);
    }

    get isRunning() {
        return this.#child.exitCode === null && this.#child.signalCode === null;
    }

    /// Closes the input; the server has to end by that, with status 0 and not one more line.
    async finish() {
        this.closeInput();
        assert.equal(await this.line(), undefined);
        assert.deepEqual(await this.end, [0, null]);
    }
}

/// A program for clients that start the server themselves and tell nobody how it ended: it runs the server
/// and notes the exit status. `ends()` gives the statuses so far; a server that was killed, or still runs,
/// has none.
export function makeLauncher(folder) {
    const program = join(folder, 'launcher');
    const notes = join(folder, 'ends');
    const server = `'${setting('TIDEWELL_SERVER')}' "$@" 2>>'${complaintsFile}'`;
    writeFileSync(program, `#!/bin/sh\n${server}\necho $? >>'${notes}'\n`, { mode: 0o755 });
    writeFileSync(notes, '');
    return { program, ends: () => readFileSync(notes, 'utf8').split('\n').filter(Boolean).map(Number) };
}
