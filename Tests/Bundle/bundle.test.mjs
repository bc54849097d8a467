// bundle.test.mjs: every bundle is what its name says, and starts on its own machine whatever unpacking did to it, and
// on no other.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { existsSync, readFileSync, readdirSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { afterEach, describe, test } from 'node:test';

import * as support from './support.mjs';

const { bundles, folder, golden, machinesFor, project, start, systemOf, tool, unpack } = support;

test('there is a bundle', () => assert.notEqual(bundles.length, 0));

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
        afterEach(support.stopAll);
        const unpacked = unpack(bundle);
        const manifest = support.manifestOf(unpacked);

        test('its manifest is valid', () => {
            execFileSync('node', [join(tool, '@anthropic-ai/mcpb/dist/cli/cli.js'), 'validate', unpacked]);
            assert.equal(manifest.manifest_version, '0.3');
        });

        test('it holds what belongs in it, with the execute bits for hosts that mind them', () => {
            const listing = execFileSync('unzip', ['-Z', '-s', '-h', join(folder, bundle)], { encoding: 'utf8' });
            const rows = [...listing.matchAll(/^.([rwx-]{9}) .* (\S+)$/gm)];
            assert.deepEqual(
                rows.map(([, mode, name]) => `${mode} ${name}`).sort(),
                [
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
            assert.deepEqual(dates, Array(4).fill(date));
        });

        test('it is the project, in this version', () => {
            const { name, version, description } = manifest;
            assert.deepEqual({ version, description }, project);
            assert.equal(bundle, `${name}-${version}-${system}.mcpb`);
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
                const PATH = support.programs({ uname: `echo ${machine}` });
                const { status, rest, complaints } = await start(configuration, { PATH }).finish();
                assert.deepEqual({ status, rest }, { status: 1, rest: [] });
                assert.equal(
                    complaints,
                    `TidewellMCP: this bundle is for ${system} and cannot run on ${machine}; ` +
                        'install the bundle that is made for it\n',
                );
            }
        });

        const prepare = support.runner(bundle);
        const running = (name, body) =>
            test(name, { skip: prepare ? false : 'its program cannot run here', timeout: 60_000 }, body);

        /// One whole conversation: the version, the tool list, a call, the end.
        async function converse(configuration, surroundings, answer) {
            const server = start(configuration, surroundings);
            const { serverInfo } = await server.ask('initialize', {
                protocolVersion: '2025-11-25',
                capabilities: {},
                clientInfo: { name: 'bundle-tests', version: '1' },
            });
            assert.deepEqual(serverInfo, { name: 'Tidewell', version: project.version });
            const { tools } = await server.ask('tools/list');
            assert.deepEqual(
                tools.map(({ name, description }) => ({ name, description })),
                manifest.tools,
            );
            const result = await server.ask('tools/call', { name: 'list_accounts' });
            assert.match(result.content[0].text, answer);
            assert.deepEqual(await server.finish(), { status: 0, rest: [], complaints: '' });
        }

        running('without its execute bits, it answers by the socket that the user has named', async () => {
            const [home, fresh] = [support.temporaryFolder(), unpack(bundle)];
            const PATH = prepare(fresh);
            const socket = join(home, 'a socket');
            await support.startHostApp(socket);
            const configuration = await support.configurationOf(fresh, { socket_path: socket });
            await converse(configuration, { HOME: home, PATH }, /^"list_accounts"$/);
            assert.deepEqual(readdirSync(home), ['a socket'], 'nothing was written outside of the bundle');
        });

        running('with no socket named, it takes the usual one', async () => {
            const [home, fresh] = [support.temporaryFolder(), unpack(bundle)];
            const PATH = prepare(fresh);
            const socket = join(home, 'Library/Application Support/Tidewell/tidewell-agent.sock');
            await support.startHostApp(socket);
            const configuration = await support.configurationOf(fresh);
            await converse(configuration, { HOME: home, PATH }, /^"list_accounts"$/);

            const { env } = manifest.server.mcp_config; // as hosts leave it that replace only what is set
            await converse({ ...configuration, env }, { HOME: home, PATH }, /^"list_accounts"$/);
        });

        /// A system on which nobody can change the unpacked files.
        function lockedPath(fresh) {
            const path = prepare(fresh);
            const chmod = `case $2 in '${fresh}'*) exit 1 ;; esac\nPATH='${path}' exec chmod "$@"`;
            return support.programs({ chmod }, path);
        }

        running('in a folder that cannot be changed, it runs from a copy, which follows the bundle', async () => {
            const [home, fresh] = [support.temporaryFolder(), unpack(bundle)];
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
                const server = start(configuration, { ...home, PATH: lockedPath(fresh) });
                assert.deepEqual(await server.finish(), {
                    status: 1,
                    rest: [],
                    complaints: `TidewellMCP: ${fresh}/server/bin/TidewellMCP cannot be made executable\n`,
                });
            }
            const HOME = support.temporaryFolder();
            const PATH = support.programs({ mv: 'exit 1' }, lockedPath(fresh));
            assert.equal((await start(configuration, { HOME, PATH }).finish()).status, 1);
            const left = readdirSync(HOME, { recursive: true, withFileTypes: true });
            assert.deepEqual(left.filter((entry) => entry.isFile()), [], 'no half-made copy stays');
        });
    });
}
