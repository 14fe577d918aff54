// Installing by dropping a behavior folder or a package onto the page (or choosing
// one): its files go to the user library through the file API with a progress bar, then
// installBehavior takes them in. A refusal says what was refused and why.
import { call, fileUrl, putFile, readLog } from '../lib/broker.js';
import { part, reason, say } from '../lib/dom.js';
import { refreshLibrary, state } from '../lib/state.js';
import { readTar } from '../lib/tar.js';
import { PackageError, readZip } from '../lib/zip.js';

// A package's name without its extension, and how its files are read.
const PACKAGES = [
  [/\.zip$/i, readZip],
  [/\.(tar\.gz|tgz|tar)$/i, readTar],
];

// The sequence of the broker's latest log entry; null when its log cannot be read.
async function lastLogEntry() {
  try {
    return (await readLog(Number.MAX_SAFE_INTEGER)).last;
  } catch {
    return null;
  }
}

// What the behavior manager logged about the install since entry `before`, in words.
async function whyRefused(before) {
  const unknown = 'the behavior manager did not take it as a behavior or package, and its ' +
    "log on the robot says why.";
  if (before === null) return unknown;
  try {
    const { entries } = await readLog(before);
    const reasons = entries.filter((entry) => entry.function === 'installBehavior')
      .map((entry) => entry.text);
    return reasons.length === 0 ? unknown : reasons.join(' ');
  } catch {
    return unknown;
  }
}

// Every file below a dropped folder entry, as {path, blob} relative to that folder.
async function filesOfEntry(entry, prefix = '') {
  if (entry.isFile) {
    const blob = await new Promise((resolve, reject) => entry.file(resolve, reject));
    return [{ path: prefix + entry.name, blob }];
  }
  const reader = entry.createReader();
  const children = [];
  for (;;) {
    const batch = await new Promise((resolve, reject) => reader.readEntries(resolve, reject));
    if (batch.length === 0) break;
    children.push(...batch);
  }
  const nested = await Promise.all(children.map((child) =>
    filesOfEntry(child, `${prefix}${entry.name}/`)));
  return nested.flat();
}

function isPackage(file) {
  return PACKAGES.some(([pattern]) => pattern.test(file.name));
}

function withoutTop(files, top) {
  return files.map(({ path, blob }) => ({ path: path.slice(top.length + 1), blob }));
}

// Removes what an install that failed left of a behavior that was not there before; one
// that was replaced keeps what the upload changed, as a folder copy would.
async function forget(name, existed) {
  if (existed) return;
  await fetch(fileUrl(`behaviors/User/${name}/`), { method: 'DELETE' }).catch(() => {});
}

export function installPanel(root, confirm) {
  const drop = part(root, 'drop');
  const progress = part(root, 'progress');
  const progressLabel = part(root, 'progress-label');
  const message = part(root, 'message');
  const error = part(root, 'error');
  let busy = false;
  say(message, '');
  say(error, '');

  function refuse(text) {
    say(message, '');
    say(error, text);
  }

  async function install(name, files) {
    // "." would put the files into the library itself, ".." beside it.
    if (name === '' || name.startsWith('.')) {
      refuse(`"${name}" was not installed: a behavior's name cannot be empty or begin with a dot.`);
      return;
    }
    if (!files.some((file) => file.path === 'behavior.xar')) {
      refuse(`${name} was not installed: it holds no behavior.xar at its top, so it is no behavior.`);
      return;
    }
    const existed = state.user.includes(name);
    if (existed && !await confirm(`${name} is installed already. Replace it?`, 'Replace')) {
      say(message, `${name} was left as it was.`);
      return;
    }
    // behavior.xar goes last: until it is there, the folder is no behavior, so an upload
    // cut short leaves nothing the library would take for one.
    files = [...files.filter((file) => file.path !== 'behavior.xar'),
             ...files.filter((file) => file.path === 'behavior.xar')];
    const total = files.reduce((sum, file) => sum + file.blob.size, 0);
    let done = 0;
    progress.setAttribute('max', String(Math.max(total, 1)));
    progress.setAttribute('value', '0');
    progressLabel.hidden = false;
    say(error, '');
    say(message, `Uploading ${name}: ${files.length} files…`);
    try {
      for (const file of files) {
        await putFile(`behaviors/User/${name}/${file.path}`, file.blob,
                      (sent) => progress.setAttribute('value', String(done + sent)));
        done += file.blob.size;
        progress.setAttribute('value', String(done));
      }
      say(message, `Installing ${name}…`);
      const logBefore = await lastLogEntry();
      if (!await call('ZRBehaviorManager.installBehavior', name)) {
        await forget(name, existed);
        refuse(`The robot refused to install ${name}: ${await whyRefused(logBefore)}`);
        return;
      }
      await refreshLibrary();
      say(message, `${name} is installed.`);
    } catch (failure) {
      await forget(name, existed);
      refuse(`${name} was not installed: ${reason(failure)}`);
    }
  }

  async function take(what) {
    if (busy) {
      refuse('Another install is still going on; wait for it to end.');
      return;
    }
    busy = true;
    try {
      await what();
    } finally {
      busy = false;
    }
  }

  async function installPackage(file) {
    const [pattern, read] = PACKAGES.find(([known]) => known.test(file.name));
    const name = file.name.replace(pattern, '');
    let files;
    try {
      files = await read(file);
    } catch (failure) {
      if (!(failure instanceof PackageError)) throw failure;
      refuse(`${file.name} was not installed: ${failure.message}.`);
      return;
    }
    await install(name, files);
  }

  drop.addEventListener('dragover', (event) => {
    event.preventDefault();
    drop.classList.add('over');
  });
  drop.addEventListener('dragleave', () => drop.classList.remove('over'));
  drop.addEventListener('drop', (event) => {
    event.preventDefault();
    drop.classList.remove('over');
    const items = [...event.dataTransfer.items].filter((item) => item.kind === 'file');
    const entry = items.length === 1 && items[0].webkitGetAsEntry ? items[0].webkitGetAsEntry() : null;
    const file = event.dataTransfer.files[0];
    take(async () => {
      if (entry && entry.isDirectory) {
        await install(entry.name, withoutTop(await filesOfEntry(entry), entry.name));
      } else if (file && isPackage(file)) {
        await installPackage(file);
      } else {
        refuse(`${file ? file.name : 'That'} was not installed: drop one behavior folder or ` +
               'one package (.zip, .tar, .tar.gz).');
      }
    });
  });
  part(root, 'folder').addEventListener('change', (event) => {
    const chosen = [...event.target.files];
    event.target.value = '';
    if (chosen.length === 0) return;
    const top = chosen[0].webkitRelativePath.split('/')[0];
    take(() => install(top, withoutTop(chosen.map((file) =>
      ({ path: file.webkitRelativePath, blob: file })), top)));
  });
  part(root, 'package').addEventListener('change', (event) => {
    const [file] = event.target.files;
    event.target.value = '';
    if (file && isPackage(file)) take(() => installPackage(file));
    else if (file) refuse(`${file.name} was not installed: it is no .zip, .tar or .tar.gz package.`);
  });
}
