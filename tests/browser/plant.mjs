// The host at work on the example plant, with a year of recorded history beside it.

import { spawn } from 'node:child_process';
import { closeSync, cpSync, createWriteStream, mkdirSync, openSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { once } from 'node:events';
import { createServer } from 'node:net';
import { join } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';

export const YEAR = { from: Date.UTC(2025, 0, 1), to: Date.UTC(2026, 0, 1) };
const DAY = 86_400_000;

// One sample of a spike among the others: each has to be seen in the whole year.
export const SPIKES = Array.from({ length: 24 }, (_, i) => YEAR.from + (i * 15 + 3.4) * DAY);
export const OUTAGE = { from: YEAR.from + 200 * DAY, to: YEAR.from + 214 * DAY };

async function freePort() {
  const server = createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  server.close();
  await once(server, 'close');
  return port;
}

export async function waitFor(condition, what, limitMs = 30_000) {
  const end = Date.now() + limitMs;
  for (;;) {
    const found = await condition();
    if (found) return found;
    if (Date.now() > end) throw new Error(`waited ${limitMs} ms in vain: ${what}`);
    await sleep(50);
  }
}

// Temperatures of a year, a sample each `stepMs`; an outage of two weeks, a day that is uncertain.
async function writeYear(file, stepMs) {
  const out = createWriteStream(file);
  out.write('time_ms,item_id,path,type,value,quality\n');
  const spikes = new Set(SPIKES.map((time) => Math.round((time - YEAR.from) / stepMs)));
  let rows = 0;
  let lines = [];
  for (let time = YEAR.from, i = 0; time < YEAR.to; time += stepMs, i += 1) {
    if (time > OUTAGE.from && time < OUTAGE.to) continue;
    const season = 60 - 18 * Math.cos(((time - YEAR.from) / (365 * DAY)) * 2 * Math.PI);
    const hour = 6 * Math.sin(((time % DAY) / DAY) * 2 * Math.PI);
    const noise = ((i * 7919) % 101) / 40;
    const value = spikes.has(i) ? 150 : (season + hour + noise).toFixed(2);
    const isUncertain = time > YEAR.from + 100 * DAY && time < YEAR.from + 104 * DAY;
    const isLast = time === OUTAGE.from;
    lines.push(`${time},900,Plant/Furnace/Temperature,double,${isLast ? 'NaN' : value},${isLast ? 2156527616 : isUncertain ? 1073741824 : 0}`);
    rows += 1;
    if (lines.length >= 10_000) {
      if (!out.write(`${lines.join('\n')}\n`)) await once(out, 'drain');
      lines = [];
    }
  }
  out.end(`${lines.join('\n')}\n`);
  await once(out, 'close');
  return rows;
}

export class Plant {
  // `build`: the folder with bin/ and lib/; `folder` is emptied.
  constructor(build, folder) {
    this.build = build;
    this.folder = folder;
  }

  async configure(sourceFolder, { stepMs, token = '' }) {
    rmSync(this.folder, { recursive: true, force: true });
    mkdirSync(this.folder, { recursive: true });
    cpSync(join(sourceFolder, 'examples/programs'), join(this.folder, 'programs'), { recursive: true });
    const config = JSON.parse(readFileSync(join(sourceFolder, 'examples/plant.json'), 'utf8'));
    this.port = await freePort();
    config.http = { bind: '127.0.0.1', port: this.port, token };
    const year = config.DataArchive.archives.length;
    config.DataArchive.archives.push({
      connection: { providerType: 'sqlite', location: 'data/year' },
      limits: { writePeriod: 1_000_000, writeBufferSize: 2_000_000, maxWriteValues: 100_000 },
      filter: { allValues: true },
    });
    config.variables.push({
      id: 900, path: 'Plant/Furnace/Temperature', type: 'Double',
      layers: { 0: { archive: year }, 1: { archive: year }, 2: { archive: year } },
    });
    this.rows = await writeYear(join(this.folder, 'year.csv'), stepMs);
    this.withYear = { ...config, sources: [...config.sources, { type: 'csv', file: 'year.csv', speed: 'max' }] };
    this.config = config;
  }

  get address() {
    return `http://127.0.0.1:${this.port}`;
  }

  async start({ importYear = false } = {}) {
    const file = join(this.folder, 'plant.json');
    writeFileSync(file, JSON.stringify(importYear ? this.withYear : this.config));
    const log = openSync(join(this.folder, 'host.log'), 'a');
    this.host = spawn(join(this.build, 'bin/orva_host'), ['--config', file], { stdio: ['ignore', 'pipe', log] });
    closeSync(log);
    let said = '';
    this.host.stdout.on('data', (text) => {
      said += text;
    });
    this.ended = once(this.host, 'exit');
    await waitFor(() => said.includes('listening on') || this.host.exitCode !== null, 'the host listens');
    if (this.host.exitCode !== null) throw new Error(`the host ended: ${this.log()}`);
    if (importYear) await waitFor(() => /year\.csv: done, \d+ rows/.test(this.log()), 'the year is replayed', 120_000);
  }

  log() {
    return readFileSync(join(this.folder, 'host.log'), 'utf8');
  }

  async stop() {
    if (!this.host || this.host.exitCode !== null || this.host.signalCode !== null) return;
    this.host.kill('SIGTERM');
    await this.ended;
  }
}
