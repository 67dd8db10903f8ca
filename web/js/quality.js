// OPC UA status codes in words.

export const SHUTDOWN = 0x00a80000; // the last sample of a source that goes away

const WORDS = new Map([
  [0x00000000, 'good'],
  [0x00960000, 'good, local override'],
  [SHUTDOWN, 'good, last before a stop'],
  [0x40000000, 'uncertain'],
  [0x40900000, 'uncertain, last usable value'],
  [0x40930000, 'uncertain, sensor not accurate'],
  [0x40940000, 'uncertain, outside the engineering range'],
  [0x80000000, 'bad'],
  [0x80050000, 'bad, communication error'],
  [0x800a0000, 'bad, timed out'],
  [0x80310000, 'bad, no communication'],
  [0x80320000, 'bad, waiting for the first value'],
  [0x80890000, 'bad, configuration error'],
  [0x808a0000, 'bad, not connected'],
  [0x808b0000, 'bad, device failure'],
  [0x808c0000, 'bad, sensor failure'],
  [0x808d0000, 'bad, out of service'],
  [0x809b0000, 'bad, no data'],
]);

// "good", "uncertain" or "bad".
export function severity(quality) {
  if (quality >= 0x80000000) return 'bad';
  return quality >= 0x40000000 ? 'uncertain' : 'good';
}

export function hex(code) {
  return `0x${(code >>> 0).toString(16).toUpperCase().padStart(8, '0')}`;
}

// "bad, not connected". The low half of a code holds flags; what is not known shows its number.
export function words(quality) {
  const known = WORDS.get((quality & 0xffff0000) >>> 0);
  return known ?? `${severity(quality)}, ${hex(quality)}`;
}

const ITEM_WORDS = new Map([
  [0x803e0000, 'not known to the host, or its archive is not there'],
  [0x80420000, 'there is no such item'],
  [0x800a0000, 'the archive did not answer in time'],
  [0x809d0000, 'a part of this stretch is damaged in the storage; the rest is shown'],
  [0x809e0000, 'the storage cannot be read at the moment'],
]);

// Why an item's history is not there, or not whole; from the "statusCode" of a reply.
export function itemWords(statusCode) {
  const code = statusCode >>> 0;
  return ITEM_WORDS.get(code) ?? `the read failed with ${hex(code)}`;
}
