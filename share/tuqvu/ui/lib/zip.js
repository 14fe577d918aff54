// Reads the files of a zip package in the browser, so that a package goes to the robot
// the way a folder does: file by file through the file API. Stored and deflated entries
// (what zip tools write) are read; links, encrypted entries and zip64 are refused by
// name, since the file API could not carry them faithfully.

export class PackageError extends Error {}

const LINK = 0o120000;

function endOfDirectory(view) {
  // The end record is the last 22 bytes, or further up when a comment follows it.
  for (let at = view.byteLength - 22; at >= Math.max(0, view.byteLength - 22 - 65535); at -= 1) {
    if (view.getUint32(at, true) === 0x06054b50) return at;
  }
  throw new PackageError('it is not a zip archive (no end of its central directory)');
}

async function inflate(bytes) {
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate-raw'));
  return new Uint8Array(await new Response(stream).arrayBuffer());
}

// [{path, blob}] of every file in the archive `file` (a Blob), folders left out.
export async function readZip(file) {
  const buffer = await file.arrayBuffer();
  const view = new DataView(buffer);
  const end = endOfDirectory(view);
  const count = view.getUint16(end + 10, true);
  let at = view.getUint32(end + 16, true);
  if (count === 0xffff || at === 0xffffffff) throw new PackageError('zip64 archives are not read here');
  const decoder = new TextDecoder();
  const files = [];
  for (let i = 0; i < count; i += 1) {
    if (at + 46 > buffer.byteLength || view.getUint32(at, true) !== 0x02014b50) {
      throw new PackageError('its central directory is damaged');
    }
    const flags = view.getUint16(at + 8, true);
    const method = view.getUint16(at + 10, true);
    const size = view.getUint32(at + 20, true);
    const nameLength = view.getUint16(at + 28, true);
    const skip = nameLength + view.getUint16(at + 30, true) + view.getUint16(at + 32, true);
    const mode = view.getUint32(at + 38, true) >>> 16;
    const local = view.getUint32(at + 42, true);
    const path = decoder.decode(new Uint8Array(buffer, at + 46, nameLength));
    at += 46 + skip;
    if (path.endsWith('/')) continue;
    if ((mode & 0o170000) === LINK) throw new PackageError(`it holds a link, ${path}`);
    if (flags & 1) throw new PackageError(`${path} is encrypted`);
    if (local + 30 > buffer.byteLength || view.getUint32(local, true) !== 0x04034b50) {
      throw new PackageError(`the entry ${path} is damaged`);
    }
    const start = local + 30 + view.getUint16(local + 26, true) + view.getUint16(local + 28, true);
    const bytes = new Uint8Array(buffer, start, size);
    if (method === 0) files.push({ path, blob: new Blob([bytes]) });
    else if (method === 8) files.push({ path, blob: new Blob([await inflate(bytes)]) });
    else throw new PackageError(`${path} is compressed in a way not read here (method ${method})`);
  }
  return files;
}
