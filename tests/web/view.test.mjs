import assert from 'node:assert/strict';
import { test } from 'node:test';
import { clamped, panned, parseSpan, spanText, zoomed } from '../../web/js/ranges.js';
import { MOST_ITEMS, readView, writeView } from '../../web/js/view_url.js';

const there = { from: 1_700_000_000_000, to: 1_700_000_100_000 };

test('a view survives its way through the URL', () => {
  for (const query of [
    '?last=1h',
    '?item=Plant/Tank/Level&item=Plant/F%C3%BCll%20stand%26more&last=8h',
    '?item=a&from=2023-11-14T22:13:20.000Z&to=2023-11-14T22:15:00.000Z&zone=utc&gap=10m&steps=1',
    '?last=90s&gap=never',
  ]) {
    assert.equal(writeView(readView(query)), query);
  }
});

test('what a URL should not hold does no harm', () => {
  for (const query of ['', '?from=x&to=y', '?from=5&to=4', '?last=forever', '?gap=x', '?from=-1e99&to=9']) {
    assert.equal(writeView(readView(query)), '?last=1h', query);
  }
  const many = readView(`?${Array.from({ length: 50 }, (_, i) => `item=${i}`).join('&')}&item=0&item=`);
  assert.equal(many.items.length, MOST_ITEMS);
});

test('times may be milliseconds too', () => {
  const view = readView(`?from=${there.from}&to=${there.to}`);
  assert.deepEqual([view.from, view.to, view.live], [there.from, there.to, false]);
});

test('a zoom keeps the time under the cursor', () => {
  const at = there.from + 25_000;
  const nearer = zoomed(there, 0.5, at);
  assert.equal(nearer.to - nearer.from, 50_000);
  assert.equal((at - nearer.from) / 50_000, 0.25);
  assert.deepEqual(zoomed(nearer, 2, at), there);
});

test('a range neither vanishes nor leaves time', () => {
  const tiny = zoomed(there, 1e-12);
  assert.ok(tiny.to - tiny.from >= 100);
  const huge = zoomed(there, 1e12);
  assert.ok(huge.from >= 1 && Number.isFinite(huge.to));
  assert.ok(clamped({ from: -5, to: 10 }).from >= 1);
  assert.equal(panned(there, 1).from, there.to);
});

test('lengths have names', () => {
  assert.equal(parseSpan('8h'), 28_800_000);
  assert.equal(spanText(28_800_000), '8h');
  assert.equal(parseSpan(spanText(12_345)), 12_345);
  for (const text of ['', '5', 'h', '-1h', '1 h', null, '999999999y']) assert.equal(parseSpan(text), null);
});
