// sdk-client.test.mjs: the official TypeScript SDK's client starts the server as its child and talks to it,
// with the stand-in host app behind. The client checks every reply against its own schemas before a test sees
// it.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { once } from 'node:events';
import { mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, afterEach, before, beforeEach, describe, test } from 'node:test';
import {
    complaints as standardError, endOf, golden, makeLauncher, packagesIn, setting, startProcess,
    startScriptedHost, temporaryFolder,
} from '../Support/support.mjs';

const load = packagesIn(setting('CLIENTS_BUILD'));
const { Client } = load('@modelcontextprotocol/sdk/client/index.js');
const { StdioClientTransport } = load('@modelcontextprotocol/sdk/client/stdio.js');
const { EmptyResultSchema } = load('@modelcontextprotocol/sdk/types.js');

const folder = temporaryFolder();
const root = join(folder, 'root');
const socket = join(folder, 'agent.sock');
const launcher = makeLauncher(folder);

/// Makes `folder` a repository with two commits, one changed and one new file. Gives a function that asks git
/// about it.
function makeRepository(folder) {
    const env = { ...process.env, GIT_CONFIG_GLOBAL: '/dev/null', GIT_CONFIG_NOSYSTEM: '1' };
    for (const key of ['GIT_DIR', 'GIT_WORK_TREE', 'GIT_INDEX_FILE']) delete env[key];
    const who = ['-c', 'user.name=Ada', '-c', 'user.email=ada@example.org'];
    const git = (...args) =>
        execFileSync('git', [...who, ...args], { cwd: folder, env, encoding: 'utf8' }).trim();

    mkdirSync(folder, { recursive: true });
    git('init', '--quiet', '--initial-branch=main');
    for (const subject of ['First words', 'Zweite Fassung → besser']) {
        writeFileSync(join(folder, 'README.md'), `# ${subject}\n`);
        git('add', '.');
        git('commit', '--quiet', `--message=${subject}`);
    }
    writeFileSync(join(folder, 'README.md'), 'changed\n');
    writeFileSync(join(folder, 'new.txt'), 'new\n');
    return git;
}

/// Starts the stand-in host app; it listens when this resolves.
async function startStandIn() {
    const child = startProcess(setting('TIDEWELL_STAND_IN'), ['--root', root, '--socket', socket]);
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

let client;
let complaints; // what the client found wrong with the messages it received

beforeEach(async () => {
    client = new Client({ name: 'client-tests', version: '1' });
    complaints = [];
    client.onerror = (error) => complaints.push(error);
    await client.connect(
        new StdioClientTransport({ command: launcher.program, env: { TIDEWELL_SOCKET_PATH: socket } }),
    );
});

afterEach(() => client.close());

/// A tool result's one text, decoded, after a look at the form that all results have.
function decoded(result, isError) {
    assert.deepEqual(Object.keys(result).sort(), ['content', 'isError']);
    assert.equal(result.isError, isError, result.content[0].text);
    assert.deepEqual(
        result.content.map((item) => item.type),
        ['text'],
    );
    return JSON.parse(result.content[0].text);
}

const succeed = async (name, args) => decoded(await client.callTool({ name, arguments: args }), false);
const refuse = async (name, args) => decoded(await client.callTool({ name, arguments: args }), true).error;

const notRunning = {
    code: 'app_not_running',
    message: 'Tidewell is not running — start the app to use this tool.',
};

describe('the server alone', () => {
    test('the handshake gives the name, the version, the capabilities and the instructions', () => {
        const { name, version, ...rest } = client.getServerVersion();
        assert.equal(name, 'Tidewell');
        assert.match(version, /^\d+\.\d+\.\d+/);
        assert.deepEqual(rest, {});
        assert.deepEqual(client.getServerCapabilities(), { tools: {}, resources: {}, prompts: {} });
        assert.equal(
            client.getInstructions(),
            'Read tools (L0) work directly. To mutate: call a propose_* tool, ask the user to confirm in ' +
                'Tidewell → Agent Review to get a confirmationToken, then call the apply/git tool with ' +
                'that token. Dangerous git is always blocked.',
        );
        assert.deepEqual(complaints, []);
    });

    test('the 60 tools are listed in catalog order, word for word', async () => {
        const { tools, ...rest } = await client.listTools();
        assert.equal(tools.length, 60);
        assert.deepEqual(tools, golden('tools'));
        assert.deepEqual(rest, {});
    });

    test('the 9 resources are listed, and no templates', async () => {
        const { resources } = await client.listResources();
        assert.equal(resources.length, 9);
        assert.deepEqual(resources, golden('resources'));
        assert.deepEqual(await client.listResourceTemplates(), { resourceTemplates: [] });
    });

    test('the 6 prompts are listed, and each gives its one message', async () => {
        const { prompts } = await client.listPrompts();
        assert.equal(prompts.length, 6);
        const expected = golden('prompts');
        assert.deepEqual(
            prompts,
            expected.map(({ entry }) => entry),
        );
        for (const { entry, messages } of expected) {
            assert.deepEqual(await client.getPrompt({ name: entry.name }), { messages });
        }
    });

    test('an unknown prompt is an error of its own', async () => {
        await assert.rejects(client.getPrompt({ name: 'Cleanup_Today' }), {
            code: -32001,
            message: 'MCP error -32001: unknown prompt `Cleanup_Today`',
        });
    });

    test('a ping is answered', async () => {
        assert.deepEqual(await client.ping(), {});
    });

    test('an unknown method is refused and the conversation goes on', async () => {
        await assert.rejects(client.request({ method: 'foo/bar' }, EmptyResultSchema), {
            code: -32601,
            message: 'MCP error -32601: Method not found: foo/bar',
        });
        assert.deepEqual(await client.ping(), {});
        assert.deepEqual(complaints, []);
    });

    test('requests sent all at once are all answered', async () => {
        const answers = await Promise.all(Array.from({ length: 50 }, () => client.listTools()));
        assert.ok(answers.every(({ tools }) => tools.length === 60));
    });

    test('without a host app a tool call is a failed result and a resource read an error', async () => {
        assert.deepEqual(await refuse('list_local_repositories'), notRunning);
        await assert.rejects(client.readResource({ uri: 'tidewell://settings' }), {
            code: -32000,
            message:
                'MCP error -32000: could not connect to tidewell-agent.sock at ' +
                `${socket} — is Tidewell running?`,
        });
    });

    test('closing the client ends the server by its input, with status 0', async () => {
        const endsBefore = launcher.ends().length;
        await client.ping();
        await client.close(); // which resorts to force after two seconds, and that leaves no status
        assert.deepEqual(launcher.ends().slice(endsBefore), [0]);
    });
});

describe('with the stand-in host app', () => {
    let git;
    let standIn;

    before(async () => {
        mkdirSync(root);
        git = makeRepository(join(root, 'notes'));
        standIn = await startStandIn();
    });
    after(() => standIn?.stop());

    test('the repositories below the root are listed', async () => {
        const { repositories } = await succeed('list_local_repositories');
        assert.deepEqual(
            repositories.map(({ repoId, branch }) => [repoId, branch]),
            [['notes', 'main']],
        );
    });

    test('the commits are those that git has, their texts intact', async () => {
        const { commits } = await succeed('read_git_commits', { path: 'notes' });
        assert.deepEqual(
            commits.map(({ sha, subject }) => `${sha} ${subject}`),
            git('log', '--format=%H %s').split('\n'),
        );
    });

    test('a limit of 1, which reaches the host as a boolean, gives one commit', async () => {
        const { commits, hasMore } = await succeed('read_git_commits', { path: 'notes', limit: 1 });
        assert.deepEqual(
            commits.map(({ sha }) => sha),
            [git('rev-parse', 'HEAD')],
        );
        assert.equal(hasMore, true);
    });

    test('the status names the changed and the new file', async () => {
        const { files } = await succeed('read_git_status', { path: 'notes' });
        assert.deepEqual(
            files.map(({ code, path }) => [code, path]),
            [
                [' M', 'README.md'],
                ['??', 'new.txt'],
            ],
        );
    });

    test("a tool that the host refuses is a failed result with the host's own words", async () => {
        const { code, message, hint } = await refuse('list_accounts');
        assert.equal(code, 'not_supported');
        assert.equal(typeof message, 'string');
        assert.equal(typeof hint, 'string');
        assert.equal((await refuse('read_git_status', { path: '../elsewhere' })).code, 'outside_root');
        assert.equal((await refuse('read_git_status', {})).code, 'invalid_params');
    });

    test("a tool that no catalog knows is the host's business too", async () => {
        assert.equal((await refuse('no_such_tool')).code, 'not_supported');
    });

    test('a resource is read, as JSON text under the URI that was asked for', async () => {
        const uri = 'tidewell://repositories/local';
        const { contents, ...rest } = await client.readResource({ uri });
        assert.deepEqual(rest, {});
        assert.deepEqual(
            contents.map(({ text, ...others }) => others),
            [{ uri, mimeType: 'application/json' }],
        );
        assert.equal(JSON.parse(contents[0].text).repositories[0].repoId, 'notes');
    });

    test("a resource that the host refuses is an error with the host's message", async () => {
        await assert.rejects(client.readResource({ uri: 'tidewell://settings' }), {
            code: -32000,
            message: /^MCP error -32000: .*tidewell:\/\/settings/,
        });
    });

    test('a host that goes and comes back is noticed by the next call', async () => {
        await succeed('list_local_repositories');
        await standIn.stop();
        assert.deepEqual(await refuse('list_local_repositories'), notRunning);
        standIn = await startStandIn();
        await succeed('list_local_repositories');
        assert.deepEqual(complaints, []);
    });
});

describe('what this client objects to', () => {
    let host;
    afterEach(() => host?.stop());

    test('it drops a reply whose result is null, and the conversation goes on', async () => {
        await assert.rejects(client.request({ method: 'shutdown' }, EmptyResultSchema, { timeout: 300 }), {
            code: -32001,
            message: /timed out/i,
        });
        assert.deepEqual(await client.ping(), {});
        assert.deepEqual(
            complaints.map(({ name }) => name),
            ['ZodError'],
        );
    });

    test('it leaves over a reply of more than 10 MiB, and takes one that is just below', async () => {
        const megabyte = 1 << 20;
        host = await startScriptedHost(socket, ({ args }) =>
            JSON.stringify({ ok: true, result: 'x'.repeat(args.size) }),
        );
        assert.equal(
            (await succeed('get_settings', { size: 10 * megabyte - 1024 })).length,
            10 * megabyte - 1024,
        );
        await assert.rejects(
            client.callTool({ name: 'get_settings', arguments: { size: 10 * megabyte } }),
            /Connection closed/,
        );
        assert.match(complaints[0].message, /exceeded maximum size of 10485760 bytes/);
    });

    test('it loses patience with a silent host and ends the server', async () => {
        host = await startScriptedHost(socket, () => undefined);
        const transport = new StdioClientTransport({
            command: setting('TIDEWELL_SERVER'),
            env: { TIDEWELL_SOCKET_PATH: socket },
            stderr: standardError,
        });
        const impatient = new Client({ name: 'client-tests', version: '1' });
        await impatient.connect(transport);
        const { pid } = transport;
        const arrival = host.nextEnvelope();
        await assert.rejects(impatient.callTool({ name: 'get_settings' }, undefined, { timeout: 200 }), {
            code: -32001,
            message: /timed out/i,
        });
        await arrival;
        await impatient.close(); // two seconds of patience with the closed input, then a signal
        assert.throws(() => process.kill(pid, 0), { code: 'ESRCH' });
    });
});
