// conformance.test.mjs: the protocol's own conformance suite, as far as it asks for what this server offers.
// The suite speaks HTTP, so a proxy stands between the two, and a scripted host app behind the server gives the
// answers that the suite wants. Everything listens on 127.0.0.1 or on a socket in a temporary folder.

import assert from 'node:assert/strict';
import { once } from 'node:events';
import { readFileSync, readdirSync } from 'node:fs';
import { connect, createServer } from 'node:net';
import { dirname, join } from 'node:path';
import { after, before, test } from 'node:test';
import {
    endOf, makeLauncher, packagesIn, pause, setting, startProcess, startScriptedHost, temporaryFolder,
} from '../Support/support.mjs';

const passing = [
    'server-initialize',
    'ping',
    'tools-list',
    'tools-call-simple-text',
    'tools-call-error',
    'resources-list',
    'resources-read-text',
    'prompts-list',
];

const noServerRequests = 'the server sends no requests of its own, which these need';
const textOnly = "the host app's answers become text, and these ask for other content";
const notOffered = 'the method is not offered, nor said to be';
const fixturePrompt = 'the prompts are fixed, and this asks for one of its own';
const otherTransport = "it judges the HTTP side, which is the proxy's";

/// The suite's other scenarios, each with the reason why it cannot pass or says nothing about the server.
const leftOut = {
    'logging-set-level': notOffered,
    'completion-complete': notOffered,
    'resources-subscribe': notOffered,
    'resources-unsubscribe': notOffered,
    'tools-call-with-logging': notOffered,
    'tools-call-with-progress': 'no progress is reported',
    'tools-call-image': textOnly,
    'tools-call-audio': textOnly,
    'tools-call-embedded-resource': textOnly,
    'tools-call-mixed-content': textOnly,
    'resources-read-binary': textOnly,
    'tools-call-sampling': noServerRequests,
    'tools-call-elicitation': noServerRequests,
    'elicitation-sep1034-defaults': noServerRequests,
    'elicitation-sep1330-enums': noServerRequests,
    'json-schema-2020-12': 'the tools are fixed, and this asks for one of its own in the list',
    'resources-templates-read': 'there are no resource templates',
    'prompts-get-simple': fixturePrompt,
    'prompts-get-with-args': fixturePrompt,
    'prompts-get-embedded-resource': fixturePrompt,
    'prompts-get-with-image': fixturePrompt,
    'server-sse-polling': otherTransport,
    'server-sse-multiple-streams': otherTransport,
    'dns-rebinding-protection': otherTransport,
};

/// A text from the one tool and the one resource that have to give one, an error from all others.
function answer({ tool, args }) {
    const known = tool === 'test_simple_text' || args.uri === 'test://static-text';
    if (known) return { ok: true, result: 'some text' };
    return { ok: false, error: { code: 'failed', message: 'This one always fails.' } };
}

const load = packagesIn(setting('CLIENTS_BUILD'));
const programOf = (name, path) => join(dirname(load.resolve(`${name}/package.json`)), path);
const suite = programOf('@modelcontextprotocol/conformance', 'dist/index.js');

const folder = temporaryFolder();
const socket = join(folder, 'agent.sock');
const results = join(folder, 'results');
const launcher = makeLauncher(folder);

async function freePort() {
    const server = createServer().listen(0, '127.0.0.1');
    await once(server, 'listening');
    const { port } = server.address();
    server.close();
    await once(server, 'close');
    return port;
}

async function listens(port) {
    const connection = connect(port, '127.0.0.1');
    try {
        await once(connection, 'connect');
        return true;
    } catch {
        return false;
    } finally {
        connection.destroy();
    }
}

/// Runs every scenario; gives what was checked, by the scenario's name.
async function runSuite(url) {
    const results = join(folder, 'results');
    const args = [suite, 'server', '--url', url, '--suite', 'all', '-o', results];
    const child = startProcess(process.execPath, args, { stdio: 'ignore' });
    await endOf(child); // its status tells only whether all have passed
    return new Map(
        readdirSync(results).map((name) => [
            name.match(/^server-(.*)-\d{4}-\d\d-\d\dT/)[1],
            JSON.parse(readFileSync(join(results, name, 'checks.json'), 'utf8')),
        ]),
    );
}

let host;
let proxy;
let checks;
before(async () => {
    host = await startScriptedHost(socket, (envelope) => JSON.stringify(answer(envelope)));
    const port = await freePort();
    const args = ['--host', '127.0.0.1', '--port', `${port}`, '--server', 'stream', '--', launcher.program];
    proxy = startProcess(process.execPath, [programOf('mcp-proxy', 'dist/bin/mcp-proxy.mjs'), ...args], {
        stdio: 'ignore',
        env: { PATH: process.env.PATH, HOME: folder, TIDEWELL_SOCKET_PATH: socket },
    });
    while (!(await listens(port))) {
        assert.equal(proxy.exitCode, null, 'the proxy did not start');
        await pause(50);
    }
    checks = await runSuite(`http://127.0.0.1:${port}/mcp`);
});
after(async () => {
    proxy?.kill('SIGTERM'); // neither has started where a name pattern leaves out all tests of this file
    await host?.stop();
});

/// What the suite found wrong in one scenario.
const objectionsTo = (scenario) =>
    checks
        .get(scenario)
        .filter(({ status }) => ['FAILURE', 'WARNING'].includes(status))
        .map(({ name, errorMessage }) => `${name}: ${errorMessage}`);

for (const scenario of passing) {
    test(`the suite's scenario ${scenario} passes`, () => {
        assert.deepEqual(objectionsTo(scenario), []);
        assert.ok(checks.get(scenario).some(({ status }) => status === 'SUCCESS'));
    });
}

test('every other scenario of the suite is left out for a reason that still holds', () => {
    assert.deepEqual([...checks.keys()].sort(), [...passing, ...Object.keys(leftOut)].sort());
    for (const [scenario, reason] of Object.entries(leftOut)) {
        if (reason === otherTransport) continue;
        assert.notDeepEqual(objectionsTo(scenario), [], `${scenario} passes: ${reason}?`);
    }
});
