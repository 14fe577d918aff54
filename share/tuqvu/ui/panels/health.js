// The broker's health: its modules and a live chart of the last minute. Everything the
// panel shows comes from readHealth(), the one place that knows where the figures come
// from; the rest only draws what it returns.
import { call } from '../lib/broker.js';
import { h, part, reason, say } from '../lib/dom.js';
import { readMetrics } from '../lib/metrics.js';

const SAMPLES = 60;     // one a second: the last minute
const SVG = 'http://www.w3.org/2000/svg';

// The calls counted at the previous sample and when, to tell calls per second.
let previousCalls;

// One sample of the broker's health: the module list and the time a call takes, measured
// by calling; uptime, memory, open connections and the call rate from its /metrics; the
// event rate is what this page received.
export async function readHealth(eventsSinceLastSample) {
  const started = performance.now();
  const modules = await call('ZRBroker.getModules');
  const callMs = performance.now() - started;
  const figures = await readMetrics();
  const now = performance.now();
  const calls = figures.get('tuqvu_rpc_calls_total') ?? 0;
  const callsPerSecond = previousCalls === undefined
    ? undefined
    : Math.max(0, calls - previousCalls.calls) / ((now - previousCalls.at) / 1000);
  previousCalls = { calls, at: now };
  return {
    modules,
    callMs,
    eventsPerSecond: eventsSinceLastSample,
    uptimeSeconds: figures.get('tuqvu_uptime_seconds'),
    memoryBytes: figures.get('process_resident_memory_bytes'),
    connections: figures.get('tuqvu_http_connections_open'),
    callsPerSecond,
  };
}

// "3 h 12 min", "4 min 5 s", "12 s".
function duration(seconds) {
  const s = Math.floor(seconds);
  if (s >= 3600) return `${Math.floor(s / 3600)} h ${Math.floor((s % 3600) / 60)} min`;
  if (s >= 60) return `${Math.floor(s / 60)} min ${s % 60} s`;
  return `${s} s`;
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
    const shown = (value, text) => (value === undefined ? 'not known yet' : text(value));
    facts.replaceChildren(
      ...fact('Modules', latest.modules.join(', ')),
      ...fact('Events per second', String(latest.eventsPerSecond)),
      ...fact('Call time', `${latest.callMs.toFixed(1)} ms`),
      ...fact('Uptime', shown(latest.uptimeSeconds, duration)),
      ...fact('Memory', shown(latest.memoryBytes, (bytes) => `${(bytes / 1048576).toFixed(1)} MiB`)),
      ...fact('Open connections', shown(latest.connections, String)),
      ...fact('Calls per second', shown(latest.callsPerSecond, (rate) => rate.toFixed(1))));
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
