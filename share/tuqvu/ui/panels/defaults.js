// The default behaviors: the list, adding one by name, removing one, starting them now.
import { call } from '../lib/broker.js';
import { fillList, h, part, reason, say } from '../lib/dom.js';
import { refreshDefaults, state, watch } from '../lib/state.js';

const M = 'ZRBehaviorManager';

export function defaultsPanel(root) {
  const list = part(root, 'list');
  const empty = part(root, 'empty');
  const error = part(root, 'error');
  const name = part(root, 'name');
  const choices = root.querySelector('datalist');
  say(error, '');

  async function attempt(what, action) {
    try {
      await action();
      await refreshDefaults();
      say(error, '');
    } catch (failure) {
      say(error, `${what}: ${reason(failure)}`);
    }
  }

  part(root, 'add').addEventListener('submit', (event) => {
    event.preventDefault();
    const behavior = name.value.trim();
    if (!behavior) return;
    attempt(`Could not add ${behavior}`, async () => {
      await call(`${M}.addDefaultBehavior`, behavior);
      name.value = '';
    });
  });
  part(root, 'start').addEventListener('click', () =>
    attempt('Could not start the default behaviors', () => call(`${M}.playDefaultProject`)));

  watch(() => {
    choices.replaceChildren(...[...state.user, ...state.system].map((n) => h('option', { value: n })));
    fillList(list, empty, state.defaults.map((behavior) =>
      h('li', { class: 'row', 'data-behavior': behavior },
        h('span', { class: 'name' }, behavior),
        h('button', { type: 'button', 'aria-label': `Remove ${behavior} from the defaults`,
                      'data-key': `undefault:${behavior}`,
                      onclick: () => attempt(`Could not remove ${behavior} from the defaults`,
                        () => call(`${M}.removeDefaultBehavior`, behavior)) },
          'Remove from defaults'))));
  });
  refreshDefaults().catch((failure) =>
    say(error, `The default behaviors cannot be read: ${reason(failure)}`));
}
