// The broker's health: its modules and a live chart of the last minute. Everything the
// panel shows comes from readHealth(), the one place that knows where the figures come
// from; the rest only draws what it returns.
import { call } from '../lib/broker.js';
import { h, part, reason, say } from '../lib/dom.js';

const SAMPLES = 60;     // one a second: the last minute
const SVG = 'http://www.w3.org/2000/svg';

// One sample of the broker's health. The broker answers the module list and the time a
// call takes; the event rate is what this page received. Uptime, memory, connections
// and calls per second are left undefined: the broker does not report them (yet).
export async function readHealth(eventsSinceLastSample) {
  const started = performance.now();
  const modules = await call('ZRBroker.getModules');
  return {
    modules,
    callMs: performance.now() - started,
    eventsPerSecond: eventsSinceLastSample,
    uptimeSeconds: undefined,
    memoryBytes: undefined,
    connections: undefined,
    callsPerSecond: undefined,
  };
}

function svg(tag, attributes = {}) {
  const element = document.createElementNS(SVG, tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, String(value));
  return element;
}

// A polyline of `values` scaled to the chart's height (100) over its width (300).
function line(values, top, kind) {
  const step = 300 / (SAMPLES - 1);
  const offset = SAMPLES - values.length;
  const points = values.map((value, i) =>
    `${((offset + i) * step).toFixed(1)},${(95 - (value / top) * 85).toFixed(1)}`);
  return svg('polyline', { points: points.join(' '), class: `series ${kind}` });
}

export function healthPanel(root) {
  const facts = part(root, 'facts');
  const chart = part(root, 'chart');
  const caption = part(root, 'caption');
  const error = part(root, 'error');
  const samples = [];
  let events = 0;
  say(error, '');

  function fact(name, value) {
    return [h('dt', {}, name), h('dd', {}, value)];
  }

  function draw(latest) {
    const shown = (value, unit) => (value === undefined ? 'not reported by this broker' : `${value}${unit}`);
    facts.replaceChildren(
      ...fact('Modules', latest.modules.join(', ')),
      ...fact('Events per second', String(latest.eventsPerSecond)),
      ...fact('Call time', `${latest.callMs.toFixed(1)} ms`),
      ...fact('Uptime', shown(latest.uptimeSeconds, ' s')),
      ...fact('Memory', shown(latest.memoryBytes, ' bytes')),
      ...fact('Open connections', shown(latest.connections, '')),
      ...fact('Calls per second', shown(latest.callsPerSecond, '')));
    const rates = samples.map((s) => s.eventsPerSecond);
    const times = samples.map((s) => s.callMs);
    const rateTop = Math.max(1, ...rates);
    const timeTop = Math.max(1, ...times);
    chart.replaceChildren(
      svg('line', { x1: 0, y1: 95, x2: 300, y2: 95, class: 'axis' }),
      line(rates, rateTop, 'events'),
      line(times, timeTop, 'calls'));
    caption.textContent = `Last minute: events per second (solid, up to ${rateTop}) and call ` +
      `time (dashed, up to ${timeTop.toFixed(1)} ms). Now ${latest.eventsPerSecond} events/s, ` +
      `${latest.callMs.toFixed(1)} ms.`;
  }

  async function sample() {
    const counted = events;
    events = 0;
    try {
      const latest = await readHealth(counted);
      samples.push(latest);
      if (samples.length > SAMPLES) samples.shift();
      draw(latest);
      say(error, '');
    } catch (failure) {
      say(error, `The broker's health cannot be read: ${reason(failure)}`);
    }
  }

  sample();
  setInterval(sample, 1000);
  return { countEvent() { events += 1; } };
}
