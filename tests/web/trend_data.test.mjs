import assert from 'node:assert/strict';
import { test } from 'node:test';
import { emptyNote } from '../../web/js/empty_note.js';
import { TrendData } from '../../web/js/trend_data.js';
import { FakeHost } from './fake_host.mjs';

const item = (path, type, layers = ['0', '1', '2']) => ({ path, type, layers: Object.fromEntries(layers.map((n) => [n, {}])) });

// A host that knows ids, and has other samples in each layer.
class LayeredHost extends FakeHost {
  constructor(byLayer) {
    super({});
    this.byLayer = byLayer;
  }
  async archiveItemIds(paths) {
    return new Map(paths.map((path) => [path, path === 'gone' ? null : path]));
  }
  async call(method, text) {
    const step = Number(/"resampleInterval":(\d+)/.exec(text)?.[1] ?? 0);
    this.histories = this.byLayer[step >= 36e9 ? 2 : step >= 6e8 ? 1 : 0];
    return super.call(method, text);
  }
}

const range = { from: 1000, to: 2000 };

test('where the finer history has gone, the coarser one is shown and said so', async () => {
  const data = new TrendData(new LayeredHost([{ a: [[1, 1, 0]] }, { a: [[1500, 5, 0]] }, { a: [] }]));
  data.setItems([item('a', 'Double')]);
  await data.load(['a'], range, 10, false);
  const entry = data.entries.get('a');
  assert.deepEqual(entry.samples, [[1500, 5, 0]]);
  assert.match(data.legendOf(entry, range).layerText, /layer 1.*finer is not kept/);
});

test('an item that is not there is said to be missing, and the others are read', async () => {
  const data = new TrendData(new LayeredHost([{ a: [[1500, 5, 0]] }, {}, {}]));
  data.setItems([item('a', 'Double'), item('gone', 'Double'), item('bare', 'Double', [])]);
  await data.load(['gone', 'a', 'unknown', 'bare'], range, 10, false);
  for (const path of ['gone', 'unknown', 'bare']) assert.match(data.legendOf(data.entries.get(path), range).note, /no such item/);
  assert.equal(data.entries.get('a').samples.length, 1);
});

test('following adds what came and says whether something did', async () => {
  const samples = [[1500, 5, 0]];
  const data = new TrendData(new LayeredHost([{ a: samples }, {}, {}]));
  data.setItems([item('a', 'Double')]);
  await data.load(['a'], range, 10, true);
  assert.equal(await data.follow(range), false);
  samples.push([1600, 6, 0]);
  assert.equal(await data.follow({ from: 1100, to: 2100 }), true);
  assert.deepEqual(data.entries.get('a').samples, samples);
});

test('a text has a lane, a number a line', async () => {
  const data = new TrendData(new LayeredHost([{ a: [[1500, 5, 0]], b: [[1500, 'run', 0]] }, {}, {}]));
  data.setItems([item('a', 'Double'), item('b', 'String')]);
  await data.load(['a', 'b'], range, 10, false);
  const series = (path) => data.seriesOf(data.entries.get(path), { range, columns: 100, colour: 'red', gap: 'auto', now: 1800 });
  assert.deepEqual(series('a').points, { xs: [1500], ys: [5] });
  assert.deepEqual(series('b').spells, [{ from: 1500, to: 1800, value: 'run', severity: 'good' }]);
});

test('an empty chart says why, and where there is something', async () => {
  const data = new TrendData(new LayeredHost([{ a: [[5000, 5, 0], [9000, 5, 0]], empty: [] }, {}, {}]));
  data.setItems([item('a', 'Double', ['0']), item('empty', 'Double', ['0']), item('gone', 'Double')]);
  const noteFor = async (items, where) => {
    await data.load(items, where, 10, false);
    return emptyNote(data, { items, live: false, span: where.to - where.from, zone: 'utc' }, where);
  };
  assert.match((await noteFor([], range)).title, /Choose items/);
  assert.match((await noteFor(['gone'], range)).title, /None of these items/);
  assert.match((await noteFor(['empty'], range)).title, /no history yet/);
  const before = await noteFor(['a'], range);
  assert.match(before.text, /oldest sample is from 1970-01-01 00:00:05, 3 s later/);
  assert.ok(before.ways[0][1].from <= 5000 && before.ways[0][1].to >= 5000);
  assert.match((await noteFor(['a'], { from: 20_000, to: 21_000 })).text, /newest sample .* 11 s earlier/);
  assert.equal(await noteFor(['a'], { from: 6000, to: 7000 }), null, 'a value is held there');
  assert.equal(await noteFor(['a'], { from: 4000, to: 6000 }), null);
});
