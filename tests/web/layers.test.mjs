import assert from 'node:assert/strict';
import { test } from 'node:test';
import { coarserPlan, planRead } from '../../web/js/layers.js';

const MINUTE = 60_000;
const HOUR = 60 * MINUTE;

test('the step decides the layer', () => {
  assert.deepEqual(planRead(50, [0, 1, 2]), { layer: 0, ticks: 0 });
  assert.deepEqual(planRead(1000, [0, 1, 2]), { layer: 0, ticks: 10_000_000 });
  assert.deepEqual(planRead(MINUTE, [0, 1, 2]), { layer: 1, ticks: 600_000_000 });
  assert.deepEqual(planRead(HOUR, [0, 1, 2]), { layer: 2, ticks: 36_000_000_000 });
});

// The host would read an empty layer.
test('a layer that the item lacks is not asked for', () => {
  assert.deepEqual(planRead(HOUR, [0]), { layer: 0, ticks: 599_999_999 });
  assert.deepEqual(planRead(HOUR, [0, 1]), { layer: 1, ticks: 35_999_999_999 });
  assert.deepEqual(planRead(MINUTE, [0, 2]), { layer: 0, ticks: 599_999_999 });
  assert.deepEqual(planRead(10, [1, 2]), { layer: 1, ticks: 600_000_000 });
  assert.deepEqual(planRead(10, [2]), { layer: 2, ticks: 36_000_000_000 });
  assert.equal(planRead(10, []), null);
});

test('where finer history is gone the next coarser layer is read', () => {
  assert.deepEqual(coarserPlan({ layer: 0, ticks: 0 }, [0, 1, 2]), { layer: 1, ticks: 600_000_000 });
  assert.deepEqual(coarserPlan({ layer: 0, ticks: 0 }, [0, 2]), { layer: 2, ticks: 36_000_000_000 });
  assert.equal(coarserPlan({ layer: 2, ticks: 36_000_000_000 }, [0, 1, 2]), null);
});
