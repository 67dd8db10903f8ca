import assert from 'node:assert/strict';
import { test } from 'node:test';
import { csvText } from '../../web/js/export_csv.js';
import { isNumeric, prepareItems, searchItems } from '../../web/js/item_search.js';
import { parseJson } from '../../web/js/json_text.js';
import { hex, itemWords, severity, words } from '../../web/js/quality.js';
import { lengthText, rangeText, timeText, zoneText } from '../../web/js/time_text.js';
import { axisText, numberText, valueRange } from '../../web/js/value_scale.js';

test('integers that no number holds arrive as text, everything else as it is', () => {
  const text = '{"point":133444736010000001,"id":-9223372036854775808,"n":1700000000000,"x":0.12345678901234567,"e":1.5e-300,"s":"a 1234567890123456789 \\" 1234567890123456789"}';
  assert.deepEqual(parseJson(text), {
    point: '133444736010000001',
    id: '-9223372036854775808',
    n: 1700000000000,
    x: 0.12345678901234567,
    e: 1.5e-300,
    s: 'a 1234567890123456789 " 1234567890123456789',
  });
});

test('qualities have words', () => {
  assert.equal(words(0), 'good');
  assert.equal(words(0x80310000 + 5), 'bad, no communication');
  assert.equal(words(0x408f0000), 'uncertain, 0x408F0000');
  assert.deepEqual([0, 0x00960000, 0x40000000, 0x80000000, 0xffffffff].map(severity), ['good', 'good', 'uncertain', 'bad', 'bad']);
  assert.equal(hex(-2143420416), '0x803E0000');
  assert.match(itemWords(-2137194496), /damaged/);
});

test('items are found by parts of their path, names before folders', () => {
  const items = prepareItems(['Plant/Pump/State', 'Plant/Tank/Pump', 'Plant/Tank/Level'].map((path) => ({ path })));
  const found = (text) => searchItems(items, text).map((item) => item.path);
  assert.deepEqual(found('pump'), ['Plant/Tank/Pump', 'Plant/Pump/State']);
  assert.deepEqual(found('  TANK lev'), ['Plant/Tank/Level']);
  assert.deepEqual(found('nothing'), []);
  assert.equal(found('').length, 3);
});

test('ten thousand items are searched between two letters', () => {
  const items = prepareItems(Array.from({ length: 10_000 }, (_, i) => ({ path: `Plant/Area ${i % 50}/Unit ${i}/Value` })));
  const begin = performance.now();
  for (const text of ['a', 'ar', 'area 7', 'unit 99', 'value 12']) searchItems(items, text);
  assert.ok(performance.now() - begin < 500);
});

test('numbers become lines, the rest lanes', () => {
  assert.deepEqual(['Double', 'Float', 'Int64', 'UInt16', 'Byte', 'SByte'].map(isNumeric), Array(6).fill(true));
  assert.deepEqual(['Boolean', 'String', 'DateTime', 'Null'].map(isNumeric), Array(4).fill(false));
});

test('times are written in UTC or in the browser\'s zone, which is named', () => {
  const time = Date.UTC(2026, 2, 1, 8, 0, 5, 7);
  assert.equal(timeText(time, 'utc', true), '2026-03-01 08:00:05.007');
  assert.equal(rangeText(time, time + 3_600_000, 'utc'), '2026-03-01 08:00 – 09:00');
  assert.equal(rangeText(time, time + 86_400_000, 'utc'), '2026-03-01 08:00 – 2026-03-02 08:00');
  assert.equal(zoneText(time, 'utc'), 'UTC');
  assert.equal(new Date(timeText(time, 'local', true).replace(' ', 'T')).getTime(), time);
});

test('lengths are told as people say them', () => {
  assert.deepEqual([50, 1500, 60_000, 5_400_000, 604_800_000, 94_608_000_000].map(lengthText), ['50 ms', '1.5 s', '1 min', '1 h 30 min', '7 days', '3.0 years']);
});

test('a scale holds all that is seen, also of a line that only crosses', () => {
  const [low, high] = valueRange([0, 10, 20], [1, 100, 3], 5, 15);
  assert.ok(low <= 50.5 && high >= 100, `${low} ${high}`);
  assert.ok(low > 40, 'what is out of sight does not count');
  const crossing = valueRange([0, 100], [0, 100], 40, 60);
  assert.ok(crossing[0] <= 40 && crossing[0] > 30 && crossing[1] >= 60 && crossing[1] < 70, `${crossing}`);
  const flat = valueRange([0, 1], [5, 5], 0, 1);
  assert.ok(flat[0] < 5 && flat[1] > 5);
  assert.deepEqual(valueRange([], [], 0, 1), [0, 1]);
  assert.deepEqual(valueRange([0, 1], [null, null], 0, 1), [0, 1]);
});

test('numbers show as many digits as their scale calls for', () => {
  assert.equal(numberText(73.12345, 60), '73.1');
  assert.equal(numberText(0.0012345, 0.001), '0.00123');
  assert.equal(numberText(1234567, 1e6), '1,234,567');
  assert.equal(axisText(2_500_000, 500_000), '2.5 M');
  assert.equal(axisText(0, 10), '0');
});

test('saved values can be read again, whatever they hold', () => {
  const samples = [[0, 1, 0], [1000, 'a "b", c\nd', 0x80000000], [2000, null, 0], [9000, 1, 0]];
  assert.equal(
    csvText([{ path: 'Plant/x, y', samples }], 500, 5000),
    'time,item,value,status,quality\r\n' +
      '1970-01-01T00:00:01.000Z,"Plant/x, y","a ""b"", c\nd",0x80000000,bad\r\n' +
      '1970-01-01T00:00:02.000Z,"Plant/x, y",,0x00000000,good\r\n',
  );
});
