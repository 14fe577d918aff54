// The event log: memory events and library changes as they arrive, newest first, with
// a filter and a pause that holds new entries back until it is lifted.
import { h, part, say } from '../lib/dom.js';

const KEPT = 300;

export function eventLog(root) {
  const log = part(root, 'log');
  const filter = part(root, 'filter');
  const pause = part(root, 'pause');
  const held = part(root, 'held');
  const entries = [];   // {time, key, text, kind}, oldest first
  let waiting = [];     // what arrived while paused
  say(held, '');

  const paused = () => pause.getAttribute('aria-pressed') === 'true';

  function shown(entry) {
    const text = filter.value.trim().toLowerCase();
    return !text || entry.key.toLowerCase().includes(text) || entry.text.toLowerCase().includes(text);
  }

  function item(entry) {
    return h('li', { class: `entry ${entry.kind}` },
      h('time', { datetime: entry.time.toISOString() }, entry.time.toLocaleTimeString()),
      h('span', { class: 'key' }, entry.key),
      h('span', { class: 'value' }, entry.text));
  }

  function render() {
    log.replaceChildren(...entries.filter(shown).reverse().map(item));
  }

  function add(entry) {
    if (paused()) {
      waiting.push(entry);
      say(held, `Paused: ${waiting.length} new ${waiting.length === 1 ? 'entry' : 'entries'} held back.`);
      return;
    }
    entries.push(entry);
    if (entries.length > KEPT) entries.splice(0, entries.length - KEPT);
    if (shown(entry)) {
      log.prepend(item(entry));
      while (log.children.length > KEPT) log.lastElementChild.remove();
    }
  }

  pause.addEventListener('click', () => {
    const nowPaused = !paused();
    pause.setAttribute('aria-pressed', String(nowPaused));
    pause.textContent = nowPaused ? 'Resume' : 'Pause';
    if (!nowPaused) {
      const released = waiting;
      waiting = [];
      say(held, '');
      for (const entry of released) add(entry);
    }
  });
  part(root, 'clear').addEventListener('click', () => {
    entries.length = 0;
    waiting = [];
    say(held, '');
    render();
  });
  filter.addEventListener('input', render);

  return {
    event(key, value) {
      add({ time: new Date(), key, text: JSON.stringify(value), kind: 'event' });
    },
    notice(key, text) {
      add({ time: new Date(), key, text, kind: 'notice' });
    },
  };
}
