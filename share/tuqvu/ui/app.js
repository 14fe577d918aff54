// The dashboard: wires the panels to the broker's event stream. Every panel renders from
// the shared state (lib/state.js); events change that state, and after a cut in the
// stream everything is read again so that nothing stays stale.
import { followEvents } from './lib/broker.js';
import { part, reason } from './lib/dom.js';
import { refreshDefaults, refreshLibrary, refreshRunning, setRunning } from './lib/state.js';
import { defaultsPanel } from './panels/defaults.js';
import { eventLog } from './panels/events.js';
import { healthPanel } from './panels/health.js';
import { installPanel } from './panels/install.js';
import { libraryPanel } from './panels/library.js';
import { runningPanel } from './panels/running.js';

const LIBRARY_KEYS = ['ZRBehaviorManager/BehaviorAdded', 'ZRBehaviorManager/BehaviorUpdated',
                      'ZRBehaviorManager/BehaviorRemoved'];

// Asks a yes-or-no question in the page's dialog; resolves to true for yes. The dialog
// is modal: the keyboard stays in it and Escape answers no.
function confirmInDialog(question, yes = 'Remove') {
  const dialog = document.getElementById('confirm');
  part(dialog, 'text').textContent = question;
  part(dialog, 'confirm').textContent = yes;
  return new Promise((resolve) => {
    const answer = (value) => () => {
      dialog.close();
      resolve(value);
    };
    const onYes = answer(true);
    const onNo = answer(false);
    part(dialog, 'confirm').addEventListener('click', onYes, { once: true });
    part(dialog, 'cancel').addEventListener('click', onNo, { once: true });
    dialog.addEventListener('cancel', onNo, { once: true });
    dialog.addEventListener('close', () => {
      part(dialog, 'confirm').removeEventListener('click', onYes);
      part(dialog, 'cancel').removeEventListener('click', onNo);
      dialog.removeEventListener('cancel', onNo);
    }, { once: true });
    dialog.showModal();
  });
}

function start() {
  const connection = document.getElementById('connection');
  runningPanel(document.getElementById('running'));
  libraryPanel(document.getElementById('library'), confirmInDialog);
  installPanel(document.getElementById('install'), confirmInDialog);
  defaultsPanel(document.getElementById('defaults'));
  const log = eventLog(document.getElementById('events'));
  const health = healthPanel(document.getElementById('health'));

  let librarySoon = null;
  // A burst of library events (an install of many behaviors) is read once.
  function libraryChanged() {
    if (librarySoon) return;
    librarySoon = setTimeout(() => {
      librarySoon = null;
      refreshLibrary().catch((failure) => log.notice('dashboard', reason(failure)));
    }, 100);
  }

  let everConnected = false;
  followEvents({
    onEvent({ key, value }) {
      health.countEvent();
      log.event(key, value);
      if (key === 'BehaviorsRun') setRunning(Array.isArray(value) ? value : [], true);
      else if (LIBRARY_KEYS.includes(key)) libraryChanged();
    },
    onLost(why) {
      log.notice('lost events', `${why}; reading everything again`);
      libraryChanged();
      refreshRunning().catch(() => {});
      refreshDefaults().catch(() => {});
    },
    onState(text, connected) {
      connection.textContent = text;
      connection.dataset.connected = String(connected);
      if (connected) {
        if (everConnected) {
          log.notice('dashboard', 'connected again');
        } else {
          // The state read after the stream is up: nothing changes between the two unseen.
          refreshRunning().catch((failure) => log.notice('dashboard', reason(failure)));
        }
        everConnected = true;
      }
    },
  });
}

start();
