// The broker's /metrics page (the Prometheus text format) as the dashboard needs it: each
// metric's name and the sum of its samples over all their labels.
const METRICS = new URL('../metrics', document.baseURI).href;

// Map of metric name to the sum of its samples. Histogram parts keep their suffixes
// (`_bucket`, `_sum`, `_count`) as separate names, as the text format writes them.
export function totalsOf(text) {
  const totals = new Map();
  for (const line of text.split('\n')) {
    if (line === '' || line.startsWith('#')) continue;
    const name = line.match(/^[A-Za-z_:][A-Za-z0-9_:]*/)?.[0];
    const value = Number(line.slice(line.lastIndexOf(' ') + 1));
    if (!name || Number.isNaN(value)) continue;
    totals.set(name, (totals.get(name) ?? 0) + value);
  }
  return totals;
}

// One reading of the broker's figures, signed in by the page's session cookie.
export async function readMetrics() {
  const reply = await fetch(METRICS, { credentials: 'same-origin' });
  if (!reply.ok) throw new Error(`the broker answered ${reply.status} for its figures`);
  return totalsOf(await reply.text());
}
