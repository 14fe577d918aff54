// Running behaviors: what runs, in which state and since when, with a stop button each.
import { call } from '../lib/broker.js';
import { duration, fillList, h, part, reason, say } from '../lib/dom.js';
import { changed, state, watch } from '../lib/state.js';

export function runningPanel(root) {
  const list = part(root, 'list');
  const empty = part(root, 'empty');
  const error = part(root, 'error');
  say(error, '');

  async function stop(name) {
    const entry = state.running.get(name);
    if (entry) entry.stopping = true;
    changed();
    try {
      await call('ZRBehaviorManager.stopBehavior', name);
      say(error, '');
    } catch (failure) {
      if (entry) entry.stopping = false;
      changed();
      say(error, `Could not stop ${name}: ${reason(failure)}`);
    }
  }

  function since(entry) {
    if (entry.since === null) return 'running since before this page opened';
    return `running for ${duration(Date.now() - entry.since)}`;
  }

  function render() {
    const names = [...state.running.keys()].sort();
    fillList(list, empty, names.map((name) => {
      const entry = state.running.get(name);
      return h('li', { class: 'row', 'data-behavior': name },
        h('span', { class: 'name' }, name),
        h('span', { class: 'state', 'data-state': entry.stopping ? 'stopping' : 'running' },
          entry.stopping ? 'stopping…' : since(entry)),
        h('button', { type: 'button', disabled: entry.stopping, 'aria-label': `Stop ${name}`,
                      'data-key': `stop:${name}`, onclick: () => stop(name) }, 'Stop'));
    }));
  }

  // The clocks move on without events; only their texts change, nothing else is redrawn.
  function tick() {
    for (const row of list.children) {
      const entry = state.running.get(row.getAttribute('data-behavior'));
      const text = row.querySelector('[data-state="running"]');
      if (entry && text) text.textContent = since(entry);
    }
  }

  watch(render);
  setInterval(tick, 1000);
}
