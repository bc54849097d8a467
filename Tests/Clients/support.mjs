// support.mjs: what the client tests share: the programs under test, a temporary folder, a git repository,
// hosts behind the agent socket, and a server that is driven line by line.
//
// Everything made here is gone when the test process ends, however it ends.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import {
    chmodSync,
    mkdirSync,
    mkdtempSync,
    readFileSync,
    readdirSync,
    realpathSync,
    rmSync,
    writeFileSync,
} from 'node:fs';
import { createRequire } from 'node:module';
import { createServer } from 'node:net';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { test as nodeTest } from 'node:test';
import { fileURLToPath } from 'node:url';

function setting(name) {
    const value = process.env[name];
    if (!value) throw new Error(`${name} is not set: start the tests with Tests/Clients/run`);
    return value;
}

export const serverProgram = setting('TIDEWELL_SERVER');
const standInProgram = setting('TIDEWELL_STAND_IN');

/// Loads a package from the folder that the packages are installed in, outside the source tree.
export const load = createRequire(join(setting('CLIENTS_BUILD'), 'package.json'));

const here = dirname(fileURLToPath(import.meta.url));
export const checkout = resolve(here, '../..');

/// The published entries as typed from the requirements, in catalog order.
export function golden(kind) {
    const folder = join(here, '../Golden', kind);
    return readdirSync(folder)
        .sort()
        .map((name) => JSON.parse(readFileSync(join(folder, name), 'utf8')));
}

/// A test that fails rather than hangs.
export function test(name, body) {
    return nodeTest(name, { timeout: 15_000 }, body);
}

export const pause = (milliseconds) => new Promise((done) => setTimeout(done, milliseconds));

// --- what has to be gone at the end ------------------------------------------------------------------------

const cleanUps = [];
process.on('exit', () => cleanUps.reverse().forEach((cleanUp) => cleanUp()));
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.once(signal, () => process.exit(1));

export function startProcess(command, args, options = {}) {
    const child = spawn(command, args, { stdio: ['pipe', 'pipe', 'inherit'], ...options });
    cleanUps.push(() => child.kill('SIGKILL'));
    child.stdin?.on('error', () => {}); // a program that has ended reads no more; the test judges that
    return child;
}

/// Resolves to [exit status, signal]; one of them is null. To be called before the end can come.
export const endOf = (child) => once(child, 'exit');

/// A new folder without symbolic links in its path. The path is short: a socket's path has to fit 104 bytes.
export function temporaryFolder() {
    const base = tmpdir().length <= 20 ? tmpdir() : '/tmp';
    const folder = realpathSync(mkdtempSync(join(base, 'tidewell-')));
    cleanUps.push(() => rmSync(folder, { recursive: true, force: true }));
    return folder;
}

// --- a git repository --------------------------------------------------------------------------------------

/// Makes `folder` a repository with two commits, the branches main and topic, a remote, one changed and one
/// new file. Gives a function that asks git about it.
export function makeRepository(folder) {
    const who = { NAME: 'Ada', EMAIL: 'ada@example.org' };
    const env = { ...process.env, GIT_CONFIG_GLOBAL: '/dev/null', GIT_CONFIG_NOSYSTEM: '1' };
    for (const key of ['GIT_DIR', 'GIT_WORK_TREE', 'GIT_INDEX_FILE']) delete env[key];
    for (const role of ['AUTHOR', 'COMMITTER']) {
        for (const [key, value] of Object.entries(who)) env[`GIT_${role}_${key}`] = value;
    }
    const git = (...args) => execFileSync('git', args, { cwd: folder, env, encoding: 'utf8' }).trim();

    mkdirSync(folder, { recursive: true });
    git('init', '--quiet', '--initial-branch=main');
    for (const subject of ['First words', 'Zweite Fassung → besser']) {
        writeFileSync(join(folder, 'README.md'), `# ${subject}\n`);
        git('add', '.');
        git('commit', '--quiet', `--message=${subject}`);
    }
    git('branch', 'topic', 'HEAD~1');
    git('remote', 'add', 'origin', 'https://github.com/example/notes.git');
    writeFileSync(join(folder, 'README.md'), 'changed\n');
    writeFileSync(join(folder, 'new.txt'), 'new\n');
    return git;
}

// --- hosts -------------------------------------------------------------------------------------------------

/// Starts the stand-in host app; it listens when this resolves.
export async function startStandIn(root, socket) {
    const child = startProcess(standInProgram, ['--root', root, '--socket', socket], {
        stdio: ['ignore', 'pipe', 'inherit'],
    });
    const end = endOf(child);
    const listens = await Promise.race([once(child.stdout, 'data').then(() => true), end.then(() => false)]);
    assert.ok(listens, 'the stand-in did not start');
    return {
        async stop() {
            child.kill('SIGTERM');
            await end;
        },
    };
}

/// A host whose answers the test writes: `answer` takes an envelope and gives the reply line, as text or
/// bytes without the line feed, null to hang up, or undefined to stay silent. `envelopes` are those that have
/// come in, `nextEnvelope()` is the one to come.
export async function startScriptedHost(socket, answer) {
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
            const envelope = JSON.parse(received);
            received = '';
            envelopes.push(envelope);
            waiting.splice(0).forEach((wake) => wake(envelope));
            const reply = answer(envelope);
            if (reply === undefined) return;
            connection.end(reply === null ? '' : Buffer.concat([Buffer.from(reply), Buffer.from('\n')]));
        });
    });
    host.listen(socket);
    await once(host, 'listening');
    return {
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

    constructor(env = {}) {
        this.#child = startProcess(serverProgram, [], { env });
        this.#lines = linesOf(this.#child.stdout);
        this.end = endOf(this.#child);
    }

    /// Text goes out as it is, a message as one line.
    send(...messages) {
        for (const message of messages) {
            this.#child.stdin.write(typeof message === 'string' ? message : `${JSON.stringify(message)}\n`);
        }
    }

    /// The next reply line's message; undefined at the end of the output.
    async reply() {
        const { value } = await this.#lines.next();
        return value === undefined ? undefined : JSON.parse(value);
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
        assert.equal(await this.reply(), undefined);
        assert.deepEqual(await this.end, [0, null]);
    }
}

/// A program for clients that start the server themselves and tell nobody how it ended: it runs the server
/// and notes the exit status. `ends()` gives the statuses so far; a server that was killed, or still runs,
/// has none.
export function makeLauncher(folder) {
    const program = join(folder, 'launcher');
    const notes = join(folder, 'ends');
    writeFileSync(program, `#!/bin/sh\n'${serverProgram}' "$@"\necho $? >>'${notes}'\n`);
    chmodSync(program, 0o755);
    writeFileSync(notes, '');
    return { program, ends: () => readFileSync(notes, 'utf8').split('\n').filter(Boolean).map(Number) };
}
