// schema.test.mjs: every kind of reply the server can give, judged by the protocol's published JSON Schema
// and by the SDK's message schema; and every tool's input schema, judged as the JSON Schema that it is.
//
// A few replies are kept although a judge objects to them. They are listed below with the reason; an
// objection that is not listed fails, and so does one that is no longer raised.

import assert from 'node:assert/strict';
import { existsSync, readFileSync } from 'node:fs';
import { join, resolve } from 'node:path';
import { after, before, describe, test } from 'node:test';
import {
    Server, checkout, golden, packagesIn, setting, startScriptedHost, temporaryFolder,
} from '../Support/support.mjs';

const load = packagesIn(setting('CLIENTS_BUILD'));
const { Ajv2020 } = load('ajv/dist/2020.js');
const { default: addFormats } = load('ajv-formats');
const { JSONRPCMessageSchema } = load('@modelcontextprotocol/sdk/types.js');

// A file that was named has to be there; without a name, one beside the checkout is taken.
const named = process.env.MCP_SCHEMA;
const schemaFile = named || resolve(checkout, '../shared/mcp-schema-2025-11-25.json');
const skip = named || existsSync(schemaFile) ? false : 'MCP_SCHEMA does not name the published schema';

// --- the replies -------------------------------------------------------------------------------------------

const call = (method, params) => ({ jsonrpc: '2.0', id: 'x', method, params });
const tool = (name) => call('tools/call', { name, arguments: {} });
const resource = (name) => call('resources/read', { uri: `tidewell://${name}` });

/// What the host answers, by the tool's name or the URI's last part.
const hostReplies = {
    object: '{"ok":true,"result":{"a":[1,0.5,true,null,"→"]}}',
    text: '{"ok":true,"result":"done"}',
    nothing: '{"ok":true}',
    refused: '{"ok":false,"error":{"code":"denied","message":"No.","hint":"Ask the user."}}',
    wordless: '{"ok":false}',
    odd: '[]',
    garbled: 'not json',
    hangUp: null,
};

// What is asked, and what the answer has to be: a result of a type of the schema, or an error of a code.
const requests = [
    [
        'initialize',
        call('initialize', { protocolVersion: '2025-11-25', capabilities: {} }),
        'InitializeResult',
    ],
    ['initialize with an unknown protocol', call('initialize', { protocolVersion: '' }), 'InitializeResult'],
    ['initialize without params', call('initialize'), 'InitializeResult'],
    ['ping', call('ping'), 'EmptyResult'],
    ['tools/list', call('tools/list'), 'ListToolsResult'],
    ['resources/list', call('resources/list'), 'ListResourcesResult'],
    ['resources/templates/list', call('resources/templates/list'), 'ListResourceTemplatesResult'],
    ['prompts/list', call('prompts/list'), 'ListPromptsResult'],

    ['a tool that gives an object', tool('object'), 'CallToolResult'],
    ['a tool that gives a text', tool('text'), 'CallToolResult'],
    ['a tool that gives nothing', tool('nothing'), 'CallToolResult'],
    ['a tool that is refused', tool('refused'), 'CallToolResult'],
    ['a tool that is refused without a word', tool('wordless'), 'CallToolResult'],
    ['a tool whose reply is no object', tool('odd'), 'CallToolResult'],
    ['a tool whose reply is no JSON', tool('garbled'), 'CallToolResult'],
    ['a tool without a name', call('tools/call', {}), 'CallToolResult'],
    ['a tool, the host hanging up', tool('hangUp'), 'CallToolResult'],

    ['a resource that is an object', resource('object'), 'ReadResourceResult'],
    ['a resource that is a text', resource('text'), 'ReadResourceResult'],
    ['a resource that is empty', resource('nothing'), 'ReadResourceResult'],
    ['a resource that is refused', resource('refused'), -32000],
    ['a resource that is refused without a word', resource('wordless'), -32000],
    ['a resource whose reply is no object', resource('odd'), -32000],
    ['a resource whose reply is no JSON', resource('garbled'), -32603],
    ['a resource without a URI', call('resources/read', {}), -32602],
    ['a resource, the host hanging up', resource('hangUp'), -32000],

    ...golden('prompts').map(({ entry: { name } }) => [
        `the prompt ${name}`,
        call('prompts/get', { name }),
        'GetPromptResult',
    ]),
    ['an unknown prompt', call('prompts/get', { name: 'nope' }), -32001],
    ['a prompt without a name', call('prompts/get', {}), -32602],

    ['an unknown method', call('foo/bar'), -32601],
    ['no method', { jsonrpc: '2.0', id: 1 }, -32601],
    ['a line that is no JSON', 'not json\n', -32700],
    ['a line of blanks', '  \n', -32700],
    ['a batch', '[{"jsonrpc":"2.0","id":1,"method":"ping"}]\n', -32700],
    ['shutdown', call('shutdown'), 'EmptyResult'],

    ['an id of zero', { ...call('ping'), id: 0 }, 'EmptyResult'],
    ['an empty id', { ...call('ping'), id: '' }, 'EmptyResult'],
    ['an id with a fraction', { ...call('ping'), id: 2.9 }, 'EmptyResult'],
    ['an id that is a boolean', { ...call('ping'), id: true }, 'EmptyResult'],
    ['an id that is an object', { ...call('ping'), id: {} }, 'EmptyResult'],
    ['an id that is an array', { ...call('foo/bar'), id: [1] }, -32601],
];

// --- the objections ----------------------------------------------------------------------------------------

const noId =
    'The line had no id that could be read. JSON-RPC 2.0 wants null then; the schema wants it left out.';
const oddId =
    'No client sends such an id. There is none to give back, and silence would leave the sender waiting.';
const noResult = 'What this method has always been answered. The protocol ends by closing the input instead.';

const keptOnPurpose = {
    'a line that is no JSON': ['/id must be string,integer', noId],
    'a line of blanks': ['/id must be string,integer', noId],
    'a batch': ['/id must be string,integer', noId],
    'an id that is an object': ['/id must be string,integer', oddId],
    'an id that is an array': ['/id must be string,integer', oddId],
    shutdown: ['/result must be object', noResult],
};

// --- the tests ---------------------------------------------------------------------------------------------

let server;
let host;
const replies = new Map();

before(async () => {
    const socket = join(temporaryFolder(), 'agent.sock');
    host = await startScriptedHost(
        socket,
        ({ tool: name, args }) =>
            hostReplies[name === 'resources/read' ? args.uri.slice('tidewell://'.length) : name],
    );
    server = new Server({ TIDEWELL_SOCKET_PATH: socket });
    for (const [name, message] of requests) replies.set(name, await server.ask(message));
});

after(async () => {
    await server?.finish();
    await host?.stop();
});

test('each reply is of the expected kind, and its envelope has three members and no more', () => {
    for (const [name, , expected] of requests) {
        const reply = replies.get(name);
        const isError = typeof expected === 'number';
        assert.deepEqual(
            Object.keys(reply).sort(),
            ['id', 'jsonrpc', isError ? 'error' : 'result'].sort(),
            name,
        );
        if (!isError) continue;
        assert.equal(reply.error.code, expected, name);
        assert.deepEqual(Object.keys(reply.error).sort(), ['code', 'message'], name);
    }
});

describe('the published schema', () => {
    const judged = (name, body) => test(name, { skip }, body);
    const ajv = new Ajv2020({ strict: true, allowUnionTypes: true, allErrors: true });
    addFormats(ajv);

    const objectionsOf = (type, value) => {
        const validate = ajv.getSchema(`mcp#/$defs/${type}`);
        if (validate(value)) return [];
        return validate.errors.map(({ instancePath, message }) => `${instancePath} ${message}`);
    };

    before(() => skip || ajv.addSchema(JSON.parse(readFileSync(schemaFile, 'utf8')), 'mcp'));

    judged('it is the schema of the protocol revision that the server speaks', () => {
        assert.match(readFileSync(schemaFile, 'utf8'), /specification\/2025-11-25\//);
        assert.equal(replies.get('initialize without params').result.protocolVersion, '2025-11-25');
    });

    judged('it is able to object', () => {
        const [item] = replies.get('a tool that gives an object').result.content;
        assert.notDeepEqual(objectionsOf('CallToolResult', { content: [{ ...item, text: 5 }] }), []);
        assert.notDeepEqual(objectionsOf('ListToolsResult', { tools: [{ name: 'x' }] }), []);
        assert.notDeepEqual(objectionsOf('JSONRPCErrorResponse', { jsonrpc: '2.0', id: 1, error: {} }), []);
    });

    for (const [name, , expected] of requests) {
        const [kept] = keptOnPurpose[name] ?? [];
        judged(`${name}: ${kept === undefined ? 'accepted' : `refused, "${kept}"`}`, () => {
            const reply = replies.get(name);
            const isError = typeof expected === 'number';
            const envelope = isError ? 'JSONRPCErrorResponse' : 'JSONRPCResultResponse';
            assert.deepEqual(objectionsOf(envelope, reply), kept === undefined ? [] : [kept]);
            const accepted = kept === undefined;
            assert.equal(objectionsOf('JSONRPCResponse', reply).length === 0, accepted);
            assert.equal(objectionsOf('JSONRPCMessage', reply).length === 0, accepted);
            if (isError) {
                assert.deepEqual(objectionsOf('Error', reply.error), []);
            } else {
                assert.deepEqual(
                    objectionsOf(expected, reply.result),
                    name === 'shutdown' ? [' must be object'] : [],
                );
            }
        });
    }
});

test('the SDK objects to the same replies as the schema and to no others', () => {
    const refused = requests
        .map(([name]) => name)
        .filter((name) => !JSONRPCMessageSchema.safeParse(replies.get(name)).success);
    assert.deepEqual(refused.sort(), Object.keys(keptOnPurpose).sort());
});

describe('the input schemas of the tools', () => {
    const ajv = new Ajv2020({ strict: true, strictRequired: true, allErrors: true });
    const samples = { string: 'text', integer: 7, boolean: true, object: { key: 'value' } };
    const sampleOf = ({ type, items }) =>
        type === 'array' ? [sampleOf(items), sampleOf(items)] : samples[type];

    test('each takes good arguments and refuses undeclared, missing and mistyped ones', () => {
        const { tools } = replies.get('tools/list').result;
        assert.equal(tools.length, 60);
        for (const { name, inputSchema } of tools) {
            const validate = ajv.compile(inputSchema);
            const properties = Object.entries(inputSchema.properties ?? {});
            const required = inputSchema.required ?? [];
            const everything = Object.fromEntries(properties.map(([key, value]) => [key, sampleOf(value)]));
            const leastOfAll = Object.fromEntries(required.map((key) => [key, everything[key]]));

            assert.ok(validate(everything), `${name}: ${ajv.errorsText(validate.errors)}`);
            assert.ok(validate(leastOfAll), `${name}: ${ajv.errorsText(validate.errors)}`);
            assert.ok(!validate({ ...everything, undeclared: 1 }), `${name} takes an undeclared argument`);
            for (const [key] of properties) {
                assert.ok(!validate({ ...everything, [key]: null }), `${name} takes null as ${key}`);
                const { [key]: left, ...rest } = everything;
                assert.equal(validate(rest), !required.includes(key), `${name} without ${key}`);
            }
        }
    });
});
