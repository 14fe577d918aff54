// The user and system libraries: search by name or tag, and per behavior its tags, its
// files, run, load, make default and (user behaviors) remove after a confirmation.
import { call, listFolder } from '../lib/broker.js';
import { fillList, h, part, reason, say } from '../lib/dom.js';
import { qualified, refreshDefaults, refreshLibrary, state, watch } from '../lib/state.js';

const M = 'ZRBehaviorManager';

export function libraryPanel(root, confirm) {
  const search = part(root, 'search');
  const tagChoice = part(root, 'tag');
  const error = part(root, 'error');
  const notes = new Map();       // name -> {text, isError}: what the last action said
  const files = new Map();       // name -> entries, or an Error, while its files show
  say(error, '');

  function note(name, text, isError = false) {
    notes.set(name, { text, isError });
    render();
  }

  async function act(name, doing, action) {
    note(name, doing);
    try {
      note(name, await action());
    } catch (failure) {
      note(name, reason(failure), true);
    }
  }

  function run(name) {
    // runBehavior answers when the behavior ends: the row says it started once the
    // running set shows it, and the end once the call returns.
    act(name, `Starting ${name}…`, async () => {
      await call(`${M}.runBehavior`, qualified(name));
      return `${name} has ended.`;
    });
  }

  function load(name) {
    act(name, `Loading ${name}…`, async () =>
      (await call(`${M}.preloadBehavior`, qualified(name))
        ? `${name} is loaded.` : `${name} could not be loaded.`));
  }

  function makeDefault(name) {
    act(name, `Adding ${name} to the default behaviors…`, async () => {
      await call(`${M}.addDefaultBehavior`, name);
      await refreshDefaults();
      return `${name} starts with the robot.`;
    });
  }

  async function remove(name) {
    if (!await confirm(`Remove ${name}? Its files are deleted from the robot.`)) {
      note(name, 'Not removed.');
      return;
    }
    act(name, `Removing ${name}…`, async () => {
      // Removal only ever looks in the user library, by the name it lists.
      await call(`${M}.removeBehavior`, name);
      await refreshLibrary();
      return `${name} was removed.`;
    });
  }

  async function toggleFiles(name, system) {
    if (files.has(name)) {
      files.delete(name);
      render();
      return;
    }
    files.set(name, []);
    const folder = system ? `behaviors/${name}/` : `behaviors/User/${name}/`;
    try {
      files.set(name, await listFolder(folder));
    } catch (failure) {
      files.set(name, new Error(`Its files cannot be listed: ${reason(failure)}`));
    }
    render();
  }

  function matches(name) {
    const tags = state.tags.get(name) ?? [];
    const text = search.value.trim().toLowerCase();
    const tag = tagChoice.value;
    if (tag && !tags.includes(tag)) return false;
    return !text || name.toLowerCase().includes(text) ||
           tags.some((t) => t.toLowerCase().includes(text));
  }

  function fileList(name) {
    const entries = files.get(name);
    if (!entries) return null;
    if (entries instanceof Error) return h('p', { class: 'error' }, entries.message);
    return h('ul', { class: 'files', 'aria-label': `Files of ${name}` },
      entries.map((entry) => h('li', {},
        entry.type === 'directory' ? `${entry.name}/` : entry.name,
        entry.type === 'file' ? h('span', { class: 'size' }, ` ${entry.size} bytes`) : null)));
  }

  function row(name, system) {
    const tags = state.tags.get(name) ?? [];
    const running = state.running.has(name) || state.running.has(qualified(name));
    let said = notes.get(name);
    // A run answers only at its end, and a behavior may be started elsewhere: while it
    // runs, that is what its row says, whatever the last action reported before.
    if (said && !said.isError && running) said = { text: `${name} is running.`, isError: false };
    const button = (label, action, key) =>
      h('button', { type: 'button', 'aria-label': `${label} ${name}`, 'data-key': `${key}:${name}`,
                    onclick: action }, label);
    return h('li', { class: 'row behavior', 'data-behavior': name },
      h('span', { class: 'name' }, name),
      running ? h('span', { class: 'badge' }, 'running') : null,
      h('span', { class: 'tags', 'aria-label': `Tags of ${name}` },
        tags.length ? tags.map((tag) => h('span', { class: 'tag' }, tag)) : 'no tags'),
      h('span', { class: 'actions' },
        button('Run', () => run(name), 'run'),
        button('Load', () => load(name), 'load'),
        h('button', { type: 'button', 'aria-expanded': String(files.has(name)),
                      'aria-label': `Files of ${name}`, 'data-key': `files:${name}`,
                      onclick: () => toggleFiles(name, system) }, 'Files'),
        button('Make default', () => makeDefault(name), 'default'),
        system ? null : h('button', { type: 'button', class: 'danger', 'aria-label': `Remove ${name}`,
                                      'data-key': `remove:${name}`, onclick: () => remove(name) },
                          'Remove')),
      said ? h('p', { class: said.isError ? 'error' : 'message', role: said.isError ? 'alert' : 'status' },
               said.text) : null,
      fileList(name));
  }

  function render() {
    const chosen = tagChoice.value;
    tagChoice.replaceChildren(h('option', { value: '' }, 'any tag'),
      ...state.allTags.map((tag) => h('option', { value: tag }, tag)));
    tagChoice.value = state.allTags.includes(chosen) ? chosen : '';
    for (const [which, names] of [['user', state.user], ['system', state.system]]) {
      fillList(part(root, 'list', which), part(root, 'empty', which),
               names.filter(matches).map((name) => row(name, which === 'system')));
    }
  }

  search.addEventListener('input', render);
  tagChoice.addEventListener('change', render);
  watch(render);
  refreshLibrary().catch((failure) => say(error, `The libraries cannot be read: ${reason(failure)}`));
}
