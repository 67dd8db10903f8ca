import assert from 'node:assert/strict';
import { test } from 'node:test';
import { figure, parseMetrics } from '../../web/js/metrics_text.js';
import { archiveRows, bytesText, counted, hitShare, percentText, ruleRows } from '../../web/js/state_figures.js';

const TEXT = `# HELP orva_samples_refused_total Samples left out, by rule.
# TYPE orva_samples_refused_total counter
orva_samples_refused_total{rule="equal"} 30
orva_samples_refused_total{rule="min_period"} 10
orva_samples_refused_total{rule="brand_new"} 60
orva_cache_hits_total 3
orva_cache_misses_total 1
orva_sqlite_written_bytes_total{archive="data/a \\"b\\", c\\\\d"} 500
orva_sqlite_buffered_samples{archive="data/a \\"b\\", c\\\\d"} 7
orva_sqlite_written_bytes_total{archive="data/z"} 0
orva_odd +Inf
`;

test('figures are read with their labels, whatever these hold', () => {
  const families = parseMetrics(TEXT);
  assert.equal(families.get('orva_samples_refused_total').help, 'Samples left out, by rule.');
  assert.equal(figure(families, 'orva_samples_refused_total'), 100);
  assert.equal(figure(families, 'orva_samples_refused_total', { rule: 'equal' }), 30);
  assert.equal(figure(families, 'orva_none'), null);
  assert.equal(figure(families, 'orva_odd'), Infinity);
});

test('each archive has one row, with its bytes a day', () => {
  const rows = archiveRows(parseMetrics(TEXT), 8640);
  assert.deepEqual(rows.map((row) => row.archive), ['data/a "b", c\\d', 'data/z']);
  assert.equal(rows[0].bytesPerDay, 5000);
  assert.equal(rows[0].figures.buffered_samples, 7);
  assert.equal(rows[0].kind, 'sqlite');
  assert.equal(archiveRows(parseMetrics(TEXT), 0)[0].bytesPerDay, null);
});

test('rules come by how often they decided, in words; a new one by its name', () => {
  const rows = ruleRows(parseMetrics(TEXT), 'orva_samples_refused_total');
  assert.deepEqual(rows.map((row) => row.title), ['brand_new', 'Unchanged', 'Too soon']);
  assert.equal(rows[1].share, 0.3);
});

test('the hit share is of all, or of what came since', () => {
  const before = parseMetrics(TEXT);
  const now = parseMetrics(TEXT.replace('misses_total 1', 'misses_total 3'));
  assert.equal(hitShare(before), 0.75);
  assert.equal(hitShare(now, before), 0);
  assert.equal(hitShare(before, before), null);
});

test('sizes, shares and counts are written for people', () => {
  assert.deepEqual([0, 999, 1000, 1_234_567, 999_999].map(bytesText), ['0 B', '999 B', '1 kB', '1.23 MB', '1 MB']);
  assert.equal(bytesText(null), '–');
  assert.deepEqual([0, 0.5, 0.99999, 1].map(percentText), ['0 %', '50 %', '> 99.9 %', '100 %']);
  assert.deepEqual([counted(1, 'sample'), counted(2000, 'sample')], ['1 sample', '2,000 samples']);
});
