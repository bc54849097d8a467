// server-json.test.mjs: the registry's file tells the truth about the bundles beside it.

import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { existsSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import { test } from 'node:test';

import { checkout, packagesIn } from '../Support/support.mjs';
import { bundles, folder, project, tool } from './bundles.mjs';

const server = JSON.parse(readFileSync(join(folder, 'server.json'), 'utf8'));
const schema = process.env.SERVER_SCHEMA ?? join(checkout, '../shared/server.schema-2025-12-11.json');

const skip = process.env.SERVER_SCHEMA || existsSync(schema) ? false : 'SERVER_SCHEMA names no file';
test('it is valid by the registry\'s schema', { skip }, () => {
    const load = packagesIn(tool);
    const ajv = new (load('ajv').default)({ strict: false, allErrors: true });
    load('ajv-formats').default(ajv);
    const rules = JSON.parse(readFileSync(schema, 'utf8'));
    assert.equal(server.$schema, rules.$id);
    const judge = ajv.compile(rules);
    assert.ok(judge(server), ajv.errorsText(judge.errors));
});

test('it is the project, in this version, in no more words than the registry takes', () => {
    const { version, description } = server;
    assert.deepEqual({ version, description }, project);
    assert.ok(description.length <= 100);
    assert.equal(server._meta['io.modelcontextprotocol.registry/publisher-provided'].license, 'MIT');
    assert.match(server.name, /^[a-z0-9.-]+\/tidewell-mcp$/);
});

test('every bundle is a package of it, under its checksum', () => {
    const packages = server.packages.map(({ registryType, identifier, version, fileSha256, transport }) => {
        assert.match(identifier, /^https:\/\/\S+$/);
        return { registryType, file: identifier.split('/').at(-1), version, fileSha256, transport };
    });
    assert.deepEqual(
        packages,
        bundles.map((file) => ({
            registryType: 'mcpb',
            file,
            version: project.version,
            fileSha256: createHash('sha256').update(readFileSync(join(folder, file))).digest('hex'),
            transport: { type: 'stdio' },
        })),
    );
});
