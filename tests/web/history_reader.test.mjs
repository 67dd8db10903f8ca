import assert from 'node:assert/strict';
import { test } from 'node:test';
import { readEnds, readHistory, tailStart, withTail } from '../../web/js/history_reader.js';
import { FakeHost } from './fake_host.mjs';

const ramp = (count, first = 1000) => Array.from({ length: count }, (_, i) => [first + i, i, 0]);

test('pages joined are the whole range, of each item', async () => {
  const host = new FakeHost({ 1: ramp(250), 2: ramp(90), 3: [] }, { pageSize: 100 });
  const found = await readHistory(host, { ids: ['1', '2', '3'], from: 1, to: 5000, ticks: 0 });
  assert.deepEqual(found.get('1').samples, ramp(250));
  assert.deepEqual(found.get('2').samples, ramp(90));
  assert.deepEqual(found.get('3').samples, []);
  assert.equal(host.requests.length, 3);
  assert.deepEqual(host.requests[2].body.data.map((item) => item.archiveItemId), ['1']);
});

test('the step is written with a fraction, without which it would not count', async () => {
  const host = new FakeHost({ 1: [] });
  await readHistory(host, { ids: ['1'], from: 1, to: 2, ticks: 600_000_000 });
  await readHistory(host, { ids: ['1'], from: 1, to: 2, ticks: 0 });
  assert.match(host.requests[0].text, /"resampleInterval":600000000\.0[,}]/);
  assert.doesNotMatch(host.requests[1].text, /resampleInterval/);
});

test('a point that does not move on ends the read', async () => {
  const stuck = { archiveItemId: '1', areMoreValues: true, continuationPoint: '7', values: [[1, 1, 0]] };
  const host = { count: 0, call() { this.count += 1; return { data: [stuck] }; } };
  await readHistory(host, { ids: ['1'], from: 1, to: 2, ticks: 0 });
  assert.equal(host.count, 2);
});

test('what is wrong with one item is said of that item', async () => {
  const host = new FakeHost({ 1: ramp(3) });
  const found = await readHistory(host, { ids: ['1', '9'], from: 1, to: 9999, ticks: 0 });
  assert.equal(found.get('1').statusCode, 0);
  assert.equal(found.get('9').statusCode >>> 0, 0x803e0000);
});

test('the ends of a history are its first and last sample', async () => {
  const host = new FakeHost({ 1: ramp(5), 2: [[7, 1, 0]], 3: [] });
  const ends = await readEnds(host, ['1', '2', '3']);
  assert.deepEqual([ends.get('1').oldest[0], ends.get('1').newest[0]], [1000, 1004]);
  assert.deepEqual([ends.get('2').oldest[0], ends.get('2').newest[0]], [7, 7]);
  assert.equal(ends.get('3').newest, undefined);
});

test('following goes on at the newest sample, or at the beginning of its period', () => {
  const samples = [[10_000, 1, 0], [70_500, 2, 0]];
  assert.equal(tailStart(samples, 0, 0), 70_500);
  assert.equal(tailStart(samples, 600_000_000, 0), 60_000);
  assert.equal(tailStart([], 0, 4), 4);
});

test('a tail replaces what it covers, and what is out of sight goes but for one sample', () => {
  const samples = [[1, 'a', 0], [2, 'b', 0], [3, 'c', 0], [4, 'd', 0]];
  assert.deepEqual(withTail(samples, 3, [[3, 'C', 0], [5, 'e', 0]], 0).map(([t, v]) => `${t}${v}`), ['1a', '2b', '3C', '5e']);
  assert.deepEqual(withTail(samples, 5, [], 3).map(([t]) => t), [2, 3, 4]);
  assert.deepEqual(withTail([], 0, [[1, 1, 0]], 0), [[1, 1, 0]]);
});

// Whatever the steps: following in pieces shows what one read shows.
test('following piece by piece gives what one read gives', async () => {
  const all = ramp(500);
  let seen = [];
  for (let newest = 1010; newest <= 1500; newest += 37) {
    const host = new FakeHost({ 1: all.filter(([time]) => time <= newest) });
    const start = tailStart(seen, 0, 1000);
    const read = await readHistory(host, { ids: ['1'], from: start, to: 0, ticks: 0 });
    seen = withTail(seen, start, read.get('1').samples, 1000);
  }
  assert.deepEqual(seen, all.slice(0, seen.length));
  assert.ok(seen.length > 480);
});
