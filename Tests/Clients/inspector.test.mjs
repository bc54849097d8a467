// inspector.test.mjs: the MCP Inspector's command line, once per method it offers, with a scripted host app
// behind the server. Each run is a client of its own: start, handshake, one request, end.

import assert from 'node:assert/strict';
import { dirname, join } from 'node:path';
import { after, before, test } from 'node:test';
import {
    endOf, golden, makeLauncher, packagesIn, setting, startProcess, startScriptedHost, temporaryFolder,
} from '../Support/support.mjs';

const load = packagesIn(setting('CLIENTS_BUILD'));
const folder = temporaryFolder();
const socket = join(folder, 'agent.sock');
const launcher = makeLauncher(folder);
const inspector = join(
    dirname(load.resolve('@modelcontextprotocol/inspector/package.json')),
    'clients/launcher/build/index.js',
);

/// What the Inspector prints for one request, decoded: {status, result, error}. The server it started has to
/// have ended by itself, with status 0.
async function inspect(method, ...options) {
    const endsBefore = launcher.ends().length;
    const child = startProcess(
        process.execPath,
        [
            inspector,
            '--cli',
            launcher.program,
            '-e',
            `TIDEWELL_SOCKET_PATH=${socket}`,
            '--format',
            'json',
            '--method',
            method,
            ...options,
        ],
        { stdio: ['ignore', 'pipe', 'pipe'], env: { ...process.env, HOME: folder, NO_COLOR: '1' } },
    );
    const end = endOf(child);
    const [output, complaint] = await Promise.all(
        [child.stdout, child.stderr].map(async (stream) =>
            (await stream.setEncoding('utf8').toArray()).join(''),
        ),
    );
    const [status] = await end;
    assert.deepEqual(launcher.ends().slice(endsBefore), [0], 'the server ended by itself');
    return {
        status,
        result: output === '' ? undefined : JSON.parse(output).result,
        error: complaint === '' ? undefined : JSON.parse(complaint).error,
    };
}

async function result(method, ...options) {
    const answer = await inspect(method, ...options);
    assert.equal(answer.error, undefined);
    assert.equal(answer.status, 0);
    return answer.result;
}

const textOf = ({ content }) => JSON.parse(content[0].text);

const refused = { code: 'denied', message: 'Not this one.', hint: 'Ask the user.' };
const answers = {
    read_git_commits: { ok: true, result: { commits: [{ subject: 'Zweite Fassung → besser' }] } },
    'tidewell://settings': { ok: true, result: { theme: 'light' } },
};

let host;
const startHost = () =>
    startScriptedHost(socket, ({ tool, args }) =>
        JSON.stringify(answers[args.uri ?? tool] ?? { ok: false, error: refused }),
    );
before(async () => (host = await startHost()));
after(() => host?.stop());

test('initialize shows who answers', async () => {
    const { serverInfo, protocolVersion, capabilities } = await result('initialize');
    assert.equal(serverInfo.name, 'Tidewell');
    assert.match(protocolVersion, /^\d{4}-\d\d-\d\d$/);
    assert.deepEqual(capabilities, { tools: {}, resources: {}, prompts: {} });
});

test('tools/list shows the catalog, and the strict look at the schemas finds nothing', async () => {
    assert.deepEqual(await result('tools/list', '--strict'), { tools: golden('tools') });
});

test('tools/call takes arguments as pairs, as JSON and none, and metadata besides', async () => {
    for (const [given, args] of [
        [['--tool-arg', 'path=notes', 'limit=1'], { path: 'notes', limit: true }],
        [['--tool-args-json', '{"path":"notes","limit":2}'], { path: 'notes', limit: 2 }],
        [[], {}],
        [['--tool-metadata', 'k=v'], {}],
    ]) {
        const answer = await result('tools/call', '--tool-name', 'read_git_commits', ...given);
        assert.equal(answer.isError, false);
        assert.deepEqual(textOf(answer), answers.read_git_commits.result);
        assert.deepEqual(host.envelopes.at(-1).args, args);
    }
});

test('tools/call shows a refusal as the failed result it is', async () => {
    const { status, result: answer, error } = await inspect('tools/call', '--tool-name', 'list_accounts');
    assert.equal(status, 5);
    assert.equal(error.code, 'tool_is_error');
    assert.equal(answer.isError, true);
    assert.deepEqual(textOf(answer).error, refused);
});

test('resources/list and resources/templates/list show the resources and no templates', async () => {
    assert.deepEqual(await result('resources/list'), { resources: golden('resources') });
    assert.deepEqual(await result('resources/templates/list'), { resourceTemplates: [] });
});

test('resources/read shows a resource', async () => {
    const uri = 'tidewell://settings';
    assert.deepEqual(await result('resources/read', '--uri', uri), {
        contents: [{ uri, mimeType: 'application/json', text: '{"theme":"light"}' }],
    });
});

test('resources/read reports what the host refuses', async () => {
    const { status, error } = await inspect('resources/read', '--uri', 'tidewell://accounts');
    assert.equal(status, 1);
    assert.match(error.message, /Not this one\./);
});

test('prompts/list and prompts/get show the prompts', async () => {
    const expected = golden('prompts');
    assert.deepEqual(await result('prompts/list'), { prompts: expected.map(({ entry }) => entry) });
    for (const { entry, messages } of expected) {
        assert.deepEqual(await result('prompts/get', '--prompt-name', entry.name), { messages });
    }
});

test('prompts/get reports an unknown prompt', async () => {
    const { status, error } = await inspect('prompts/get', '--prompt-name', 'nope');
    assert.equal(status, 1);
    assert.match(error.message, /unknown prompt `nope`/);
});

test('a client that asks for newer protocols first falls back to the handshake', async () => {
    assert.equal((await result('tools/list', '--protocol-era', 'auto')).tools.length, 60);
});

test('a client that knows newer protocols only is told that the method is missing', async () => {
    const { status, error } = await inspect('tools/list', '--protocol-era', 'modern');
    assert.equal(status, 1);
    assert.match(error.message, /server\/discover/);
});

test('without a host app the Inspector shows the one sentence', async () => {
    await host.stop();
    const { status, result: answer } = await inspect('tools/call', '--tool-name', 'list_local_repositories');
    assert.equal(status, 5);
    assert.deepEqual(textOf(answer).error, {
        code: 'app_not_running',
        message: 'Tidewell is not running — start the app to use this tool.',
    });
    host = await startHost();
});
