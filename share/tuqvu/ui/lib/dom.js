// The dashboard's view layer: elements are built from data with text nodes only, so a
// behavior name or an event value never becomes markup, whatever it holds.

// h('li', {class: 'row', onclick: f}, 'text', child): an element with attributes,
// listeners (on...) and children (strings become text nodes; null and false are skipped).
export function h(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === null || value === undefined || value === false) continue;
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else element.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of children.flat()) {
    if (child === null || child === undefined || child === false) continue;
    element.append(typeof child === 'string' ? document.createTextNode(child) : child);
  }
  return element;
}

// The first element of `root` with the data attribute data-NAME (="VALUE" when given).
export function part(root, name, value) {
  const selector = value === undefined ? `[data-${name}]` : `[data-${name}="${value}"]`;
  return root.querySelector(selector);
}

// Replaces the list's items and shows its "empty" note when there are none. A control
// that had the keyboard focus gets it back in its new row (same data-key), so that a
// list redrawn by an event does not throw a keyboard user out of it.
export function fillList(list, empty, items) {
  const focused = list.contains(document.activeElement)
    ? document.activeElement.getAttribute('data-key') : null;
  list.replaceChildren(...items);
  if (empty) empty.hidden = items.length > 0;
  if (focused) {
    const again = [...list.querySelectorAll('[data-key]')]
      .find((element) => element.getAttribute('data-key') === focused);
    if (again) again.focus();
  }
}

// Shows `text` in an error or message paragraph (hidden when empty).
export function say(paragraph, text) {
  paragraph.textContent = text || '';
  paragraph.hidden = !text;
}

// "4 s", "2 min 05 s", "1 h 02 min".
export function duration(ms) {
  const seconds = Math.max(0, Math.floor(ms / 1000));
  if (seconds < 60) return `${seconds} s`;
  const minutes = Math.floor(seconds / 60);
  if (minutes < 60) return `${minutes} min ${String(seconds % 60).padStart(2, '0')} s`;
  return `${Math.floor(minutes / 60)} h ${String(minutes % 60).padStart(2, '0')} min`;
}

// The text of an error for a person: what the broker said, without a stack.
export function reason(error) {
  return error && error.message ? error.message : String(error);
}
