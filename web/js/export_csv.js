// What the page shows as comma-separated values: the samples as they were read, with times in UTC.

import { hex, words } from './quality.js';

function field(value) {
  if (value === null || value === undefined) return '';
  const text = typeof value === 'object' ? JSON.stringify(value) : String(value);
  return /[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
}

// series: [{ path, samples }].
export function csvText(series, from, to) {
  const lines = ['time,item,value,status,quality'];
  for (const { path, samples } of series) {
    for (const [time, value, quality] of samples) {
      if (time < from || time > to) continue;
      const iso = new Date(time).toISOString();
      lines.push([iso, field(path), field(value), hex(quality), field(words(quality))].join(','));
    }
  }
  return `${lines.join('\r\n')}\r\n`;
}
