// server.mjs: the server on the official TypeScript SDK, as most MCP servers are written today.
//
//   node server.mjs FILE     FILE holds a tools/list reply, from which the tool table is taken
import { randomUUID } from 'node:crypto';
import { readFileSync } from 'node:fs';
import { connect } from 'node:net';

import { Server } from '@modelcontextprotocol/sdk/server/index.js';
import { StdioServerTransport } from '@modelcontextprotocol/sdk/server/stdio.js';
import { CallToolRequestSchema, ListToolsRequestSchema } from '@modelcontextprotocol/sdk/types.js';

const { tools } = JSON.parse(readFileSync(process.argv[2], 'utf8')).result;

const server = new Server(
    { name: 'Tidewell', version: '0.1.0' },
    {
        capabilities: { tools: {}, resources: {}, prompts: {} },
        instructions:
            'Read tools (L0) work directly. To mutate: call a propose_* tool, ask the user to confirm in Tidewell → ' +
            'Agent Review to get a confirmationToken, then call the apply/git tool with that token. Dangerous git is ' +
            'always blocked.',
    },
);

/** One line to the host app, and the line that it answers with. */
function exchange(line) {
    return new Promise((resolve, reject) => {
        const chunks = [];
        const socket = connect(process.env.TIDEWELL_SOCKET_PATH, () => socket.write(line));
        socket.setTimeout(120_000, () => socket.destroy(new Error('no response')));
        socket.on('error', reject);
        socket.on('end', () => reject(new Error('no response')));
        socket.on('data', (chunk) => {
            const end = chunk.indexOf(10);
            chunks.push(end < 0 ? chunk : chunk.subarray(0, end));
            if (end < 0) return;
            socket.destroy();
            resolve(Buffer.concat(chunks).toString('utf8'));
        });
    });
}

/** The numbers 1 and 0 become booleans. */
const convertNumbers = (key, value) => (value === 1 || value === 0 ? value === 1 : value);

const toolResult = (value, isError) => ({ content: [{ type: 'text', text: JSON.stringify(value) }], isError });

server.setRequestHandler(ListToolsRequestSchema, () => ({ tools }));
server.setRequestHandler(CallToolRequestSchema, async ({ params }) => {
    try {
        const envelope = { tool: params.name, args: params.arguments ?? {}, requestId: randomUUID().toUpperCase() };
        const reply = JSON.parse(await exchange(JSON.stringify(envelope, convertNumbers) + '\n'));
        return reply.ok ? toolResult(reply.result, false) : toolResult({ error: reply.error }, true);
    } catch (error) {
        return toolResult({ error: { code: 'error', message: error.message } }, true);
    }
});

await server.connect(new StdioServerTransport());
