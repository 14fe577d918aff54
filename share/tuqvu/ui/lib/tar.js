// Reads the files of a tar package (plain or gzip-compressed) in the browser, the way
// lib/zip.js reads a zip: ustar and pax headers with their long names, GNU long names.
// Links and devices are refused by name, since the file API could not carry them.
import { PackageError } from './zip.js';

const BLOCK = 512;

function text(bytes, start, length) {
  const field = bytes.subarray(start, start + length);
  const end = field.indexOf(0);
  return new TextDecoder().decode(end < 0 ? field : field.subarray(0, end));
}

function octal(bytes, start, length) {
  const value = text(bytes, start, length).trim();
  if (!/^[0-7]*$/.test(value)) throw new PackageError('a header of it is damaged');
  return value ? parseInt(value, 8) : 0;
}

// The "path" record of a pax extended header, if it has one.
function paxPath(bytes) {
  for (const record of new TextDecoder().decode(bytes).split('\n')) {
    const found = /^\d+ path=(.*)$/s.exec(record);
    if (found) return found[1];
  }
  return null;
}

async function bytesOf(file) {
  const head = new Uint8Array(await file.slice(0, 2).arrayBuffer());
  if (head[0] !== 0x1f || head[1] !== 0x8b) return new Uint8Array(await file.arrayBuffer());
  const stream = file.stream().pipeThrough(new DecompressionStream('gzip'));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

// [{path, blob}] of every regular file in the tar archive `file` (a Blob).
export async function readTar(file) {
  let bytes;
  try {
    bytes = await bytesOf(file);
  } catch {
    throw new PackageError('it is not a readable gzip archive');
  }
  const files = [];
  let longName = null;
  for (let at = 0; at + BLOCK <= bytes.length;) {
    const header = bytes.subarray(at, at + BLOCK);
    if (header.every((byte) => byte === 0)) break;  // the end of the archive
    const size = octal(header, 124, 12);
    const type = String.fromCharCode(header[156] || 48);
    const prefix = text(header, 257, 6) === 'ustar' ? text(header, 345, 155) : '';
    const named = prefix ? `${prefix}/${text(header, 0, 100)}` : text(header, 0, 100);
    const data = bytes.subarray(at + BLOCK, at + BLOCK + size);
    if (data.length < size) throw new PackageError('it ends in the middle of a file');
    at += BLOCK + Math.ceil(size / BLOCK) * BLOCK;
    if (type === 'x') {
      longName = paxPath(data) ?? longName;
      continue;
    }
    if (type === 'L') {
      longName = text(data, 0, data.length);
      continue;
    }
    if (type === 'g') continue;  // global pax records name no file
    const path = (longName ?? named).replace(/^\.\//, '');
    longName = null;
    if (type === '5' || path === '' || path === '.') continue;
    if (type === '1' || type === '2') throw new PackageError(`it holds a link, ${path}`);
    if (type !== '0' && type !== '7') throw new PackageError(`${path} is no regular file`);
    files.push({ path, blob: new Blob([data]) });
  }
  return files;
}
