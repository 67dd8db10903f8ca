// The page of the service's own state: figures in words, read again every two seconds.

import { Api } from './api.js';
import { Connection } from './connection.js';
import { byId, element } from './dom.js';
import { figure, parseMetrics } from './metrics_text.js';
import { archiveRows, bytesText, counted, countText, hitShare, percentText, QUEUES, ruleRows } from './state_figures.js';
import { setUpTheme } from './theme.js';
import { lengthText } from './time_text.js';
import { askToken, storedToken } from './token_dialog.js';

const PERIOD_MS = 2000;
const WINDOW_MS = 60_000;

const api = new Api(storedToken());
const past = []; // [{ time, families }] of the last minute
let timer = null;

const banner = byId('connection-banner');
const connection = new Connection(
  api,
  { banner, text: banner.querySelector('span'), retry: banner.querySelector('button'), light: byId('light') },
  () => refresh(),
);
setUpTheme(byId('theme'));

function tile(label, value, more = '') {
  return element('section.tile', {}, element('div.label', {}, label), element('div.figure', {}, value), element('div.more', {}, more));
}

function card(title, note, ...content) {
  return element('section.card', {}, element('h2', {}, title), note ? element('p', {}, note) : null, ...content);
}

// What a counter rose by per second over the window; null while it is too short.
function rate(families, name, labels) {
  const first = past[0];
  const seconds = (past[past.length - 1].time - first.time) / 1000;
  const rise = (figure(families, name, labels) ?? 0) - (figure(first.families, name, labels) ?? 0);
  return seconds < 1 || rise < 0 ? null : rise / seconds;
}

function rateText(value, unit) {
  if (value === null) return '';
  return `${value.toLocaleString('en-US', { maximumFractionDigits: value < 10 ? 1 : 0 })} ${unit} a second`;
}

function tiles(families) {
  const uptime = figure(families, 'orva_host_uptime_seconds');
  const version = families.get('orva_host_build_info')?.samples[0]?.labels.version ?? '';
  const accepted = figure(families, 'orva_samples_accepted_total');
  const refused = figure(families, 'orva_samples_refused_total');
  const share = accepted + refused > 0 ? accepted / (accepted + refused) : null;
  const recent = hitShare(families, past[0].families);
  return [
    tile('Running for', uptime === null ? '–' : lengthText(uptime * 1000), version && `version ${version}`),
    tile('Memory', bytesText(figure(families, 'orva_host_resident_bytes')), 'of the whole process'),
    tile('Items in memory', countText(figure(families, 'orva_cache_items')), 'used since the start'),
    tile('Samples archived', countText(accepted), share === null ? '' : `${percentText(share)} of those offered`),
    tile('Reads', countText(figure(families, 'orva_reads_total')), rateText(rate(families, 'orva_reads_total'), 'reads')),
    tile('Read from memory', percentText(hitShare(families)), recent === null ? '' : `${percentText(recent)} in the last minute`),
  ];
}

function archivesCard(families) {
  const uptime = figure(families, 'orva_host_uptime_seconds');
  const rows = archiveRows(families, uptime);
  const young = uptime < 3600 ? 'The host was started within the hour: bytes a day are a rough guess.' : '';
  const node = card('Archives', rows.length === 0 ? 'No archive gives figures.' : young);
  node.classList.add('wide');
  if (rows.length === 0) return node;
  const columns = ['Archive', 'Waiting to be written', 'Samples written', 'Bytes a day', 'File', 'Lost or failed'];
  const head = columns.map((name, i) => element(i > 0 ? 'th.right' : 'th', { scope: 'col' }, name));
  const lines = rows.map(({ archive, kind, figures, bytesPerDay }) => {
    const lost = (figures.dropped_samples ?? 0) + (figures.refused_samples ?? 0);
    const troubles = [
      [lost, 'lost sample'],
      [figures.failures ?? 0, 'failed transaction'],
      [figures.damaged_segments ?? 0, 'damaged segment'],
    ].filter(([count]) => count > 0);
    const trouble = troubles.length === 0
      ? ['none']
      : troubles.map(([count, what]) => element('div.warn', {}, counted(count, what)));
    return element(
      'tr', {},
      element('td', {}, archive, element('small', {}, kind)),
      element('td.right', {}, countText(figures.buffered_samples), element('small', {}, 'samples')),
      element('td.right', {}, countText(figures.written_samples), element('small', {}, counted(figures.commits, 'transaction'))),
      element('td.right', {}, bytesText(bytesPerDay), element('small', {}, `${bytesText(figures.written_bytes)} since the start`)),
      element('td.right', {}, bytesText(figures.file_bytes), element('small', {}, `and ${bytesText(figures.log_bytes)} log`)),
      element('td.right', {}, ...trouble),
    );
  });
  node.append(element('div.scroll', {}, element('table', {}, element('thead', {}, element('tr', {}, ...head)), element('tbody', {}, ...lines))));
  return node;
}

function cacheCard(families) {
  const capacity = figure(families, 'orva_cache_capacity_blocks') ?? 0;
  const sizes = QUEUES.map(([queue]) => figure(families, 'orva_cache_blocks', { queue }) ?? 0);
  const used = sizes.reduce((sum, size) => sum + size, 0);
  const meter = element('div.meter', { role: 'img', 'aria-label': `${used} of ${capacity} blocks in use` });
  sizes.forEach((size, i) => {
    const span = element(`span.c${i}`);
    span.style.width = `${capacity > 0 ? (size / capacity) * 100 : 0}%`;
    if (size > 0) meter.append(span);
  });
  const parts = QUEUES.map(([, title, why], i) =>
    element('div.part', {}, element(`i.c${i}`), element('span', {}, `${title} `, element('small', {}, why)), element('span', {}, countText(sizes[i]))));
  parts.push(element('div.part', {}, element('i.c9'), element('span', {}, 'free'), element('span', {}, countText(Math.max(0, capacity - used)))));
  const evicted = countText(figure(families, 'orva_cache_evictions_total'));
  const hits = countText(figure(families, 'orva_cache_hits_total'));
  const misses = countText(figure(families, 'orva_cache_misses_total'));
  return card(
    'Cache',
    `${countText(used)} of ${countText(capacity)} blocks hold history in memory. ${hits} stretches were read from memory, ${misses} from archives; ${evicted} blocks made room for others.`,
    meter,
    element('div.parts', {}, ...parts),
  );
}

function rulesCard(families) {
  const table = (name, title, kind) => {
    const rows = ruleRows(families, name).map(({ title: rule, why, count, share }) => {
      const bar = element('span');
      bar.style.width = `${share * 100}%`;
      return element('tr', {}, element('td', {}, rule, element('small', {}, why), element('div.share', {}, bar)), element('td.right', {}, countText(count)));
    });
    return element(`table.${kind}`, {}, element('thead', {}, element('tr', {}, element('th', { scope: 'col' }, title), element('th.right', { scope: 'col' }, countText(figure(families, name))))), element('tbody', {}, ...rows));
  };
  return card(
    'Write filter',
    'Each new sample is archived or left out by one rule.',
    table('orva_samples_accepted_total', 'Archived', 'accepted'),
    table('orva_samples_refused_total', 'Left out', 'refused'),
  );
}

function workCard(families) {
  const lines = [
    ['Requests at work', countText(figure(families, 'orva_open_requests')), ''],
    ['Asynchronous reads to be fetched', countText(figure(families, 'orva_open_async_reads')), ''],
    ['Values returned', countText(figure(families, 'orva_values_returned_total')), rateText(rate(families, 'orva_values_returned_total'), 'values')],
    ['Reads that timed out', countText(figure(families, 'orva_read_timeouts_total')), 'an archive did not answer in time'],
    ['Answers not taken into memory', countText(figure(families, 'orva_inbox_dropped_samples_total')), 'samples that came faster than reads took them in'],
    ...['2xx', '4xx', '5xx'].map((code) => [
      `HTTP replies ${code}`,
      countText(figure(families, 'orva_host_http_requests_total', { code })),
      { '2xx': 'fine', '4xx': 'the request was wrong or not allowed', '5xx': 'the host failed' }[code],
    ]),
  ];
  const rows = lines.map(([label, value, why]) => element('tr', {}, element('td', {}, label, why ? element('small', {}, why) : null), element('td.right', {}, value)));
  return card('Requests', '', element('table', {}, element('tbody', {}, ...rows)));
}

// Stays in place while the rest is replaced: somebody may be reading it.
const allBody = element('tbody');
const allSummary = element('summary');
const allTable = element('div.scroll', {}, element('table', {}, allBody));
const allDetails = element('details', {}, allSummary, allTable);

function drawAllFigures(families) {
  const rows = [];
  for (const [name, { help, samples }] of families) {
    for (const { labels, value } of samples) {
      const text = Object.entries(labels).map(([key, label]) => `${key}="${label}"`).join(', ');
      const figureName = element('td', {}, text ? `${name}{${text}}` : name, element('small', {}, help));
      rows.push(element('tr', {}, figureName, element('td.right', {}, String(value))));
    }
  }
  allSummary.textContent = `All ${rows.length} figures, as /metrics serves them`;
  allBody.replaceChildren(...(allDetails.open ? rows : []));
}

function draw(families) {
  const main = byId('state');
  if (!main.contains(allDetails)) main.replaceChildren(element('div.figures'), element('section.card.wide', {}, allDetails));
  drawAllFigures(families);
  main.querySelector('.figures').replaceChildren(
    ...tiles(families),
    archivesCard(families),
    element('div.column', {}, cacheCard(families), workCard(families)),
    element('div.column', {}, rulesCard(families)),
  );
}

async function refresh() {
  clearTimeout(timer);
  timer = setTimeout(refresh, PERIOD_MS);
  if (document.hidden || !connection.isUp) return;
  try {
    const families = parseMetrics(await api.metrics());
    connection.up();
    const now = Date.now();
    const uptime = (state) => figure(state, 'orva_host_uptime_seconds') ?? 0;
    if (past.length > 0 && uptime(families) < uptime(past[past.length - 1].families)) past.length = 0;
    past.push({ time: now, families });
    while (past.length > 2 && now - past[0].time > WINDOW_MS) past.shift();
    draw(families);
  } catch (error) {
    if (error.kind === 'token') {
      clearTimeout(timer);
      api.token = await askToken(api.token !== '');
      return refresh();
    }
    if (!connection.down(error)) byId('state').replaceChildren(element('p.waiting', {}, `${error.message} Trying again.`));
  }
  return undefined;
}

allDetails.addEventListener('toggle', () => {
  if (past.length > 0) drawAllFigures(past[past.length - 1].families);
});
refresh();
