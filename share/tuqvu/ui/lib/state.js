// What the dashboard knows of the robot, and who wants to hear when it changes. The
// panels read it and render; the event stream and the panels' own calls change it.
import { call, callAll } from './broker.js';

const M = 'ZRBehaviorManager';

export const state = {
  user: [],           // bare names of the user library
  system: [],         // "System/..." names
  tags: new Map(),    // name as listed -> its tags
  allTags: [],
  running: new Map(), // name -> {since (ms, or null when it ran before the page saw it), stopping}
  defaults: [],
};

const listeners = new Set();

// fn() runs after every change (and once now).
export function watch(fn) {
  listeners.add(fn);
  fn();
}

export function changed() {
  for (const fn of listeners) fn();
}

// The library's name of a listed behavior, as the module takes it back unambiguously: a
// bare user name means the system copy when both libraries hold it.
export function qualified(name) {
  return name.startsWith('System/') ? name : `User/${name}`;
}

// Reads the libraries and their tags again.
export async function refreshLibrary() {
  const [user, system, allTags] = await callAll([
    [`${M}.getInstalledBehaviors`], [`${M}.getSystemBehaviorNames`], [`${M}.getTagList`]]);
  for (const result of [user, system, allTags]) if (result instanceof Error) throw result;
  const names = [...user, ...system];
  const tags = await callAll(names.map((name) => [`${M}.getBehaviorTags`, qualified(name)]));
  state.user = user;
  state.system = system;
  state.allTags = allTags;
  state.tags = new Map(names.map((name, i) => [name, tags[i] instanceof Error ? [] : tags[i]]));
  changed();
}

// Takes the running set as the module published it ("BehaviorsRun"); a behavior seen
// for the first time starts its clock now.
export function setRunning(names, seenStart) {
  const next = new Map();
  for (const name of names) {
    const known = state.running.get(name);
    next.set(name, known ?? { since: seenStart ? Date.now() : null, stopping: false });
  }
  state.running = next;
  changed();
}

export async function refreshRunning() {
  setRunning(await call(`${M}.getRunningBehaviors`), false);
}

export async function refreshDefaults() {
  state.defaults = await call(`${M}.getDefaultBehaviors`);
  changed();
}
