// What the figures of the service mean, in words.

import { figure } from './metrics_text.js';

export const QUEUES = [
  ['first_in', 'new', 'first in, first out'],
  ['probation', 'on probation', 'older, not read since'],
  ['main', 'kept', 'read again'],
];

// The rules of the write filter: why a sample is archived, or is not.
export const RULES = {
  first: ['First sample', 'the item had none before'],
  all_values: ['Every value', 'the archive keeps all values'],
  max_period: ['Longest period over', 'unchanged, but the longest time between samples has passed'],
  change: ['Changed', 'the value differs from the one before'],
  outside_deadband: ['Outside the dead band', 'it moved by more than the dead band'],
  old_time: ['Too old', 'its time is not after the newest sample'],
  within_max_period: ['Within the longest period', 'only the longest period counts, and it has not passed'],
  min_period: ['Too soon', 'the shortest time between samples has not passed'],
  equal: ['Unchanged', 'the value is the one before'],
  inside_deadband: ['Inside the dead band', 'it moved by no more than the dead band'],
};

// [{ rule, title, why, count, share }] with the most frequent first; rules that never decided last.
export function ruleRows(families, name) {
  const samples = families.get(name)?.samples ?? [];
  const total = samples.reduce((sum, sample) => sum + sample.value, 0);
  return samples
    .map(({ labels, value }) => {
      const [title, why] = RULES[labels.rule] ?? [labels.rule ?? '', ''];
      return { rule: labels.rule, title, why, count: value, share: total > 0 ? value / total : 0 };
    })
    .sort((a, b) => b.count - a.count);
}

// The share of reads that memory answered, 0 to 1; null before the first.
export function hitShare(families, before) {
  const rise = (name) => (figure(families, name) ?? 0) - (before ? (figure(before, name) ?? 0) : 0);
  const hits = rise('orva_cache_hits_total');
  const all = hits + rise('orva_cache_misses_total');
  return all > 0 ? hits / all : null;
}

// One entry for each archive that gives figures, by its labels.
export function archiveRows(families, uptimeSeconds) {
  const archives = new Map();
  for (const [name, family] of families) {
    for (const { labels, value } of family.samples) {
      if (labels.archive === undefined) continue;
      const key = JSON.stringify(labels.archive);
      const kind = /^orva_([a-z]+)_/.exec(name)?.[1] ?? '';
      if (!archives.has(key)) archives.set(key, { archive: labels.archive, kind, figures: {} });
      const figures = archives.get(key).figures;
      const short = name.replace(/^orva_[a-z]+_/, '').replace(/_total$/, '');
      figures[short] = (figures[short] ?? 0) + value;
    }
  }
  return [...archives.values()]
    .map((entry) => ({ ...entry, bytesPerDay: perDay(entry.figures.written_bytes, uptimeSeconds) }))
    .sort((a, b) => a.archive.localeCompare(b.archive, 'en', { numeric: true }));
}

function perDay(bytes, seconds) {
  return bytes === undefined || !(seconds > 0) ? null : (bytes / seconds) * 86_400;
}

export function bytesText(bytes) {
  if (bytes === null || bytes === undefined) return '–';
  const units = ['B', 'kB', 'MB', 'GB', 'TB'];
  let size = bytes;
  let unit = 0;
  while (size >= 999.5 && unit < units.length - 1) {
    size /= 1000;
    unit += 1;
  }
  return `${size.toLocaleString('en-US', { maximumSignificantDigits: 3 })} ${units[unit]}`;
}

export function countText(count) {
  return count === null || count === undefined ? '–' : Math.round(count).toLocaleString('en-US');
}

// "1 transaction", "3 transactions".
export function counted(count, what) {
  return `${countText(count)} ${what}${count === 1 ? '' : 's'}`;
}

export function percentText(share) {
  if (share === null) return '–';
  if (share > 0.999 && share < 1) return '> 99.9 %';
  return `${(share * 100).toLocaleString('en-US', { maximumFractionDigits: 1 })} %`;
}
