// How long the trend page takes for a year of samples, a second each, in a browser. Arguments: the
// folder of the year with year.json and its store, and the file that says which spikes were planted
// (what examples/year/make_year.py says on stderr). Environment: ORVA_BUILD, ORVA_PLAYWRIGHT,
// ORVA_CHROMIUM as for the test of the page.
//
// Each opening has a host that was just started and a browser context of its own, so nothing is
// cached but by the operating system. Ends with exit code 1 when a spike is not in the picture.

import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join, resolve } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

const [folder, spikesFile] = process.argv.slice(2);
const build = resolve(process.env.ORVA_BUILD);
const { chromium } = createRequire(join(resolve(process.env.ORVA_PLAYWRIGHT), 'x.js'))('playwright-core');

const OPENINGS = 5;
const DAYS = 12;
const DAY = 86_400_000;
const YEAR = { from: Date.UTC(2025, 0, 1), to: Date.UTC(2026, 0, 1) };
const config = JSON.parse(readFileSync(join(folder, 'year.json'), 'utf8'));
const address = `http://${config.http.bind}:${config.http.port}`;
const spikes = [...readFileSync(spikesFile, 'utf8').matchAll(/spike (-?\d+) at (\d+)/g)].map((m) => ({
  value: Number(m[1]),
  time: Number(m[2]),
}));
if (spikes.length === 0) throw new Error(`${spikesFile} names no spikes`);

async function startHost() {
  const host = spawn(join(build, 'bin/orva_host'), ['--config', join(folder, 'year.json')], {
    stdio: ['ignore', 'pipe', 'inherit'],
  });
  let said = '';
  host.stdout.on('data', (text) => {
    said += text;
  });
  const ended = once(host, 'exit');
  while (!said.includes('listening on')) {
    if (host.exitCode !== null) throw new Error('the host ended');
    await sleep(10);
  }
  return async () => {
    host.kill('SIGTERM');
    await ended;
  };
}

const drawn = async (page) => {
  await page.waitForFunction(() => window.trendPage?.data.range && !document.querySelector('#loading').classList.contains('on'));
  await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
};
const range = (page) => page.evaluate(() => window.trendPage.range());
const line = (page) => page.evaluate(() => window.trendPage.chart.lines()[0].points);
const stretch = (from, to) =>
  `${address}/?item=Year/Level&from=${new Date(from).toISOString()}&to=${new Date(to).toISOString()}&zone=utc`;

async function open(page, from, to) {
  const begin = performance.now();
  await page.goto(stretch(from, to));
  await drawn(page);
  return performance.now() - begin;
}

// Milliseconds from the wheel's last turn until the day is read and drawn.
async function wheelTo(page, time) {
  const box = await page.locator('.u-over').boundingBox();
  for (;;) {
    const { from, to } = await range(page);
    if (to - from <= DAY) break;
    await page.mouse.move(box.x + (box.width * (time - from)) / (to - from), box.y + 100);
    await page.mouse.wheel(0, -400);
    await sleep(15);
  }
  const begin = performance.now();
  await page.waitForFunction(() => {
    const { data } = window.trendPage;
    const shown = window.trendPage.range();
    return Math.abs(data.range.from - shown.from) < 2 && Math.abs(data.range.to - shown.to) < 2;
  });
  await drawn(page);
  return performance.now() - begin;
}

function report(what, times) {
  const sorted = [...times].sort((a, b) => a - b);
  const text = (ms) => ms.toFixed(0).padStart(5);
  console.log(`${what.padEnd(44)}${text(sorted[0])}${text(sorted[sorted.length >> 1])}${text(sorted.at(-1))}`);
}

async function missingSpikes(page) {
  const { xs, ys } = await line(page);
  return spikes.filter(({ time, value }) => !xs.some((x, i) => ys[i] === value && Math.abs(x - time) < 2 * 3_600_000));
}

const browser = await chromium.launch({
  executablePath: process.env.ORVA_CHROMIUM ?? '/usr/bin/chromium',
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-component-update', '--disable-sync'],
});
// The browser's own first page is not counted.
await (await browser.newPage()).goto('about:blank');

const opened = [];
const openedDays = [];
const wheeled = [];
let missing = [];
for (let run = 0; run < OPENINGS; run += 1) {
  const stop = await startHost();
  const context = await browser.newContext({ viewport: { width: 1360, height: 860 } });
  const page = await context.newPage();
  opened.push(await open(page, YEAR.from, YEAR.to));
  missing = [...missing, ...(await missingSpikes(page))];
  for (let i = run; i < DAYS; i += OPENINGS) {
    const time = YEAR.from + (((i * 29 + 3) % 365) + 0.5) * DAY;
    wheeled.push(await wheelTo(page, time));
    await page.goto(stretch(YEAR.from, YEAR.to));
    await drawn(page);
    openedDays.push(await open(page, time - 3 * DAY, time - 2 * DAY));
    await page.goto(stretch(YEAR.from, YEAR.to));
    await drawn(page);
  }
  await context.close();
  await stop();
}
await browser.close();

console.log(`${'milliseconds'.padEnd(44)}  min  med  max`);
report(`the year opens, ${OPENINGS} times`, opened);
report(`a day after the wheel stood, ${wheeled.length} days`, wheeled);
report(`a day opened by its address, ${openedDays.length} days`, openedDays);
console.log(`spikes planted: ${spikes.length}, in the picture of the year: ${spikes.length - new Set(missing.map((s) => s.time)).size}`);
if (missing.length > 0) {
  console.error(`year.mjs: not in the picture: ${missing.map((s) => new Date(s.time).toISOString()).join(', ')}`);
  process.exitCode = 1;
}
