// bundles.mjs: the bundles under test, and what a client does with one: unpack it, read its manifest, find out
// what to start.

import { execFileSync } from 'node:child_process';
import { chmodSync, existsSync, readFileSync, readdirSync, renameSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';

import { checkout, setting, temporaryFolder } from '../Support/support.mjs';

export const folder = setting('TIDEWELL_BUNDLES');
export const tool = setting('BUNDLE_TOOL');
export const bundles = readdirSync(folder).filter((name) => name.endsWith('.mcpb'));

const cmake = readFileSync(join(checkout, 'CMakeLists.txt'), 'utf8');
export const project = {
    version: cmake.match(/project\(TidewellMCP VERSION (\S+)/)[1],
    description: cmake.match(/DESCRIPTION "([^"]+)"/)[1],
};

/// A PATH on which these programs stand before those of `path`: from names to what they do, in shell.
export function programs(texts, path = process.env.PATH) {
    const made = temporaryFolder();
    for (const [name, text] of Object.entries(texts)) {
        writeFileSync(join(made, name), `#!/bin/sh\n${text}\n`, { mode: 0o755 });
    }
    return `${made}:${path}`;
}

// --- a client ------------------------------------------------------------------------------------------------------

/// Unpacks as a client does that knows nothing of file modes, to a path with a blank in it.
export function unpack(bundle) {
    const made = join(temporaryFolder(), 'an installed bundle');
    execFileSync('unzip', ['-q', join(folder, bundle), '-d', made]);
    execFileSync('find', [made, '-type', 'f', '-exec', 'chmod', '644', '{}', '+']);
    return made;
}

export const manifestOf = (unpacked) => JSON.parse(readFileSync(join(unpacked, 'manifest.json'), 'utf8'));

/// What the format's own code makes of a manifest and of what the user has filled in: the code that clients use.
export async function configurationOf(unpacked, userConfig = {}) {
    const format = join(tool, 'node_modules/@anthropic-ai/mcpb/dist');
    const { getMcpConfigForManifest } = await import(join(format, 'shared/config.js'));
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
