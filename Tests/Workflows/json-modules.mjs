// json-modules.mjs: a loader hook under which Node imports JSON files that are not marked as such, as bundlers do; the
// forge's language service is written for those.

import { readFile } from 'node:fs/promises';
import { fileURLToPath } from 'node:url';

export async function load(url, context, next) {
    if (!url.endsWith('.json')) return next(url, context);
    const text = await readFile(fileURLToPath(url), 'utf8');
    return { format: 'module', shortCircuit: true, source: `export default ${text}` };
}
