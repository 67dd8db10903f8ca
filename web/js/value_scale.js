// The range of an item's own scale.

function niceStep(raw) {
  const power = 10 ** Math.floor(Math.log10(raw));
  const part = raw / power;
  return power * (part <= 1 ? 1 : part <= 2 ? 2 : part <= 5 ? 5 : 10);
}

// [low, high] around the numbers of the line that are seen, rounded outwards so that it rests while
// values come in.
export function valueRange(xs, ys, from, to) {
  let least = Infinity;
  let greatest = -Infinity;
  const see = (y) => {
    if (y === null || y === undefined) return;
    least = Math.min(least, y);
    greatest = Math.max(greatest, y);
  };
  for (let i = 0; i < xs.length; i += 1) {
    const inside = xs[i] >= from && xs[i] <= to;
    // Of a line that comes in from outside, or leaves, a part is seen.
    const crosses = i > 0 && xs[i] > from && xs[i - 1] < to && (xs[i - 1] < from || xs[i] > to);
    if (inside) see(ys[i]);
    if (crosses) {
      const part = (at) => ys[i - 1] + ((ys[i] - ys[i - 1]) * (at - xs[i - 1])) / (xs[i] - xs[i - 1]);
      if (ys[i] !== null && ys[i - 1] !== null) {
        if (xs[i - 1] < from) see(part(from));
        if (xs[i] > to) see(part(to));
      }
    }
  }
  if (least > greatest) return [0, 1];
  if (least === greatest) {
    const room = least === 0 ? 1 : Math.abs(least) * 0.1;
    return [least - room, greatest + room];
  }
  const step = niceStep((greatest - least) / 25);
  return [Math.floor(least / step - 0.2) * step, Math.ceil(greatest / step + 0.2) * step];
}

// "1,234.5": as many digits as the range of the scale calls for.
export function numberText(value, span = Math.abs(value)) {
  if (value === null || value === undefined) return '';
  const size = Math.abs(value);
  if (size !== 0 && (size >= 1e15 || size < 1e-6)) return value.toExponential(4);
  const digits = span > 0 ? Math.min(Math.max(2 - Math.floor(Math.log10(span)), 0), 8) : 2;
  return value.toLocaleString('en-US', { maximumFractionDigits: digits });
}

// For narrow axes: "1.25 M".
export function axisText(value, step) {
  const size = Math.abs(value);
  const units = [[1e12, ' T'], [1e9, ' G'], [1e6, ' M'], [1e4, ' k']];
  for (const [unit, name] of units) {
    if (size < unit) continue;
    const by = unit === 1e4 ? 1e3 : unit;
    return `${numberText(value / by, (step / by) * 10)}${name}`;
  }
  return size !== 0 && size < 1e-4 ? value.toExponential(1) : numberText(value, step * 10);
}
