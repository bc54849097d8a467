// clients-in-the-wild.test.mjs: what clients do beyond the plain flow, each habit by itself and without a
// library between the test and the bytes.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { join } from 'node:path';
import { describe, test } from 'node:test';
import {
    Server, complaints, endOf, linesOf, membersOf, pause, setting, startProcess, startScriptedHost,
    temporaryFolder,
} from '../Support/support.mjs';

const rpc = (id, method, params) => ({ jsonrpc: '2.0', id, method, params });
const notification = (method, params) => ({ jsonrpc: '2.0', method, params });
const methodNotFound = (id, method) => ({
    jsonrpc: '2.0',
    id,
    error: { code: -32601, message: `Method not found: ${method}` },
});

/// Runs `body` with an environment for the server and a host behind it, which says "ok" or what `answer`
/// gives.
async function withHost(body, answer = () => '{"ok":true}') {
    const socket = join(temporaryFolder(), 'agent.sock');
    const host = await startScriptedHost(socket, answer);
    try {
        await body({ TIDEWELL_SOCKET_PATH: socket }, host);
    } finally {
        await host.stop();
    }
}

/// A test with one server, in front of such a host, which has to end well when its input is closed.
const served = (name, body, answer) => test(name, () => withHost(async (env, host) => {
    const server = new Server(env);
    await body(server, host);
    await server.finish();
}, answer));

async function allOf(lines) {
    const all = [];
    for await (const line of lines) all.push(line);
    return all;
}

describe('openings', () => {
    served('a question about newer protocols before the handshake is refused and no more', async (server) => {
        for (const id of ['discover-1', 0]) {
            assert.deepEqual(
                await server.ask(rpc(id, 'server/discover', { _meta: {} })),
                methodNotFound(id, 'server/discover'),
            );
        }
        const { result } = await server.ask(rpc(1, 'initialize', { protocolVersion: '2025-06-18' }));
        assert.equal(result.protocolVersion, '2025-06-18');
    });

    served('whatever protocol a client asks for is the one it gets', async (server) => {
        const versions = ['2024-11-05', '2025-03-26', '2025-06-18', '2025-11-25', '2099-01-01'];
        for (const protocolVersion of versions) {
            const { result } = await server.ask(rpc(0, 'initialize', { protocolVersion }));
            assert.equal(result.protocolVersion, protocolVersion);
        }
    });

    served('the whole opening in one write is answered in order', async (server) => {
        server.send(
            [
                rpc(0, 'initialize', {}),
                notification('notifications/initialized'),
                rpc(1, 'tools/list'),
                rpc(2, 'prompts/list'),
                rpc(3, 'ping'),
            ]
                .map((message) => `${JSON.stringify(message)}\n`)
                .join(''),
        );
        for (const id of [0, 1, 2, 3]) assert.equal((await server.reply()).id, id);
    });

    served('a request in many small writes is answered once, when its line ends', async (server) => {
        for (const piece of JSON.stringify(rpc('→', 'ping')).match(/.{1,5}/gu)) {
            server.send(piece);
            await pause(2);
        }
        assert.deepEqual(await server.ask('\r\n'), { jsonrpc: '2.0', id: '→', result: {} });
    });

    test('an environment of six variables is enough, and the host app is found below HOME', async () => {
        const home = temporaryFolder();
        const host = await startScriptedHost(
            join(home, 'Library/Application Support/Tidewell/tidewell-agent.sock'),
            () => '{"ok":true,"result":"here"}',
        );
        const server = new Server({
            HOME: home,
            LOGNAME: 'ada',
            PATH: '/usr/bin:/bin',
            SHELL: '/bin/sh',
            TERM: 'dumb',
            USER: 'ada',
        });
        assert.equal((await server.ask(rpc(0, 'tools/list'))).result.tools.length, 60);
        const { result } = await server.ask(rpc(1, 'tools/call', { name: 'get_settings' }));
        assert.deepEqual(result, { content: [{ type: 'text', text: '"here"' }], isError: false });
        await server.finish();
        await host.stop();
    });
});

describe('requests', () => {
    served('ids come back as they are, whatever their kind; a number comes back as an integer', async (server) => {
        const same = ['0', '1', '2', '-1', '2147483648', '9007199254740993', '9223372036854775807'];
        const integers = Object.entries({ '3.0': '3', '1.0': '1', '3e2': '300', 2.9: '2', '-2.5': '-2' });
        for (const [id, expected] of [...same.map((text) => [text, text]), ...integers]) {
            server.send(`{"jsonrpc":"2.0","id":${id},"method":"ping"}\n`);
            const reply = membersOf(await server.line());
            assert.deepEqual(reply, { jsonrpc: '"2.0"', id: expected, result: '{}' });
        }
        for (const id of ['0', '', '1f0c7a3e-5b1d', 'ü→\u2028']) {
            assert.deepEqual(await server.ask(rpc(id, 'ping')), { jsonrpc: '2.0', id, result: {} });
        }
    });

    served('numbers in arguments and in results keep their value, in their shortest form', async (server, host) => {
        const numbers = '[2,3.0,3e2,0.50,1,0.0,9007199254740993,-9223372036854775808]';
        server.send(
            '{"jsonrpc":"2.0","id":5,"method":"tools/call",' +
                `"params":{"name":"get_settings","arguments":{"n":${numbers}}}}\n`,
        );
        const { id, result } = membersOf(await server.line());
        const { args } = membersOf(host.lines[0]);
        assert.equal(id, '5');
        assert.equal(args, '{"n":[2,3,300,0.5,true,false,9007199254740993,-9223372036854775808]}');
        assert.equal(JSON.parse(result).content[0].text, '[3,1,0,9007199254740993]');
    }, () => '{"ok":true,"result":[3.0,1,0.0,9007199254740993]}');

    served('a list is the same without params, with empty ones, with a cursor and with metadata', async (server) => {
        for (const method of ['tools/list', 'resources/list', 'resources/templates/list', 'prompts/list']) {
            const expected = await server.ask(rpc(0, method));
            for (const params of [{}, null, [], { cursor: 'c' }, { _meta: { progressToken: 0 } }]) {
                assert.deepEqual(await server.ask(rpc(0, method, params)), expected);
            }
        }
    });

    served('metadata beside the arguments stays between client and server', async (server, host) => {
        const _meta = { progressToken: 1, 'example.org/trace': 'a' };
        await server.ask(rpc(0, 'initialize', { protocolVersion: '2025-11-25', _meta }));
        await server.ask(
            rpc(1, 'tools/call', { name: 'get_repository', arguments: { repoId: 'r' }, _meta }),
        );
        await server.ask(rpc(2, 'tools/call', { name: 'list_accounts', _meta }));
        await server.ask(rpc(3, 'resources/read', { uri: 'tidewell://settings', _meta }));
        const prompt = await server.ask(rpc(4, 'prompts/get', { name: 'cleanup_today', _meta }));
        assert.equal(prompt.result.messages.length, 1);
        assert.deepEqual(
            host.envelopes.map(({ tool, args }) => [tool, args]),
            [
                ['get_repository', { repoId: 'r' }],
                ['list_accounts', {}],
                ['resources/read', { uri: 'tidewell://settings' }],
            ],
        );
        for (const envelope of host.envelopes) {
            assert.deepEqual(Object.keys(envelope).sort(), ['args', 'requestId', 'tool']);
        }
    });

    served('methods that are not offered are refused one by one and break nothing', async (server) => {
        const methods = [
            'logging/setLevel',
            'completion/complete',
            'resources/subscribe',
            'tasks/list',
            'roots/list',
            'sampling/createMessage',
            'Ping',
            'ping ',
        ];
        for (const method of methods) {
            assert.deepEqual(await server.ask(rpc(method, method, {})), methodNotFound(method, method));
        }
        assert.deepEqual(await server.ask(rpc(9, 'ping')), { jsonrpc: '2.0', id: 9, result: {} });
    });

    served('notifications of every kind are met with silence', async (server) => {
        server.send(
            notification('notifications/initialized'),
            notification('notifications/cancelled', { requestId: 0, reason: 'too slow' }),
            notification('notifications/roots/list_changed'),
            notification('notifications/progress', { progressToken: 0, progress: 1 }),
            notification('no/such/notification'),
        );
        assert.deepEqual(await server.ask(rpc(0, 'ping')), { jsonrpc: '2.0', id: 0, result: {} });
    });

    served("a byte that is no UTF-8 in a host's reply never reaches the client", async (server) => {
        const { result } = await server.ask(rpc(0, 'tools/call', { name: 'get_settings' }));
        assert.equal(result.isError, true);
        assert.equal(JSON.parse(result.content[0].text).error.code, 'error');
        const { error } = await server.ask(rpc(1, 'resources/read', { uri: 'tidewell://settings' }));
        assert.equal(error.code, -32603);
    }, () => Buffer.from('{"ok":true,"result":"\xff"}', 'latin1'));
});

// A burst of large replies while nobody reads: the output fills up, and what happens then depends on what it
// is. Node gives a child one end of a socket pair; a shell gives it a pipe. Either may have been made
// non-blocking by whoever held it before, which a few words of Perl do here.
const perl = spawnSync('perl', ['-MFcntl', '-e', '1']).status === 0;
const nonBlocking = [
    'perl',
    '-MFcntl',
    '-e',
    'fcntl(STDOUT, F_SETFL, fcntl(STDOUT, F_GETFL, 0) | O_NONBLOCK) or die; exec @ARGV or die',
    '--',
];
const throughPipe = ['sh', '-c', '"$@" 3<&- | { read begin <&3; cat; }', 'sh']; // reads when told to

describe('a client that reads late receives every line whole', () => {
    const outputs = [
        ['from a socket pair', [], false],
        ['from a pipe', throughPipe, false],
        ['from a non-blocking socket pair', nonBlocking, true],
        ['from a non-blocking pipe', [...throughPipe, ...nonBlocking], true],
    ];
    for (const [name, wrapper, needsPerl] of outputs) {
        test(name, async (context) => {
            if (needsPerl && !perl) return context.skip('perl is not installed');
            const count = 256;
            const [program, ...args] = [...wrapper, setting('TIDEWELL_SERVER')];
            const child = startProcess(program, args, {
                env: { PATH: process.env.PATH },
                stdio: ['pipe', 'pipe', complaints, 'pipe'],
            });
            const end = endOf(child);
            child.stdio[3].on('error', () => {}); // only what stands behind a pipe reads it
            for (let id = 0; id < count; ++id) {
                child.stdin.write(`${JSON.stringify(rpc(id, 'tools/list'))}\n`);
            }
            child.stdin.end();
            await pause(500);
            assert.equal(child.exitCode, null, 'the output was not full');
            child.stdio[3].end('\n');

            const lines = await allOf(linesOf(child.stdout));
            assert.equal(lines.length, count);
            const { result } = membersOf(lines[0]);
            lines.forEach((line, id) => {
                assert.deepEqual(membersOf(line), { jsonrpc: '"2.0"', id: `${id}`, result });
            });
            assert.deepEqual(await end, [0, null]);
        });
    }
});

describe('endings', () => {
    for (const signal of ['SIGINT', 'SIGTERM']) {
        test(`${signal} ends a server that waits for requests`, async () => {
            const server = new Server();
            await server.ask(rpc(0, 'ping'));
            server.kill(signal);
            assert.deepEqual(await server.end, [null, signal]);
        });

        for (const [what, method, params] of [
            ['tool call', 'tools/call', { name: 'get_settings' }],
            ['resource read', 'resources/read', { uri: 'tidewell://settings' }],
        ]) {
            test(`${signal} ends a server whose ${what} waits for a silent host`, () =>
                withHost(
                    async (env, host) => {
                        const server = new Server(env);
                        const arrival = host.nextEnvelope();
                        server.send(rpc(0, method, params));
                        await arrival;
                        server.kill(signal);
                        assert.deepEqual(await server.end, [null, signal]);
                    },
                    () => undefined,
                ));
        }
    }

    test('a closed input ends a server, before the handshake and after it', async () => {
        for (const opening of [[], [rpc(0, 'initialize', {})]]) {
            const server = new Server();
            for (const message of opening) await server.ask(message);
            await server.finish();
        }
    });

    test('a request without a line feed before the closed input is not carried out', () =>
        withHost(async (env, host) => {
            const server = new Server(env);
            server.send(JSON.stringify(rpc(0, 'tools/call', { name: 'get_settings' })));
            await server.finish();
            assert.deepEqual(host.envelopes, []);
        }));

    served('a closed input lets a call in flight be answered first', async (server, host) => {
        const arrival = host.nextEnvelope();
        server.send(rpc(0, 'tools/call', { name: 'get_settings' }));
        await arrival;
        server.closeInput();
        await pause(200);
        assert.ok(server.isRunning);
        host.answerNow('{"ok":true,"result":1}');
        assert.deepEqual((await server.reply()).result, {
            content: [{ type: 'text', text: '1' }],
            isError: false,
        });
    }, () => undefined);

    test('exit ends the server at once, without an answer', async () => {
        const server = new Server();
        server.send(rpc(0, 'exit'), rpc(1, 'ping'));
        assert.deepEqual(await server.end, [0, null]);
        assert.equal(await server.reply(), undefined);
    });

    test('a client that has gone takes the server with it at the next reply', async () => {
        const server = new Server();
        await server.ask(rpc(0, 'ping'));
        server.stopReading();
        await pause(50);
        assert.ok(server.isRunning);
        server.send(rpc(1, 'ping'));
        assert.deepEqual(await server.end, [null, 'SIGPIPE']);
    });
});
