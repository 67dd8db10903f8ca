// The trend page in a browser, against the real host. Environment:
//   ORVA_BUILD        build folder with the host, its add-ins and the page
//   ORVA_PLAYWRIGHT   folder in which npm has installed playwright-core
//   ORVA_CHROMIUM     the browser, default /usr/bin/chromium
//   ORVA_YEAR_STEP_S  seconds between the samples of the recorded year, default 300
//   ORVA_PICTURE      also saves the picture of the README to this file
// Screenshots are kept in <build>/screenshots.

import assert from 'node:assert/strict';
import { mkdirSync, readFileSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join, resolve } from 'node:path';
import { after, before, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { fileURLToPath } from 'node:url';
import { OUTAGE, Plant, SPIKES, waitFor, YEAR } from './plant.mjs';

const root = resolve(dirname(fileURLToPath(import.meta.url)), '../..');
const build = resolve(process.env.ORVA_BUILD ?? join(root, 'build/dev'));
const shots = join(build, 'screenshots');
const { chromium } = createRequire(join(resolve(process.env.ORVA_PLAYWRIGHT ?? join(build, 'browser')), 'x.js'))('playwright-core');

const FURNACE = 'Plant/Furnace/Temperature';
const LIVE = '/?item=Plant/Tank/Level&item=System/Cpu/Load&item=Plant/Tank/Pump&item=System/Mode&last=1m';
const iso = (time) => new Date(time).toISOString();
const stretch = (from, to) => `/?item=${FURNACE}&from=${iso(from)}&to=${iso(to)}&zone=utc`;

let browser;
let context;
let page;
const plant = new Plant(build, join(build, 'browser-plant'));
const requested = new Set();
const complaints = [];

function watch(target) {
  target.on('request', (request) => requested.add(request.url()));
  target.on('pageerror', (error) => complaints.push(`error: ${error.stack}`));
  target.on('console', (message) => {
    // A host that is gone, or refuses, is told by the browser, too.
    if (message.type() === 'error' && !/Failed to load resource|ERR_/.test(message.text())) complaints.push(message.text());
  });
}

async function open(path, waitFor_ = true) {
  await page.goto(plant.address + path);
  if (waitFor_) await drawn();
}

// Waits until the newest read is done and drawn.
async function drawn() {
  await page.waitForFunction(() => window.trendPage?.data.range && !document.querySelector('#loading').classList.contains('on'));
  await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
}

const range = () => page.evaluate(() => window.trendPage.range());
const span = async () => {
  const { from, to } = await range();
  return to - from;
};
// What the line of the first item in the chart is made of.
const line = () => page.evaluate(() => window.trendPage.chart.lines()[0].points);
const legend = (column) => page.locator(`#legend-body tr:first-child .${column}`).textContent();

async function plotBox() {
  return page.locator('.u-over').boundingBox();
}

// Goes on when the page has read for the range it shows.
async function settled() {
  await page.waitForFunction(() => {
    const { data } = window.trendPage;
    const shown = window.trendPage.range();
    return Math.abs(data.range.from - shown.from) < 2 && Math.abs(data.range.to - shown.to) < 2;
  });
  await drawn();
}

async function shot(name) {
  await page.mouse.move(0, 0);
  await page.screenshot({ path: join(shots, `${name}.png`) });
}

before(async () => {
  rmSync(shots, { recursive: true, force: true });
  mkdirSync(shots, { recursive: true });
  const stepMs = Number(process.env.ORVA_YEAR_STEP_S ?? 300) * 1000;
  await plant.configure(root, { stepMs });
  await plant.start({ importYear: true });
  browser = await chromium.launch({
    executablePath: process.env.ORVA_CHROMIUM ?? '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  context = await browser.newContext({ viewport: { width: 1360, height: 860 }, colorScheme: 'light', acceptDownloads: true });
  context.setDefaultTimeout(20_000);
  page = await context.newPage();
  watch(page);
});

after(async () => {
  await browser?.close();
  await plant.stop();
});

test('an empty page says what to do, and items are found and chosen', async () => {
  await open('/', false);
  await page.getByText('Choose items to see their history.').waitFor();
  await shot('empty');
  await page.keyboard.press('/');
  await page.keyboard.type('tank lev');
  await page.getByText('1 of 19 items').waitFor();
  await page.keyboard.press('Enter');
  await page.locator('#legend-body tr').waitFor();
  assert.match(page.url(), /\?item=Plant\/Tank\/Level&last=1h$/);
  // The list is one stop of the Tab key; arrows and Space work in it.
  await page.fill('#search', 'pump');
  await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Space');
  await page.locator('#legend-body tr').nth(1).waitFor();
  assert.match(page.url(), /item=Plant\/Tank\/Pump/);
});

test('live values are followed', async () => {
  await open(LIVE);
  const before_ = await range();
  const newest = () => page.evaluate(() => window.trendPage.data.entries.get('Plant/Tank/Level').samples.at(-1)?.[0] ?? 0);
  const first = await waitFor(newest, 'a first sample');
  await waitFor(async () => (await newest()) > first + 2000, 'newer samples arrive');
  assert.ok((await range()).to > before_.to, 'the range moves');
  await waitFor(async () => /\d/.test(await legend('value')), 'the legend shows the value');
  assert.equal(await page.locator('#legend-body tr').count(), 4);
  assert.match(await legend('quality'), /good|uncertain/);
  // What has the focus keeps it while values come in.
  await page.getByRole('button', { name: 'Remove System/Mode' }).focus();
  const told = await newest();
  await waitFor(async () => (await newest()) > told + 1000, 'values go on');
  await page.keyboard.press('Enter');
  await waitFor(async () => (await page.locator('#legend-body tr').count()) === 3, 'the item is removed');
});

test('a year opens with every spike, from the layer of hours, and a gap where there was none', async () => {
  const begin = Date.now();
  await open(stretch(YEAR.from, YEAR.to));
  const openedMs = Date.now() - begin;
  assert.match(await legend('layer'), /layer 2, hours/);
  const { xs, ys } = await line();
  const peaks = xs.filter((_, i) => ys[i] === 150);
  for (const spike of SPIKES) {
    if (spike > OUTAGE.from && spike < OUTAGE.to) continue;
    assert.ok(peaks.some((time) => Math.abs(time - spike) < 2 * 3_600_000), `the spike of ${iso(spike)}`);
  }
  const inOutage = xs.filter((time, i) => time > OUTAGE.from + 86_400_000 && time < OUTAGE.to && ys[i] !== null);
  assert.equal(inOutage.length, 0);
  const breaks = xs.filter((time, i) => ys[i] === null && time >= OUTAGE.from - 86_400_000 && time < OUTAGE.to);
  assert.ok(breaks.length > 0, 'the line is broken');
  await shot('year');
  console.log(`the year opened in ${openedMs} ms, ${plant.rows} samples`);
});

test('the wheel zooms in to a day with its spike, and out again', async () => {
  const box = await plotBox();
  const spike = SPIKES[9];
  const whole = await span();
  for (let i = 0; i < 40 && (await span()) > 86_400_000; i += 1) {
    const { from, to } = await range();
    await page.mouse.move(box.x + (box.width * (spike - from)) / (to - from), box.y + 100);
    await page.mouse.wheel(0, -400);
    await sleep(15);
  }
  const begin = Date.now();
  await settled();
  console.log(`the day was there ${Date.now() - begin} ms after the wheel stood`);
  const { xs, ys } = await line();
  assert.ok(xs.some((time, i) => ys[i] === 150 && Math.abs(time - spike) < 600_000));
  assert.match(await legend('layer'), /layer [01]/);
  await shot('day');
  await page.mouse.move(box.x + box.width / 2, box.y + 100);
  for (let i = 0; i < 40 && (await span()) < whole; i += 1) {
    await page.mouse.wheel(0, 400);
    await sleep(15);
  }
  await settled();
  assert.ok((await span()) >= whole);
});

test('a drag zooms to what it spans, and Back undoes it', async () => {
  await open(stretch(YEAR.from, YEAR.to));
  const box = await plotBox();
  await page.mouse.move(box.x + box.width * 0.25, box.y + 60);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width * 0.4, box.y + 80, { steps: 4 });
  await page.mouse.move(box.x + box.width * 0.5, box.y + 80);
  await page.mouse.up();
  await settled();
  const part = (await span()) / (YEAR.to - YEAR.from);
  assert.ok(part > 0.24 && part < 0.26, `${part}`);
  await page.goBack();
  await settled();
  assert.deepEqual(await range(), YEAR);
  // Shift and drag moves.
  await page.keyboard.down('Shift');
  await page.mouse.move(box.x + box.width * 0.5, box.y + 60);
  await page.mouse.down();
  await page.mouse.move(box.x + box.width * 0.6, box.y + 60, { steps: 5 });
  await page.mouse.up();
  await page.keyboard.up('Shift');
  await settled();
  const { from } = await range();
  const moved = (YEAR.from - from) / (YEAR.to - YEAR.from);
  assert.ok(moved > 0.09 && moved < 0.11, `${moved}`);
});

test('buttons and keys do the same, and the cursor tells time, value and quality in words', async () => {
  await open(stretch(YEAR.from + 98 * 86_400_000, YEAR.from + 105 * 86_400_000));
  const week = await span();
  await page.click('#zoom-in');
  await settled();
  assert.equal(await span(), week / 2);
  await page.keyboard.press('-');
  await settled();
  assert.equal(await span(), week);
  await page.keyboard.press('ArrowRight');
  await page.keyboard.press('ArrowLeft');
  await settled();
  const box = await plotBox();
  await page.mouse.move(box.x + box.width / 2, box.y + 80);
  await page.waitForFunction(() => /^Values at 2025-04-1\d/.test(document.querySelector('#cursor-time').textContent));
  assert.equal(await legend('quality'), 'uncertain');
  await page.screenshot({ path: join(shots, 'uncertain.png') });
  await page.mouse.move(0, 0);
  await page.keyboard.press('.');
  await page.waitForFunction(() => document.querySelector('#spoken').textContent.includes('Temperature'));
});

test('a range without history says where there is some and goes there', async () => {
  await open(stretch(YEAR.from - 400 * 86_400_000, YEAR.from - 399 * 86_400_000), false);
  await page.getByText('Nothing was archived in this range.').waitFor();
  await page.getByText(/The oldest sample is from 2025-01-01 00:00:00/).waitFor();
  await shot('nothing-here');
  await page.getByRole('button', { name: 'Go there' }).click();
  await settled();
  assert.ok((await line()).xs.length > 0);
});

test('an item that does not exist is said to be missing', async () => {
  await open(`/?item=Plant/NoSuch&item=${FURNACE}&from=${iso(YEAR.from)}&to=${iso(YEAR.to)}`);
  await page.getByText('there is no such item, or it is not archived').waitFor();
  assert.ok((await line()).xs.length > 0, 'the other one is drawn');
});

async function saved(button) {
  const [download] = await Promise.all([page.waitForEvent('download'), page.click(button)]);
  return { name: download.suggestedFilename(), bytes: readFileSync(await download.path()) };
}

test('what is shown is saved as CSV and as an image', async () => {
  await open(stretch(SPIKES[5] - 3_600_000, SPIKES[5] + 3_600_000));
  const csv = await saved('#csv');
  assert.match(csv.name, /^trend-2025.*\.csv$/);
  const lines = csv.bytes.toString().trimEnd().split('\r\n');
  assert.equal(lines[0], 'time,item,value,status,quality');
  assert.ok(lines.some((row) => row.endsWith(`,${FURNACE},150,0x00000000,good`)), lines.join('\n'));
  const png = await saved('#png');
  assert.equal(png.bytes.subarray(1, 4).toString(), 'PNG');
  assert.ok(png.bytes.length > 10_000);
});

test('the page of the state has figures in words', async () => {
  await page.goto(`${plant.address}/state`);
  await page.getByRole('heading', { name: 'Archives' }).waitFor();
  await page.getByRole('cell', { name: /data\/year/ }).waitFor();
  await page.getByText('the value is the one before').waitFor();
  await page.screenshot({ path: join(shots, 'state.png'), fullPage: true });
  await page.getByText(/^All \d+ figures/).click();
  await page.getByRole('cell', { name: /orva_cache_hits_total/ }).waitFor();
});

test('colours change to dark and are remembered', async () => {
  await open(LIVE);
  await page.click('#theme');
  await page.click('#theme');
  assert.equal(await page.evaluate(() => document.documentElement.dataset.theme), 'dark');
  await page.reload();
  await drawn();
  assert.equal(await page.evaluate(() => document.documentElement.dataset.theme), 'dark');
  await shot('dark');
  await page.click('#theme');
});

test('a phone shows all of it without scrolling sideways', async () => {
  await page.setViewportSize({ width: 390, height: 844 });
  await open(LIVE);
  const overflow = () => page.evaluate(() => document.scrollingElement.scrollWidth - window.innerWidth);
  assert.ok((await overflow()) <= 0);
  await shot('phone');
  await page.click('#show-items');
  await page.fill('#search', 'memory');
  await page.getByRole('option', { name: /UsedPercent/ }).click();
  await shot('phone-items');
  await page.click('#hide-items');
  await page.locator('#legend-body tr').nth(4).waitFor();
  await page.goto(`${plant.address}/state`);
  await page.getByRole('heading', { name: 'Archives' }).waitFor();
  assert.ok((await overflow()) <= 0);
  await shot('phone-state');
  await page.setViewportSize({ width: 1360, height: 860 });
});

test('a host that stops is said to be gone, and the page recovers by itself', async () => {
  await open(LIVE);
  await plant.stop();
  await page.getByText(/The host does not answer/).waitFor();
  assert.equal(await page.locator('#light').textContent(), 'no connection');
  assert.ok((await line()).xs.length > 0, 'what was read stays');
  await shot('host-gone');
  await plant.start();
  await page.locator('#connection-banner').waitFor({ state: 'hidden' });
  const restarted = Date.now();
  const newest = () => page.evaluate(() => window.trendPage.data.entries.get('Plant/Tank/Level').samples.at(-1)?.[0] ?? 0);
  await waitFor(async () => (await newest()) > restarted, 'values of the new host');
  await shot('recovered');
});

test('a host with a token is asked with it', async () => {
  await plant.stop();
  plant.config.http.token = 'abc';
  await plant.start();
  await page.goto(plant.address + LIVE);
  await page.getByRole('heading', { name: 'A token is needed' }).waitFor();
  await page.keyboard.type('wrong');
  await page.keyboard.press('Enter');
  await page.getByText('The host does not accept that token.').waitFor();
  await shot('token');
  await page.keyboard.type('abc');
  await page.keyboard.press('Enter');
  await drawn();
  await waitFor(async () => (await line()).xs.length > 0, 'history after the token');
});

test('nothing was asked of anyone else, and nothing went wrong in the page', () => {
  assert.deepEqual([...requested].filter((url) => !url.startsWith(plant.address) && !url.startsWith('blob:')), []);
  assert.deepEqual(complaints, []);
});

// Takes three minutes: there has to be something to see.
test('a picture for the README', { skip: !process.env.ORVA_PICTURE }, async () => {
  await sleep(180_000);
  const view = await browser.newContext({ viewport: { width: 1180, height: 720 }, colorScheme: 'light' });
  page = await view.newPage();
  await page.addInitScript(() => sessionStorage.setItem('orva.token', 'abc'));
  await open('/?item=Plant/Tank/Level&item=System/Cpu/Load&item=Plant/Tank/Pump&item=System/Mode&last=3m&zone=utc');
  await sleep(1000);
  await page.screenshot({ path: process.env.ORVA_PICTURE });
});
