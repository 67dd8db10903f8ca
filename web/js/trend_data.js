// The history of the items in view: reads it, follows its newest values, and prepares it for the
// chart.

import { itemWords, severity } from './quality.js';
import { isNumeric } from './item_search.js';
import { coarserPlan, layerWords, planRead } from './layers.js';
import { readEnds, readHistory, tailStart, withTail } from './history_reader.js';
import { extremes, linePoints, numberOf, qualityRuns, valueSpells } from './line_points.js';
import { longestSilence } from './gaps.js';

export class TrendData {
  constructor(api) {
    this.api = api;
    this.items = new Map(); // path -> { path, type, layers: [number...] }
    this.ids = new Map(); // path -> id, null when there is none
    this.entries = new Map(); // path -> { path, item, plan, samples, statusCode, isCoarser, missing }
  }

  setItems(items) {
    this.items = new Map(
      items.map((item) => [item.path, { ...item, layers: Object.keys(item.layers).map(Number) }]),
    );
    this.ids.clear(); // ids may be others after a restart with another configuration
  }

  async resolve(paths, signal) {
    const wanted = paths.filter((path) => !this.ids.has(path) && this.items.has(path));
    if (wanted.length === 0) return;
    for (const [path, id] of await this.api.archiveItemIds(wanted, signal)) this.ids.set(path, id);
  }

  // Reads the range for these items; an open end when it follows. onCount(samples) now and then.
  async load(paths, range, stepMs, isLive, signal, onCount) {
    await this.resolve(paths, signal);
    const fresh = new Map(paths.map((path) => [path, this.begin(path, stepMs)]));
    const reads = [...fresh.values()].filter((entry) => !entry.missing);
    await this.readGroups(reads, { ...range, to: isLive ? 0 : range.to }, true, signal, onCount);
    for (const entry of reads) await this.readCoarser(entry, range, signal);
    this.entries = fresh;
    this.range = range;
  }

  begin(path, stepMs) {
    const item = this.items.get(path);
    const plan = item && this.ids.get(path) ? planRead(stepMs, item.layers) : null;
    return { path, item, plan, missing: plan === null, samples: [], statusCode: 0, isCoarser: false };
  }

  // One request for all items that are read alike.
  async readGroups(entries, range, bounds, signal, onCount) {
    const groups = new Map();
    for (const entry of entries) {
      const key = entry.plan.ticks;
      groups.set(key, (groups.get(key) ?? []).concat(entry));
    }
    for (const [ticks, group] of groups) {
      const ids = group.map((entry) => this.ids.get(entry.path));
      const found = await readHistory(this.api, { ids, ...range, ticks, bounds }, signal, onCount);
      for (const entry of group) Object.assign(entry, found.get(this.ids.get(entry.path)));
    }
  }

  // Finer history is kept for a shorter time: where it has gone, the coarser one is shown.
  async readCoarser(entry, range, signal) {
    const isInside = ([time]) => time >= range.from && time <= range.to;
    let plan = entry.plan;
    while (!entry.samples.some(isInside) && !entry.statusCode) {
      plan = coarserPlan(plan, entry.item.layers);
      if (plan === null) return;
      const read = { ids: [this.ids.get(entry.path)], ...range, ticks: plan.ticks, bounds: true };
      const found = (await readHistory(this.api, read, signal)).get(this.ids.get(entry.path));
      if (!found.samples.some(isInside)) continue;
      Object.assign(entry, found, { plan, isCoarser: true });
    }
  }

  // Reads what has come since; true when there was something.
  async follow(range, signal) {
    const reads = [...this.entries.values()].filter((entry) => !entry.missing && !entry.isCoarser);
    let changed = false;
    for (const entry of reads) {
      const start = tailStart(entry.samples, entry.plan.ticks, range.from);
      const read = { ids: [this.ids.get(entry.path)], from: Math.floor(start), to: 0, ticks: entry.plan.ticks };
      const tail = (await readHistory(this.api, read, signal)).get(this.ids.get(entry.path));
      const before = entry.samples[entry.samples.length - 1];
      entry.samples = withTail(entry.samples, start, tail.samples, range.from);
      entry.statusCode = tail.statusCode;
      changed = changed || before?.[0] !== entry.samples[entry.samples.length - 1]?.[0];
    }
    this.range = range;
    return changed;
  }

  // What the chart draws of an item.
  seriesOf(entry, { range, columns, colour, gap, now }) {
    const { samples, path, item } = entry;
    const isLine = item ? isNumeric(item.type) : true;
    const stepMs = (range.to - range.from) / columns;
    const silence = isLine ? longestSilence(samples, gap, stepMs) : longestLaneSilence(gap);
    entry.silence = silence;
    const end = Math.min(range.to, now);
    const series = { path, label: path.slice(path.lastIndexOf('/') + 1), colour, isLine };
    if (!isLine) return { ...series, spells: valueSpells(samples, { silence, end }), runs: [], marks: [] };
    return {
      ...series,
      isStepped: /^(U?Int|S?Byte)/.test(item?.type ?? ''),
      points: linePoints(samples, { ...range, columns, silence }),
      runs: qualityRuns(samples, { silence, end }),
      marks: marksOf(samples),
    };
  }

  // What the legend says of it.
  legendOf(entry, range) {
    const found = entry.missing ? null : extremes(entry.samples, range.from, range.to);
    const isLine = entry.item ? isNumeric(entry.item.type) : true;
    let note = '';
    if (entry.missing) note = 'there is no such item, or it is not archived';
    else if (entry.statusCode) note = itemWords(entry.statusCode);
    const layerText = entry.plan ? layerWords(entry.plan.layer) : '';
    return {
      path: entry.path,
      isLine,
      extremes: isLine ? found : null,
      span: found ? Math.max(found.greatest - found.least, Math.abs(found.greatest) * 1e-3) : undefined,
      layerText: entry.isCoarser ? `${layerText}; finer is not kept` : layerText,
      note,
    };
  }

  hasSamplesIn(range) {
    const isInside = ([time]) => time >= range.from && time <= range.to;
    return [...this.entries.values()].some((entry) => entry.samples.some(isInside));
  }

  // The oldest and newest time of all that is in view; null when there is nothing at all.
  async ends(paths, signal) {
    const ids = paths.map((path) => this.ids.get(path)).filter(Boolean);
    if (ids.length === 0) return null;
    const times = [];
    for (const { oldest, newest } of (await readEnds(this.api, ids, signal)).values()) {
      if (oldest) times.push(oldest[0], newest[0]);
    }
    return times.length === 0 ? null : { from: Math.min(...times), to: Math.max(...times) };
  }
}

// A state may last for days: only what was asked for is a gap.
function longestLaneSilence(gap) {
  return typeof gap === 'number' ? gap : Infinity;
}

function marksOf(samples) {
  const marks = [];
  for (const [time, value, quality] of samples) {
    const kind = severity(quality);
    const number = kind === 'good' ? null : numberOf(value);
    if (number !== null) marks.push([time, number, kind]);
  }
  return marks;
}
