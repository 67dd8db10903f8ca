// Ranges of time: { from, to } in milliseconds since 1970.

const SECOND = 1000;
const MINUTE = 60 * SECOND;
const HOUR = 60 * MINUTE;
const DAY = 24 * HOUR;

export const MIN_SPAN = 100;
export const MAX_SPAN = 50 * 366 * DAY;
const EARLIEST = 1; // 0 means "open" to the host
const LATEST = Date.UTC(2200, 0, 1);

// The buttons, in their order; key is what the keyboard and the URL call them.
export const SPANS = [
  { key: '1m', label: '1 min', span: MINUTE },
  { key: '10m', label: '10 min', span: 10 * MINUTE },
  { key: '1h', label: '1 h', span: HOUR },
  { key: '8h', label: '8 h', span: 8 * HOUR },
  { key: '1d', label: '1 day', span: DAY },
  { key: '7d', label: '7 days', span: 7 * DAY },
  { key: '30d', label: '30 days', span: 30 * DAY },
  { key: '1y', label: '1 year', span: 365 * DAY },
  { key: '5y', label: '5 years', span: 5 * 365 * DAY },
];

export function spanOf(range) {
  return range.to - range.from;
}

// The same length, moved or cut to what there can be.
export function clamped({ from, to }) {
  const span = Math.min(Math.max(Math.round(to - from), MIN_SPAN), MAX_SPAN);
  const start = Math.min(Math.max(Math.round(from), EARLIEST), LATEST - span);
  return { from: start, to: start + span };
}

// What stands at `at` stays where it is; a factor above 1 shows more.
export function zoomed(range, factor, at = (range.from + range.to) / 2) {
  const span = Math.min(Math.max(spanOf(range) * factor, MIN_SPAN), MAX_SPAN);
  const part = (at - range.from) / spanOf(range);
  return clamped({ from: at - span * part, to: at + span * (1 - part) });
}

// By a part of its length; above 0 is later.
export function panned(range, part) {
  const by = spanOf(range) * part;
  return clamped({ from: range.from + by, to: range.to + by });
}

// The button that this length belongs to, if any.
export function spanKey(span) {
  return SPANS.find((known) => Math.abs(known.span - span) < 1)?.key ?? null;
}

// "8h" or "90s" as milliseconds; null for what is no length.
export function parseSpan(text) {
  const match = /^(\d{1,9}(?:\.\d{1,3})?)(ms|s|m|h|d|y)$/.exec(text ?? '');
  if (!match) return null;
  const units = { ms: 1, s: SECOND, m: MINUTE, h: HOUR, d: DAY, y: 365 * DAY };
  const span = Number(match[1]) * units[match[2]];
  return span >= MIN_SPAN && span <= MAX_SPAN ? span : null;
}

export function spanText(span) {
  const known = spanKey(span);
  return known ?? (span % SECOND === 0 ? `${span / SECOND}s` : `${Math.round(span)}ms`);
}
