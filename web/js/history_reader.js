// Reads history through HistoryReadRaw: several items at once, page by page.

const VALUES_PER_REPLY = 40_000; // of all items: a reply stays at some megabytes

// JSON.stringify would write the step without a fraction, and then it does not count.
function requestText(parts, read) {
  const data = parts.map(({ id, point }) => {
    const more = point === undefined ? '' : `,"continuationPoint":"${point}"`;
    return `{"archiveItemId":"${id}"${more}}`;
  });
  const parameters = [
    `"startTime":${Math.round(read.from)}`,
    `"endTime":${Math.round(read.to)}`,
    `"numValuesPerNode":${Math.max(100, Math.floor(VALUES_PER_REPLY / parts.length))}`,
  ];
  if (read.ticks > 0) parameters.push(`"resampleInterval":${Math.round(read.ticks)}.0`);
  if (read.bounds) parameters.push('"returnBounds":true');
  return `{"data":[${data.join(',')}],"parameters":{${parameters.join(',')}}}`;
}

// read: { ids, from, to (0: open), ticks, bounds }. A map from each id to { samples, statusCode },
// samples as [time, value, quality] by ascending time. onPage(samplesSoFar, lastTime) after each page.
export async function readHistory(api, read, signal, onPage = () => {}) {
  const found = new Map(read.ids.map((id) => [String(id), { samples: [], statusCode: 0 }]));
  let open = read.ids.map((id) => ({ id: String(id) }));
  let count = 0;
  while (open.length > 0) {
    const reply = await api.call('HistoryReadRaw', requestText(open, read), signal);
    const next = [];
    let last = read.from;
    reply.data.forEach((item, index) => {
      const entry = found.get(open[index].id);
      for (const sample of item.values) entry.samples.push(sample);
      count += item.values.length;
      if (item.statusCode) entry.statusCode = item.statusCode;
      if (item.values.length > 0) last = Math.max(last, item.values[item.values.length - 1][0]);
      // A point that does not move on would be asked for ever.
      const moves = item.continuationPoint !== undefined && item.continuationPoint !== open[index].point;
      if (item.areMoreValues && moves) next.push({ id: open[index].id, point: item.continuationPoint });
    });
    open = next;
    onPage(count, last);
  }
  return found;
}

// The newest and oldest sample of each id's whole history: { oldest, newest }, undefined if none.
export async function readEnds(api, ids, signal) {
  const data = ids.map((id) => `{"archiveItemId":"${id}"}`).join(',');
  const text = `{"data":[${data}],"parameters":{"returnFirstLastValue":true}}`;
  const reply = await api.call('HistoryReadRaw', text, signal);
  return new Map(
    reply.data.map((item, index) => [
      String(ids[index]),
      { oldest: item.values[0], newest: item.values[item.values.length - 1] },
    ]),
  );
}

// Where to read on from, when `samples` were read with this step: the period of the newest one is
// not complete yet, so it is read again as a whole.
export function tailStart(samples, ticks, from) {
  if (samples.length === 0) return from;
  const newest = samples[samples.length - 1][0];
  if (ticks === 0) return newest;
  const period = ticks / 10_000;
  const EPOCH_MS = 11_644_473_600_000; // periods count from 1601
  return Math.max(from, Math.floor((newest + EPOCH_MS) / period) * period - EPOCH_MS);
}

// `samples` with everything from `start` on replaced by what was read from there, and without what
// lies before `keepFrom`, except for the last of that.
export function withTail(samples, start, tail, keepFrom) {
  let end = samples.length;
  while (end > 0 && samples[end - 1][0] >= Math.floor(start)) end -= 1;
  const joined = samples.slice(0, end).concat(tail);
  let first = 0;
  while (first + 1 < joined.length && joined[first + 1][0] < keepFrom) first += 1;
  return first === 0 ? joined : joined.slice(first);
}
