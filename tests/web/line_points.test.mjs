import assert from 'node:assert/strict';
import { test } from 'node:test';
import { isGap, longestSilence } from '../../web/js/gaps.js';
import { extremes, linePoints, numberOf, qualityRuns, sampleAt, valueSpells } from '../../web/js/line_points.js';

const BAD = 0x80000000;
const UNCERTAIN = 0x40000000;
const SHUTDOWN = 0x00a80000;
const whole = { from: 0, to: 1000, columns: 1000, silence: Infinity };

test('few samples are all drawn', () => {
  const samples = [[0, 1, 0], [10, 5, 0], [20, 3, 0]];
  assert.deepEqual(linePoints(samples, whole), { xs: [0, 10, 20], ys: [1, 5, 3] });
});

test('no peak is lost, however many samples share a column', () => {
  const samples = Array.from({ length: 100_000 }, (_, i) => [i, Math.sin(i), 0]);
  samples[12_345] = [12_345, 99, 0];
  samples[54_321] = [54_321, -99, 0];
  const { xs, ys } = linePoints(samples, { from: 0, to: 100_000, columns: 500, silence: Infinity });
  assert.ok(xs.length <= 4 * 501, `${xs.length}`);
  assert.equal(ys[xs.indexOf(12_345)], 99);
  assert.equal(ys[xs.indexOf(54_321)], -99);
  assert.ok(xs.every((x, i) => i === 0 || x > xs[i - 1]), 'times ascend');
});

test('a line breaks at a value that is none, at a bad one, after a stop and after silence', () => {
  const broken = (samples, silence = Infinity) => linePoints(samples, { ...whole, silence }).ys.includes(null);
  assert.ok(broken([[0, 1, 0], [10, null, 0], [20, 1, 0]]));
  assert.ok(broken([[0, 1, 0], [10, 1, BAD], [20, 1, 0]]));
  assert.ok(broken([[0, 1, 0], [10, 1, SHUTDOWN], [500, 1, 0]]));
  assert.ok(broken([[0, 1, 0], [500, 1, 0]], 400));
  assert.ok(!broken([[0, 1, 0], [10, 1, UNCERTAIN], [500, 1, 0]]));
});

test('equal times keep both values and still ascend', () => {
  const { xs, ys } = linePoints([[5, 1, 0], [5, 9, 0], [6, 1, 0]], whole);
  assert.ok(xs.every((x, i) => i === 0 || x > xs[i - 1]));
  assert.deepEqual(ys, [1, 9, 1]);
});

test('large integers come as text and are numbers all the same', () => {
  assert.equal(numberOf('9007199254740993'), 9007199254740992);
  assert.equal(numberOf('12x'), null);
  assert.equal(numberOf(NaN), null);
  assert.equal(numberOf(true), 1);
});

test('a quality holds until the next sample', () => {
  const samples = [[0, 1, 0], [10, 1, BAD], [20, 1, BAD], [30, 1, UNCERTAIN], [40, 1, 0]];
  assert.deepEqual(qualityRuns(samples, { silence: Infinity, end: 100 }), [
    { from: 10, to: 30, severity: 'bad' },
    { from: 30, to: 40, severity: 'uncertain' },
  ]);
  assert.deepEqual(qualityRuns([[0, 1, BAD]], { silence: Infinity, end: 100 }), [{ from: 0, to: 100, severity: 'bad' }]);
});

test('a value stands until the next one, and not across a stop', () => {
  const samples = [[0, 'run', 0], [10, 'run', 0], [20, 'stop', SHUTDOWN], [500, 'run', 0]];
  assert.deepEqual(valueSpells(samples, { silence: Infinity, end: 600 }), [
    { from: 0, to: 20, value: 'run', severity: 'good' },
    { from: 20, to: 20, value: 'stop', severity: 'good' },
    { from: 500, to: 600, value: 'run', severity: 'good' },
  ]);
});

test('the cursor finds the sample that holds at a time, none before the first or in a gap', () => {
  const samples = [[10, 'a', 0], [20, 'b', SHUTDOWN], [500, 'c', 0]];
  assert.equal(sampleAt(samples, 9, Infinity), null);
  assert.equal(sampleAt(samples, 10, Infinity)[1], 'a');
  assert.equal(sampleAt(samples, 20, Infinity)[1], 'b');
  assert.equal(sampleAt(samples, 21, Infinity), null);
  assert.equal(sampleAt(samples, 9999, Infinity)[1], 'c');
});

test('extremes count good numbers of the range only', () => {
  const samples = [[0, 100, 0], [10, 1, 0], [20, 5, UNCERTAIN], [30, 99, BAD], [40, null, 0], [50, 100, 0]];
  assert.deepEqual(extremes(samples, 5, 45), { least: 1, greatest: 5, count: 2 });
  assert.equal(extremes(samples, 60, 70), null);
});

test('an unchanged value that is repeated each minute is no gap; an hour of silence is', () => {
  const samples = Array.from({ length: 100 }, (_, i) => [i * 1000, 1, 0]);
  const silence = longestSilence(samples, 'auto', 100);
  assert.ok(!isGap([0, 1, 0], [60_000, 1, 0], silence));
  assert.ok(isGap([0, 1, 0], [3_600_000, 1, 0], silence));
  assert.equal(longestSilence(samples, 'never', 100), Infinity);
  assert.equal(longestSilence(samples, 5000, 100), 5000);
});
