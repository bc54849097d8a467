// workflows.test.mjs: the workflows are valid, use the forge's own actions alone, and run nothing but scripts.

import assert from 'node:assert/strict';
import { existsSync, readFileSync, readdirSync } from 'node:fs';
import { createRequire, register } from 'node:module';
import { join, resolve } from 'node:path';
import { test } from 'node:test';
import { fileURLToPath } from 'node:url';

const checkout = resolve(fileURLToPath(import.meta.url), '../../..');
const folder = join(checkout, '.github/workflows');
const tool = join(process.env.WORKFLOWS_TOOL, 'node_modules');

register(new URL('json-modules.mjs', import.meta.url));
const { validate } = await import(join(tool, '@actions/languageservice/dist/index.js'));
const { TextDocument } = createRequire(join(tool, 'package.json'))('vscode-languageserver-textdocument');
const { parse } = createRequire(join(tool, 'package.json'))('yaml');

let read = 0;

/// All that is wrong with a workflow, one sentence each.
async function findings(text) {
    read += 1; // the service remembers files by their names
    const file = `file:///.github/workflows/${read}.yml`;
    const found = await validate(TextDocument.create(file, 'yaml', 0, text));
    const sentences = found.map(({ range, message }) => `line ${range.start.line + 1}: ${message}`);
    if (sentences.length > 0) return sentences;
    for (const { uses, run } of Object.values(parse(text).jobs).flatMap(({ steps }) => steps)) {
        if (uses && !/^actions\/[a-z-]+@(v\d+|[0-9a-f]{40})$/.test(uses)) {
            sentences.push(`${uses}: not the forge's own, or of no fixed version`);
        }
        const [, script] = run?.match(/^(Scripts\/[a-z-]+)(?: "\$[A-Z_]+")*$/) ?? [];
        if (run && !(script && existsSync(join(checkout, script)))) {
            sentences.push(`${run}: not a call of one script`);
        }
    }
    return sentences;
}

for (const name of readdirSync(folder)) {
    test(`${name} is right`, async () => {
        assert.deepEqual(await findings(readFileSync(join(folder, name), 'utf8')), []);
    });
}

const damages = [
    ['an unknown key', 'runs-on:', 'run-on:', /Unexpected value 'run-on'/],
    ['an unknown permission', 'contents: read', 'content: read', /Unexpected value 'content'/],
    ['an unknown event', 'pull_request', 'pull_requests', /Unexpected value 'pull_requests'/],
    ['a name that no context has', '{{ matrix.os }}', '{{ matrix.system }}', /might be invalid: system/],
    ['an unfinished expression', '{{ matrix.os }}', '{{ always( }}', /Unexpected end of expression/],
    ['somebody else\'s action', 'actions/checkout', 'example/checkout', /^example\/checkout@v4: not the forge's own/],
    ['an action of no fixed version', 'checkout@v4', 'checkout@main', /checkout@main: not the forge's own/],
    ['a command of its own', 'run: Scripts/test', 'run: make test', /^make test: not a call of one script/],
    ['a missing script', 'run: Scripts/test', 'run: Scripts/gone', /^Scripts\/gone: not a call of one script/],
    ['a script and more', 'run: Scripts/test', 'run: Scripts/test && make', /not a call of one script/],
];
for (const [name, from, to, expected] of damages) {
    test(`${name} is found`, async () => {
        const whole = readFileSync(join(folder, 'test.yml'), 'utf8');
        const damaged = whole.replace(from, to);
        assert.notEqual(damaged, whole);
        assert.match((await findings(damaged)).join('\n'), expected);
    });
}
