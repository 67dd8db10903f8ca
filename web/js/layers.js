// Which layer of an item's history a read looks into.
//
// The host takes the layer from the step that a read asks for: below one minute layer 0 (values as
// they came), from one minute layer 1, from one hour layer 2. An item that lacks the layer would
// read as empty, so the step is made to suit the layers it has.

const TICKS_PER_MS = 10_000;
const THINNED_ABOVE = 1_000_000; // ticks; smaller steps are read as they came
const LAYER_STEPS = [0, 600_000_000, 36_000_000_000];

function layerOf(ticks) {
  if (ticks >= LAYER_STEPS[2]) return 2;
  return ticks >= LAYER_STEPS[1] ? 1 : 0;
}

// `layers`: the numbers that the item has. { layer, ticks }, ticks 0 for values as they came; null
// when the item is not archived.
export function planRead(stepMs, layers) {
  const has = [0, 1, 2].filter((number) => layers.includes(number));
  if (has.length === 0) return null;
  const wanted = Math.max(0, Math.round(stepMs * TICKS_PER_MS));
  const finer = has.filter((number) => number <= layerOf(wanted));
  const layer = finer.length > 0 ? finer[finer.length - 1] : has[0];
  let ticks = wanted;
  if (layer < layerOf(wanted)) ticks = LAYER_STEPS[layer + 1] - 1;
  if (layer > layerOf(wanted)) ticks = LAYER_STEPS[layer];
  return { layer, ticks: layer === 0 && ticks <= THINNED_ABOVE ? 0 : ticks };
}

// The next coarser one, for a stretch whose finer history is not kept any more; or null.
export function coarserPlan(plan, layers) {
  const next = [1, 2].find((number) => number > plan.layer && layers.includes(number));
  return next === undefined ? null : { layer: next, ticks: LAYER_STEPS[next] };
}

// "layer 1, minutes".
export function layerWords(layer) {
  return ['layer 0, as recorded', 'layer 1, minutes', 'layer 2, hours'][layer];
}
