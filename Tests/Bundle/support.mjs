// support.mjs: the bundles under test, and what a host does with one: unpack it, read its manifest, start what that
// names, and talk to it.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import {
    chmodSync,
    existsSync,
    mkdirSync,
    mkdtempSync,
    readFileSync,
    readdirSync,
    renameSync,
    rmSync,
    writeFileSync,
} from 'node:fs';
import { createServer } from 'node:net';
import { dirname, join, resolve } from 'node:path';
import { createInterface } from 'node:readline';
import { fileURLToPath } from 'node:url';

function setting(name) {
    const value = process.env[name];
    if (!value) throw new Error(`${name} is not set: start the tests with Tests/Bundle/run`);
    return value;
}

export const folder = setting('TIDEWELL_BUNDLES');
export const tool = join(setting('BUNDLE_TOOL'), 'node_modules');
export const checkout = resolve(dirname(fileURLToPath(import.meta.url)), '../..');
export const bundles = readdirSync(folder).filter((name) => name.endsWith('.mcpb'));

const cmake = readFileSync(join(checkout, 'CMakeLists.txt'), 'utf8');
export const project = {
    version: cmake.match(/project\(TidewellMCP VERSION (\S+)/)[1],
    description: cmake.match(/DESCRIPTION "([^"]+)"/)[1],
};

/// The published entries as typed from the requirements, in catalog order.
export function golden(kind) {
    const entries = join(checkout, 'Tests/Golden', kind);
    return readdirSync(entries)
        .sort()
        .map((name) => JSON.parse(readFileSync(join(entries, name), 'utf8')));
}

const cleanUps = [];
const stops = [];
/// Ends the servers and host apps that a failed test left behind, which would keep the tests from ending.
export const stopAll = () => stops.splice(0).forEach((stop) => stop());
process.on('exit', () => [...stops, ...cleanUps].forEach((cleanUp) => cleanUp()));
for (const signal of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.once(signal, () => process.exit(1));

export function temporaryFolder() {
    const made = mkdtempSync('/tmp/tidewell-'); // a socket's path has to be short
    cleanUps.push(() => rmSync(made, { recursive: true, force: true }));
    return made;
}

/// A PATH on which these programs stand before those of `path`: from names to what they do, in shell.
export function programs(texts, path = process.env.PATH) {
    const made = temporaryFolder();
    for (const [name, text] of Object.entries(texts)) {
        writeFileSync(join(made, name), `#!/bin/sh\n${text}\n`, { mode: 0o755 });
    }
    return `${made}:${path}`;
}

// --- a host ------------------------------------------------------------------------------------------------------

/// Unpacks as a host does that knows nothing of file modes, to a path with a blank in it.
export function unpack(bundle) {
    const made = join(temporaryFolder(), 'an installed bundle');
    execFileSync('unzip', ['-q', join(folder, bundle), '-d', made]);
    execFileSync('find', [made, '-type', 'f', '-exec', 'chmod', '644', '{}', '+']);
    return made;
}

export const manifestOf = (unpacked) => JSON.parse(readFileSync(join(unpacked, 'manifest.json'), 'utf8'));

/// What the format's own code makes of a manifest and of what the user has filled in: the code that hosts use.
export async function configurationOf(unpacked, userConfig = {}) {
    const { getMcpConfigForManifest } = await import(join(tool, '@anthropic-ai/mcpb/dist/shared/config.js'));
    return getMcpConfigForManifest({
        manifest: manifestOf(unpacked),
        extensionPath: unpacked,
        systemDirs: { HOME: '/nonexistent' },
        userConfig,
        pathSeparator: '/',
    });
}

/// `uname -sm` of the machines that a bundle is for.
export const machinesFor = {
    'linux-x86_64': ['Linux x86_64'],
    'linux-aarch64': ['Linux aarch64', 'Linux arm64'],
    'macos-universal': ['Darwin x86_64', 'Darwin arm64'],
};
export const systemOf = (bundle) => bundle.match(/-((linux|macos)-[^-]+)\.mcpb$/)[1];
export const thisMachine = execFileSync('uname', ['-sm'], { encoding: 'utf8' }).trim();

/// How a bundle can be run here: a function that makes an unpacked one ready and gives the PATH for it, or nothing. The
/// program of another Linux processor is put behind its emulator.
export function runner(bundle) {
    const machines = machinesFor[systemOf(bundle)];
    if (machines.includes(thisMachine)) return () => process.env.PATH;
    const [system, processor] = machines[0].split(' ');
    const emulator = `/usr/bin/qemu-${processor}-static`;
    if (system !== 'Linux' || !existsSync(emulator)) return undefined;
    return (unpacked) => {
        const program = join(unpacked, 'server/bin/TidewellMCP');
        const real = join(unpacked, 'server/bin/emulated');
        if (!existsSync(real)) {
            renameSync(program, real);
            chmodSync(real, 0o755);
            writeFileSync(program, `#!/bin/sh\nexec ${emulator} '${real}' "$@"\n`, { mode: 0o644 });
        }
        return programs({ uname: `[ "$1" = -s ] && echo ${system} || echo ${system} ${processor}` });
    };
}

/// A started server. `finish()` closes its input and gives all that is left of it.
export function start({ command, args, env }, surroundings) {
    const child = spawn(command, args, { env: { ...surroundings, ...env } });
    const end = once(child, 'close');
    const lines = createInterface({ input: child.stdout })[Symbol.asyncIterator]();
    let complaints = '';
    child.stderr.on('data', (bytes) => (complaints += bytes));
    child.stdin.on('error', () => {}); // a server that has ended reads no more; the test judges that
    stops.push(() => child.kill('SIGKILL'));
    return {
        async ask(method, params) {
            child.stdin.write(`${JSON.stringify({ jsonrpc: '2.0', id: 1, method, params })}\n`);
            const { value } = await lines.next();
            assert.ok(value, `no reply; on standard error: ${complaints}`);
            return JSON.parse(value).result;
        },
        async finish() {
            child.stdin.end();
            const rest = [];
            for await (const line of lines) rest.push(line);
            const [status] = await end;
            return { status, rest, complaints };
        },
    };
}

/// A host app that answers every request with the tool's name, until the end of the test.
export async function startHostApp(socket) {
    mkdirSync(dirname(socket), { recursive: true });
    const server = createServer((connection) => {
        createInterface({ input: connection }).once('line', (line) => {
            connection.end(`${JSON.stringify({ ok: true, result: JSON.parse(line).tool })}\n`);
        });
    });
    server.listen(socket);
    await once(server, 'listening');
    stops.push(() => server.close());
}
