// Where history has a gap: nothing is known there, and no line may be drawn across it.

import { SHUTDOWN } from './quality.js';

const QUIET_AT_LEAST = 150_000; // ms; archives usually repeat an unchanged value each minute
const TIMES_USUAL = 20;

function medianStep(samples) {
  const steps = [];
  const stride = Math.max(1, Math.floor(samples.length / 500));
  for (let i = stride; i < samples.length; i += stride) {
    steps.push((samples[i][0] - samples[i - 1][0]));
  }
  steps.sort((a, b) => a - b);
  return steps.length === 0 ? Infinity : steps[Math.floor(steps.length / 2)];
}

// Silence for longer than this is a gap. `setting`: "auto", "never", or milliseconds.
export function longestSilence(samples, setting, stepMs) {
  if (setting === 'never') return Infinity;
  if (typeof setting === 'number') return Math.max(setting, 2 * stepMs);
  if (samples.length < 10) return Infinity;
  return Math.max(QUIET_AT_LEAST, TIMES_USUAL * medianStep(samples), 4 * stepMs);
}

// Whether nothing is known between two neighbours.
export function isGap(before, after, silence) {
  return before[2] === SHUTDOWN || after[0] - before[0] > silence;
}
