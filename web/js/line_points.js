// From samples to the points of a line: thinned to the columns of the screen, broken at gaps.

import { isGap } from './gaps.js';
import { severity } from './quality.js';

export function numberOf(value) {
  if (typeof value === 'number') return Number.isFinite(value) ? value : null;
  if (typeof value === 'boolean') return value ? 1 : 0;
  if (typeof value !== 'string' || !/^-?\d+$/.test(value)) return null;
  return Number(value); // a large integer
}

// Collects the points of a column: its first, smallest, greatest and last. A line through these
// looks like one through all.
class Column {
  constructor(xs, ys) {
    this.xs = xs;
    this.ys = ys;
    this.index = null;
  }

  add(index, x, y) {
    if (index !== this.index) this.flush();
    const point = [x, y];
    if (this.index === null) {
      this.index = index;
      this.first = this.least = this.greatest = point;
    }
    if (y < this.least[1]) this.least = point;
    if (y > this.greatest[1]) this.greatest = point;
    this.last = point;
  }

  flush() {
    if (this.index === null) return;
    const points = new Set([this.first, this.least, this.greatest, this.last]);
    for (const [x, y] of [...points].sort((a, b) => a[0] - b[0])) this.push(x, y);
    this.index = null;
  }

  // The chart wants each time once.
  push(x, y) {
    const before = this.xs[this.xs.length - 1];
    this.xs.push(before !== undefined && x <= before ? before + 0.01 : x);
    this.ys.push(y);
  }

  // The line ends here.
  breakAt(x) {
    this.flush();
    if (this.ys.length > 0 && this.ys[this.ys.length - 1] !== null) this.push(x, null);
  }
}

// { xs, ys }: times, and numbers or null where the line is broken.
export function linePoints(samples, { from, to, columns, silence }) {
  const xs = [];
  const ys = [];
  const column = new Column(xs, ys);
  const width = (to - from) / columns;
  samples.forEach((sample, i) => {
    const [time, value, quality] = sample;
    if (i > 0 && isGap(samples[i - 1], sample, silence)) column.breakAt(samples[i - 1][0]);
    const number = severity(quality) === 'bad' ? null : numberOf(value);
    if (number === null) {
      column.breakAt(time);
    } else {
      column.add(Math.floor((time - from) / width), time, number);
    }
  });
  column.flush();
  return { xs, ys };
}

// Stretches that are not good: { from, to, severity }. A quality holds until the next sample.
export function qualityRuns(samples, { silence, end }) {
  const runs = [];
  samples.forEach((sample, i) => {
    const kind = severity(sample[2]);
    if (kind === 'good') return;
    const next = samples[i + 1];
    const gap = next && isGap(sample, next, silence);
    const to = next ? (gap ? sample[0] : next[0]) : Math.max(end, sample[0]);
    const last = runs[runs.length - 1];
    if (last && last.severity === kind && last.to >= sample[0]) {
      last.to = Math.max(last.to, to);
    } else {
      runs.push({ from: sample[0], to, severity: kind });
    }
  });
  return runs;
}

// Stretches in which a value stands, for lanes: { from, to, value, severity }.
export function valueSpells(samples, { silence, end }) {
  const spells = [];
  samples.forEach((sample, i) => {
    const next = samples[i + 1];
    if (sample[1] === null && severity(sample[2]) !== 'bad') return;
    const gap = next && isGap(sample, next, silence);
    const to = next ? (gap ? sample[0] : next[0]) : Math.max(end, sample[0]);
    const last = spells[spells.length - 1];
    const kind = severity(sample[2]);
    if (last && last.to === sample[0] && last.value === sample[1] && last.severity === kind) {
      last.to = to;
    } else {
      spells.push({ from: sample[0], to, value: sample[1], severity: kind });
    }
  });
  return spells;
}

// The newest sample at or before a time, unless a gap lies between; or null.
export function sampleAt(samples, time, silence) {
  let low = 0;
  let high = samples.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (samples[middle][0] <= time) low = middle + 1;
    else high = middle;
  }
  if (low === 0) return null;
  const sample = samples[low - 1];
  const next = samples[low];
  const inGap = next !== undefined && isGap(sample, next, silence) && time > sample[0];
  return inGap ? null : sample;
}

// { least, greatest, count } of the good numbers in a range; null when there are none.
export function extremes(samples, from, to) {
  let least = Infinity;
  let greatest = -Infinity;
  let count = 0;
  for (const [time, value, quality] of samples) {
    if (time < from || time > to || severity(quality) === 'bad') continue;
    const number = numberOf(value);
    if (number === null) continue;
    least = Math.min(least, number);
    greatest = Math.max(greatest, number);
    count += 1;
  }
  return count === 0 ? null : { least, greatest, count };
}
