import assert from 'node:assert/strict';
import { test } from 'node:test';
import { Api } from '../../web/js/api.js';

const answer = (status, body, headers = {}) => async () => new Response(body, { status, headers });

async function kindOf(send) {
  const error = await new Api('', send).items().then(() => null, (thrown) => thrown);
  return error.kind;
}

test('each failure says what is the matter', async () => {
  assert.equal(await kindOf(() => Promise.reject(new TypeError('refused'))), 'offline');
  assert.equal(await kindOf(answer(401, '{"error":"a token is needed"}')), 'token');
  assert.equal(await kindOf(answer(429, '')), 'busy');
  assert.equal(await kindOf(answer(500, '<html>')), 'failed');
});

test('a code that is bad is a failure, one item that is not known is not', async () => {
  await assert.rejects(new Api('', answer(200, '{"code":2148007936}')).call('HistoryReadRaw', '{}'), /0x80080000/);
  const reply = '{"items":[{"archiveItemId":-1,"statusCode":-2143158272}],"code":2151809024}';
  const ids = await new Api('', answer(200, reply)).archiveItemIds(['a']);
  assert.equal(ids.get('a'), null);
});

test('the token goes with each request', async () => {
  let seen;
  const api = new Api('secret', async (path, options) => {
    seen = options.headers.Authorization;
    return new Response('{"items":[]}');
  });
  await api.items();
  assert.equal(seen, 'Bearer secret');
});

test('now is the host\'s, also where the browser\'s clock is wrong', async () => {
  const api = new Api('', answer(200, '{"items":[]}', { 'X-Orva-Time': String(Date.now() + 3_600_000) }));
  await api.items();
  assert.ok(Math.abs(api.now() - Date.now() - 3_600_000) < 5000);
});

test('a read that was given up is no failure of the host', async () => {
  const given = new AbortController();
  const api = new Api('', (path, { signal }) => new Promise((_, reject) => {
    signal.addEventListener('abort', () => reject(signal.reason));
  }));
  const reading = api.call('HistoryReadRaw', '{}', given.signal);
  given.abort();
  await assert.rejects(reading, { name: 'AbortError' });
});
