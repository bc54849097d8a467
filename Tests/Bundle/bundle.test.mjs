// bundle.test.mjs: every bundle is what its name says, and starts on its own machine whatever unpacking did to it, and
// on no other.

import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { existsSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { afterEach, describe, test } from 'node:test';

import { Server, golden, startScriptedHost, stopAll, temporaryFolder } from '../Support/support.mjs';
import * as support from './bundles.mjs';

const { bundles, folder, machinesFor, programs, project, systemOf, tool, unpack } = support;

test('there is a bundle', () => assert.notEqual(bundles.length, 0));

/// Starts a bundle that cannot run: the exit status and all that it wrote.
function refusal({ command, args, env }, surroundings) {
    const options = { env: { ...surroundings, ...env }, input: '', encoding: 'utf8' };
    const { status, stdout, stderr } = spawnSync(command, args, options);
    return { status, stdout, stderr };
}

/// A host app that answers every request with the tool's name.
const startHostApp = (socket) =>
    startScriptedHost(socket, ({ tool }) => JSON.stringify({ ok: true, result: tool }));

/// For which processors a program is, by its first bytes.
function processorsOf(program) {
    if (program.readUInt32BE(0) === 0x7f454c46) {
        return { 62: ['Linux x86_64'], 183: ['Linux aarch64'] }[program.readUInt16LE(18)];
    }
    assert.equal(program.readUInt32BE(0), 0xcafebabe, 'neither ELF nor a universal program');
    const names = { 0x01000007: 'Darwin x86_64', 0x0100000c: 'Darwin arm64' };
    return [0, 1].slice(0, program.readUInt32BE(4)).map((at) => names[program.readUInt32BE(8 + 20 * at)]);
}

for (const bundle of bundles) {
    const system = systemOf(bundle);

    describe(bundle, () => {
        afterEach(stopAll);
        const unpacked = unpack(bundle);
        const manifest = support.manifestOf(unpacked);

        test('its manifest is valid', () => {
            execFileSync('node', [join(tool, 'node_modules/@anthropic-ai/mcpb/dist/cli/cli.js'), 'validate', unpacked]);
            assert.equal(manifest.manifest_version, '0.3');
        });

        test('it holds what belongs in it, with the execute bits for hosts that mind them', () => {
            const listing = execFileSync('unzip', ['-Z', '-s', '-h', join(folder, bundle)], { encoding: 'utf8' });
            const rows = [...listing.matchAll(/^.([rwx-]{9}) .* (\S+)$/gm)];
            assert.deepEqual(
                rows.map(([, mode, name]) => `${mode} ${name}`).sort(),
                [
                    'rw-r--r-- LIBRARIES',
                    'rw-r--r-- LICENSE',
                    'rw-r--r-- manifest.json',
                    'rw-r--r-- server/Info.plist',
                    'rwxr-xr-x server/bin/TidewellMCP',
                    'rwxr-xr-x server/start',
                ],
            );
        });

        const moment = process.env.SOURCE_DATE_EPOCH;
        test('its dates are the one asked for, not those of the day', { skip: !moment }, () => {
            const listing = execFileSync('unzip', ['-Z', '-l', '-T', join(folder, bundle)], { encoding: 'utf8' });
            const even = new Date((moment - (moment % 2)) * 1000); // the format knows no odd seconds
            const date = even.toISOString().slice(0, 19).replace(/[-:]/g, '').replace('T', '.');
            const dates = [...listing.matchAll(/ (\d{8}\.\d{6}) /g)].map(([, found]) => found);
            assert.deepEqual(dates, Array(6).fill(date));
        });

        test('it is the project, in this version', () => {
            const { name, version, description } = manifest;
            assert.deepEqual({ version, description }, project);
            assert.equal(bundle, `${name}-${version}-${system}.mcpb`);
            assert.equal(manifest.license, 'MIT');
            assert.match(readFileSync(join(unpacked, 'LICENSE'), 'utf8'), /^MIT License\n/);
            assert.ok(readFileSync(join(unpacked, 'server/Info.plist'), 'utf8').includes(`<string>${version}<`));
        });

        test('its entry point is a program for what its name says', () => {
            const { entry_point: entryPoint, type } = manifest.server;
            assert.equal(type, 'binary');
            const processors = processorsOf(readFileSync(join(unpacked, entryPoint)));
            assert.ok(processors.every((processor) => machinesFor[system].includes(processor)), processors);
            assert.equal(processors.length, system === 'macos-universal' ? 2 : 1);
            const [platform] = machinesFor[system][0].toLowerCase().split(' ');
            assert.deepEqual(manifest.compatibility, { platforms: [platform] });
        });

        test('its tools and prompts are the published ones', () => {
            const tools = golden('tools').map(({ name, description }) => ({ name, description }));
            assert.deepEqual(manifest.tools, tools);
            const prompts = golden('prompts').map(({ entry, messages }) => ({
                name: entry.name,
                description: entry.description,
                text: messages[0].content.text,
            }));
            assert.deepEqual(manifest.prompts, prompts);
        });

        test('on another machine it says so and ends', async () => {
            const configuration = await support.configurationOf(unpacked);
            const others = Object.values(machinesFor).flat().concat('Linux i686', 'Linux riscv64', 'FreeBSD amd64');
            for (const machine of others.filter((other) => !machinesFor[system].includes(other))) {
                const PATH = programs({ uname: `echo ${machine}` });
                assert.deepEqual(refusal(configuration, { PATH }), {
                    status: 1,
                    stdout: '',
                    stderr:
                        `TidewellMCP: this bundle is for ${system} and cannot run on ${machine}; ` +
                        'install the bundle that is made for it\n',
                });
            }
        });

        const prepare = support.runner(bundle);
        const running = (name, body) =>
            test(name, { skip: prepare ? false : 'its program cannot run here', timeout: 60_000 }, body);

        /// One whole conversation: the version, the tool list, a call, the end.
        async function converse({ command, args, env }, surroundings, answer) {
            const server = new Server({ ...surroundings, ...env }, [command, ...args]);
            const ask = async (method, params) =>
                (await server.ask({ jsonrpc: '2.0', id: 1, method, params })).result;
            const { serverInfo } = await ask('initialize', {
                protocolVersion: '2025-11-25',
                capabilities: {},
                clientInfo: { name: 'bundle-tests', version: '1' },
            });
            assert.deepEqual(serverInfo, { name: 'Tidewell', version: project.version });
            const { tools } = await ask('tools/list');
            assert.deepEqual(
                tools.map(({ name, description }) => ({ name, description })),
                manifest.tools,
            );
            const result = await ask('tools/call', { name: 'list_accounts' });
            assert.match(result.content[0].text, answer);
            await server.finish();
        }

        running('without its execute bits, it answers by the socket that the user has named', async () => {
            const [home, fresh] = [temporaryFolder(), unpack(bundle)];
            const PATH = prepare(fresh);
            const socket = join(home, 'a socket');
            await startHostApp(socket);
            const configuration = await support.configurationOf(fresh, { socket_path: socket });
            await converse(configuration, { HOME: home, PATH }, /^"list_accounts"$/);
            assert.deepEqual(readdirSync(home), ['a socket'], 'nothing was written outside of the bundle');
        });

        running('with no socket named, it takes the usual one', async () => {
            const [home, fresh] = [temporaryFolder(), unpack(bundle)];
            const PATH = prepare(fresh);
            const socket = join(home, 'Library/Application Support/Tidewell/tidewell-agent.sock');
            await startHostApp(socket);
            const configuration = await support.configurationOf(fresh);
            await converse(configuration, { HOME: home, PATH }, /^"list_accounts"$/);

            const { env } = manifest.server.mcp_config; // as hosts leave it that replace only what is set
            await converse({ ...configuration, env }, { HOME: home, PATH }, /^"list_accounts"$/);
        });

        /// A system on which nobody can change the unpacked files.
        function lockedPath(fresh) {
            const path = prepare(fresh);
            const chmod = `case $2 in '${fresh}'*) exit 1 ;; esac\nPATH='${path}' exec chmod "$@"`;
            return programs({ chmod }, path);
        }

        running('in a folder that cannot be changed, it runs from a copy, which follows the bundle', async () => {
            const [home, fresh] = [temporaryFolder(), unpack(bundle)];
            const surroundings = { HOME: home, PATH: lockedPath(fresh) };
            const configuration = await support.configurationOf(fresh);
            await converse(configuration, surroundings, /app_not_running/);
            const copy = join(home, '.cache/tidewell-mcp', `${project.version}-${system}`);
            assert.deepEqual(readdirSync(copy).sort(), ['Info.plist', 'bin']);
            assert.deepEqual(readdirSync(join(copy, 'bin')), ['TidewellMCP']);

            for (const file of ['Info.plist', 'bin/TidewellMCP']) writeFileSync(join(copy, file), 'damaged');
            await converse(configuration, surroundings, /app_not_running/);
            rmSync(join(copy, 'Info.plist'));
            await converse(configuration, surroundings, /app_not_running/);

            const cache = join(home, 'elsewhere');
            await converse(configuration, { ...surroundings, XDG_CACHE_HOME: cache }, /app_not_running/);
            assert.ok(existsSync(join(cache, 'tidewell-mcp')));
        });

        running('where no copy can be made either, it says so and ends', async () => {
            const fresh = unpack(bundle);
            const configuration = await support.configurationOf(fresh);
            for (const home of [{}, { HOME: '/dev/null' }]) {
                assert.deepEqual(refusal(configuration, { ...home, PATH: lockedPath(fresh) }), {
                    status: 1,
                    stdout: '',
                    stderr: `TidewellMCP: ${fresh}/server/bin/TidewellMCP cannot be made executable\n`,
                });
            }
            const HOME = temporaryFolder();
            const PATH = programs({ mv: 'exit 1' }, lockedPath(fresh));
            assert.equal(refusal(configuration, { HOME, PATH }).status, 1);
            const left = readdirSync(HOME, { recursive: true, withFileTypes: true });
            assert.deepEqual(left.filter((entry) => entry.isFile()), [], 'no half-made copy stays');
        });
    });
}
