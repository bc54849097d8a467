// check-signature.mjs: fails unless a Mach-O program of one architecture carries a whole signature: the hash of every
// page fits, and the bytes signed are all that precede it. Who signed is not looked at; an ad-hoc signature, which
// names nobody, is what the linker writes.
//
//   node check-signature.mjs PROGRAM

import assert from 'node:assert/strict';
import { createHash } from 'node:crypto';
import { readFileSync } from 'node:fs';

const file = readFileSync(process.argv[2]);
assert.equal(file.readUInt32LE(0), 0xfeedfacf, 'no 64-bit Mach-O program');

/// Where the load command of this kind stands.
function loadCommand(wanted) {
    let at = 32;
    for (let left = file.readUInt32LE(16); left > 0; left -= 1) {
        if (file.readUInt32LE(at) === wanted) return at;
        at += file.readUInt32LE(at + 4);
    }
    assert.fail('it carries no signature');
}

const command = loadCommand(0x1d); // LC_CODE_SIGNATURE
const start = file.readUInt32LE(command + 8);
assert.equal(start + file.readUInt32LE(command + 12), file.length, 'something follows the signature');
const signature = file.subarray(start);
assert.equal(signature.readUInt32BE(0), 0xfade0cc0, 'no signature where one is announced');
assert.equal(signature.readUInt32BE(12), 0, 'the page hashes are not the first thing in it');

const directory = signature.subarray(signature.readUInt32BE(16));
assert.equal(directory.readUInt32BE(0), 0xfade0c02);
const [hashes, slots, limit] = [16, 28, 32].map((at) => directory.readUInt32BE(at));
const [hashBytes, hashKind, , pageBits] = directory.subarray(36, 40);
assert.deepEqual([hashBytes, hashKind], [32, 2], 'the hashes are not SHA-256');
assert.equal(limit, start, 'not all of the program is signed');
assert.equal(slots, Math.ceil(limit / 2 ** pageBits));
for (let slot = 0; slot < slots; slot += 1) {
    const page = file.subarray(slot << pageBits, Math.min((slot + 1) << pageBits, limit));
    const found = createHash('sha256').update(page).digest();
    const signed = directory.subarray(hashes + slot * 32, hashes + (slot + 1) * 32);
    assert.ok(found.equals(signed), `page ${slot} is not the one that was signed`);
}
