// Talks to the host. Every failure is a HostError whose `kind` says what is the matter:
//   offline  nobody answers          token   the host wants a token, or another one
//   busy     too many connections    failed  the host answered that it could not
import { parseJson } from './json_text.js';
import { hex } from './quality.js';

const READ_LIMIT_MS = 75_000; // the host itself gives up after 60 s
const QUICK_LIMIT_MS = 15_000;

export class HostError extends Error {
  constructor(kind, message) {
    super(message);
    this.kind = kind;
  }
}

function errorOf(status, text) {
  if (status === 401) return new HostError('token', 'The host wants a token.');
  if (status === 429) return new HostError('busy', 'The host has too many connections.');
  let said = '';
  try {
    said = JSON.parse(text).error ?? '';
  } catch {
    // No JSON: something between here and the host answered.
  }
  return new HostError('failed', `The host answered ${status}${said ? `: ${said}` : ''}.`);
}

export class Api {
  constructor(token = '', send = (...request) => fetch(...request)) {
    this.token = token;
    this.send = send;
    this.clockOffset = 0; // host's clock minus ours, ms
  }

  now() {
    return Date.now() + this.clockOffset;
  }

  async request(path, options, signal, limitMs) {
    const limit = AbortSignal.timeout(limitMs);
    const headers = { ...options.headers };
    if (this.token) headers.Authorization = `Bearer ${this.token}`;
    let response;
    let text;
    try {
      const both = signal ? AbortSignal.any([signal, limit]) : limit;
      response = await this.send(path, { ...options, headers, signal: both });
      text = await response.text();
    } catch (error) {
      if (signal?.aborted) throw error;
      throw new HostError('offline', 'The host does not answer.');
    }
    this.noteClock(response.headers.get('X-Orva-Time'));
    if (!response.ok) throw errorOf(response.status, text);
    return text;
  }

  noteClock(told) {
    if (told) this.clockOffset = Number(told) - Date.now();
  }

  async call(method, body, signal) {
    const options = { method: 'POST', body, headers: { 'Content-Type': 'application/json' } };
    const reply = parseJson(await this.request(`Methods/${method}`, options, signal, READ_LIMIT_MS));
    // A path that is not known is said of the item, too.
    if (reply.code !== 0 && reply.code !== 0x80420000) {
      throw new HostError('failed', `${method} failed with ${hex(reply.code)}.`);
    }
    return reply;
  }

  async items(signal) {
    return parseJson(await this.request('api/items', {}, signal, QUICK_LIMIT_MS)).items;
  }

  // A map from each path to its id for history; null for one that has none.
  async archiveItemIds(paths, signal) {
    const body = JSON.stringify({ items: paths.map((path) => ({ path })) });
    const reply = await this.call('GetArchiveItems', body, signal);
    return new Map(reply.items.map((item, i) => [paths[i], item.statusCode ? null : String(item.archiveItemId)]));
  }

  metrics(signal) {
    return this.request('metrics', {}, signal, QUICK_LIMIT_MS);
  }

  // Whether the host is there, at little cost.
  async ping() {
    await this.request('favicon.svg', { cache: 'no-cache' }, undefined, 5_000);
  }
}
