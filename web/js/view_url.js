// What the page shows, as the query of its URL: a link opens the same view.
//
//   ?item=Plant/Tank/Level&item=Plant/Tank/Pump&last=1h              follows the newest values
//   ?item=Plant/Tank/Level&from=2026-03-01T08:00:00.000Z&to=2026-03-01T16:00:00.000Z
//   &zone=utc   times in UTC      &gap=10m   nothing for so long is a gap ("auto", "never")
//   &steps=1    lines keep their value until the next sample

import { clamped, parseSpan, spanText } from './ranges.js';

export const MOST_ITEMS = 12;
const DEFAULT_SPAN = 3_600_000;

export function defaultView() {
  return { items: [], live: true, span: DEFAULT_SPAN, from: 0, to: 0, zone: 'local', gap: 'auto', steps: false };
}

function readTime(text) {
  if (text === null) return NaN;
  return /^-?\d+$/.test(text) ? Number(text) : Date.parse(text);
}

export function readView(query) {
  const fields = new URLSearchParams(query);
  const view = defaultView();
  view.items = [...new Set(fields.getAll('item'))].filter(Boolean).slice(0, MOST_ITEMS);
  view.zone = fields.get('zone') === 'utc' ? 'utc' : 'local';
  view.steps = fields.get('steps') === '1';
  const gap = fields.get('gap');
  if (gap === 'never' || parseSpan(gap) !== null) view.gap = gap;
  const from = readTime(fields.get('from'));
  const to = readTime(fields.get('to'));
  if (from < to) {
    Object.assign(view, clamped({ from, to }), { live: false });
    view.span = view.to - view.from;
  } else {
    view.span = parseSpan(fields.get('last')) ?? DEFAULT_SPAN;
  }
  return view;
}

// Slashes and colons are left readable: a query may hold them.
function encoded(text) {
  return encodeURIComponent(text).replace(/%2F/g, '/').replace(/%3A/g, ':');
}

export function writeView(view) {
  const parts = view.items.map((path) => `item=${encoded(path)}`);
  if (view.live) {
    parts.push(`last=${spanText(view.span)}`);
  } else {
    parts.push(`from=${encoded(new Date(view.from).toISOString())}`);
    parts.push(`to=${encoded(new Date(view.to).toISOString())}`);
  }
  if (view.zone === 'utc') parts.push('zone=utc');
  if (view.gap !== 'auto') parts.push(`gap=${encoded(view.gap)}`);
  if (view.steps) parts.push('steps=1');
  return `?${parts.join('&')}`;
}
