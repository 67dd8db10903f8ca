// The trend page: keeps the view, reads what it needs, and shows it.

import { Api } from './api.js';
import { Chart } from './chart.js';
import { Connection } from './connection.js';
import { byId, element } from './dom.js';
import { emptyNote, showEmptyNote } from './empty_note.js';
import { csvText } from './export_csv.js';
import { chartImage, saveAs } from './export_png.js';
import { ItemList } from './item_list.js';
import { splitPath } from './item_search.js';
import { listenToKeys } from './keyboard.js';
import { Legend, sampleText } from './legend.js';
import { sampleAt } from './line_points.js';
import { words } from './quality.js';
import { clamped, panned, parseSpan, spanKey, SPANS, zoomed } from './ranges.js';
import { color, setUpTheme } from './theme.js';
import { lengthText, rangeText, timeText, zoneText } from './time_text.js';
import { askToken, storedToken } from './token_dialog.js';
import { TrendData } from './trend_data.js';
import { MOST_ITEMS, readView, writeView } from './view_url.js';

const COLOURS = 8;
const WHEEL_SETTLES_MS = 140;

class TrendPage {
  constructor() {
    this.api = new Api(storedToken());
    this.data = new TrendData(this.api);
    this.view = readView(location.search);
    this.colours = new Map(); // path -> number of its colour
    this.active = null;
    this.cursor = null; // time, or null
    this.hasItems = false;
    this.buildParts();
    this.buildButtons();
    this.listen();
    this.showView();
  }

  buildParts() {
    this.list = new ItemList(
      { list: byId('item-list'), search: byId('search'), count: byId('item-count') },
      (path) => this.toggle(path),
    );
    this.legend = new Legend(byId('legend-body'), {
      remove: (path) => this.toggle(path),
      activate: (path) => this.activate(path),
    });
    this.chart = new Chart(byId('chart'), {
      select: (from, to) => this.goTo({ from, to }),
      zoom: (factor, time) => this.slide(zoomed(this.range(), factor, time)),
      pan: (part) => this.slide(panned(this.range(), part)),
      settle: () => this.settle(),
      cursor: (time) => this.showCursor(time),
      back: () => this.goTo(zoomed(this.range(), 2)),
    });
    const banner = byId('connection-banner');
    this.connection = new Connection(
      this.api,
      { banner, text: banner.querySelector('span'), retry: banner.querySelector('button'), light: byId('light') },
      () => this.start(),
    );
    setUpTheme(byId('theme'), () => this.draw());
  }

  buildButtons() {
    for (const { key, label } of SPANS) {
      const button = element('button', { type: 'button', 'data-span': key, onclick: () => this.setSpan(key) }, label);
      byId('spans').append(button);
    }
    const actions = {
      earlier: () => this.goTo(panned(this.range(), -0.5)),
      later: () => this.goTo(panned(this.range(), 0.5)),
      'zoom-in': () => this.goTo(zoomed(this.range(), 0.5)),
      'zoom-out': () => this.goTo(zoomed(this.range(), 2)),
      live: () => this.setLive(!this.view.live),
      zone: () => this.change({ zone: this.view.zone === 'utc' ? 'local' : 'utc' }),
      steps: () => this.change({ steps: !this.view.steps }),
      csv: () => this.saveCsv(),
      png: () => this.savePng(),
      help: () => byId('help-dialog').showModal(),
      'show-items': () => this.showItems(true),
      'hide-items': () => this.showItems(false),
    };
    for (const [id, action] of Object.entries(actions)) byId(id).addEventListener('click', action);
    byId('gap').addEventListener('change', (event) => this.change({ gap: event.target.value }));
    this.actions = actions;
  }

  listen() {
    window.addEventListener('popstate', () => {
      this.view = readView(location.search);
      this.showView();
      this.load();
    });
    listenToKeys(this);
    let width = 0;
    new ResizeObserver(() => {
      // A wider plot has more columns to fill.
      if (width > 0 && this.chart.box.clientWidth > width * 1.5) this.load();
      width = Math.max(width, this.chart.box.clientWidth);
    }).observe(this.chart.box);
  }

  // Begins, and begins again once the host is back.
  async start() {
    try {
      const items = await this.api.items();
      this.connection.up();
      this.data.setItems(items);
      this.list.setItems([...this.data.items.values()]);
      this.hasItems = true;
      byId('items-note').hidden = items.length > 0;
      await this.load();
    } catch (error) {
      this.failed(error, () => this.start());
    }
  }

  // ---- the view

  range() {
    if (!this.view.live) return { from: this.view.from, to: this.view.to };
    const now = this.api.now();
    return { from: now - this.view.span, to: now };
  }

  // `isStep`: the browser's Back button comes back to here.
  setView(view, isStep = true) {
    const before = writeView(this.view);
    this.view = view;
    const query = writeView(view);
    if (query !== before) history[isStep ? 'pushState' : 'replaceState'](null, '', query);
    this.showView();
  }

  change(part) {
    this.setView({ ...this.view, ...part }, false);
    this.draw();
  }

  goTo(range, isStep = true) {
    const { from, to } = clamped(range);
    this.setView({ ...this.view, live: false, from, to, span: to - from }, isStep);
    this.chart.move({ from, to });
    this.load();
  }

  // Moves at once with the data there are; reads when the hand rests.
  slide(range) {
    const { from, to } = clamped(range);
    const isFirst = !this.settling;
    this.setView({ ...this.view, live: false, from, to, span: to - from }, isFirst);
    this.chart.move({ from, to });
    clearTimeout(this.settling);
    this.settling = setTimeout(() => this.settle(), WHEEL_SETTLES_MS);
  }

  settle() {
    clearTimeout(this.settling);
    this.settling = null;
    this.load();
  }

  setSpan(key) {
    const span = parseSpan(key);
    if (this.view.live) {
      this.setView({ ...this.view, span });
      return this.load();
    }
    // A range that ends in the past keeps its end.
    const to = Math.min(this.view.to, Math.max(this.api.now(), this.view.to - this.view.span));
    return this.goTo({ from: to - span, to });
  }

  setLive(live) {
    if (!live) return this.goTo(this.range());
    this.setView({ ...this.view, live: true });
    return this.load();
  }

  toggle(path) {
    const has = this.view.items.includes(path);
    if (!has && this.view.items.length >= MOST_ITEMS) {
      return this.say(`A chart takes ${MOST_ITEMS} items at most: remove one first.`);
    }
    const items = has ? this.view.items.filter((other) => other !== path) : [...this.view.items, path];
    this.setView({ ...this.view, items });
    return this.load();
  }

  activate(path) {
    this.active = this.active === path ? null : path;
    this.draw();
  }

  showItems(shown) {
    document.body.classList.toggle('items-shown', shown);
    if (shown) byId('search').focus();
    else byId('show-items').focus();
  }

  colourOf(path) {
    return color(`--line-${(this.colours.get(path) ?? 0) % COLOURS}`);
  }

  assignColours() {
    for (const path of [...this.colours.keys()]) {
      if (!this.view.items.includes(path)) this.colours.delete(path);
    }
    const taken = new Set(this.colours.values());
    for (const path of this.view.items) {
      if (this.colours.has(path)) continue;
      let free = 0;
      while (taken.has(free)) free += 1;
      this.colours.set(path, free);
      taken.add(free);
    }
  }

  showView() {
    this.assignColours();
    const { view } = this;
    const range = this.range();
    byId('live').setAttribute('aria-pressed', String(view.live));
    for (const button of byId('spans').children) {
      button.setAttribute('aria-pressed', String(button.dataset.span === spanKey(view.span)));
    }
    byId('range').textContent = rangeText(range.from, range.to, view.zone);
    byId('length').textContent = lengthText(view.span);
    byId('zone').textContent = zoneText(range.to, view.zone);
    byId('steps').setAttribute('aria-pressed', String(view.steps));
    const gap = byId('gap');
    if (![...gap.options].some((option) => option.value === view.gap)) {
      gap.append(element('option', { value: view.gap }, view.gap));
    }
    gap.value = view.gap;
    this.list.setChosen(new Map(view.items.map((path) => [path, this.colourOf(path)])));
    const names = view.items.map((path) => splitPath(path).name).join(', ');
    document.title = names === '' ? 'Trends' : `${names} – Trends`;
  }

  // ---- reading

  async load() {
    this.reading?.abort();
    clearTimeout(this.following);
    if (!this.hasItems) return;
    const reading = new AbortController();
    this.reading = reading;
    const range = this.range();
    const stepMs = (range.to - range.from) / this.chart.columns();
    const slow = setTimeout(() => byId('loading').classList.add('on'), 120);
    try {
      await this.data.load(this.view.items, range, stepMs, this.view.live, reading.signal, (count) => {
        byId('loading').title = `${count.toLocaleString('en-US')} samples read`;
      });
      this.connection.up();
      this.draw();
      await this.showWhatIsMissing(range, reading.signal);
      this.followLater();
    } catch (error) {
      if (!reading.signal.aborted) this.failed(error, () => this.load());
    } finally {
      clearTimeout(slow);
      if (this.reading === reading) byId('loading').classList.remove('on');
    }
  }

  followLater() {
    clearTimeout(this.following);
    if (!this.view.live || this.view.items.length === 0) return;
    const column = this.view.span / this.chart.columns();
    const wait = Math.min(Math.max(column, 1000), 20_000);
    this.following = setTimeout(() => this.follow(), wait);
  }

  async follow() {
    if (document.hidden) return this.followLater();
    const reading = this.reading;
    try {
      const range = this.range();
      await this.data.follow(range, reading.signal);
      if (reading !== this.reading || !this.view.live) return undefined;
      this.connection.up();
      this.showView();
      this.draw();
      await this.showWhatIsMissing(range, reading.signal);
      this.followLater();
    } catch (error) {
      if (!reading.signal.aborted) this.failed(error, () => this.load());
    }
    return undefined;
  }

  async failed(error, again) {
    if (error.kind === 'token') {
      this.api.token = await askToken(this.api.token !== '');
      return again();
    }
    if (this.connection.down(error)) return undefined;
    if (error.kind === undefined) console.error(error);
    return this.say(`${error.message} The chart shows what was read before.`, 'Try again', again);
  }

  // ---- showing

  gapSetting() {
    return this.view.gap === 'auto' || this.view.gap === 'never' ? this.view.gap : parseSpan(this.view.gap);
  }

  draw() {
    const range = this.range();
    const columns = this.chart.columns();
    const options = { range, columns, gap: this.gapSetting(), now: this.api.now() };
    const entries = this.view.items.map((path) => this.data.entries.get(path)).filter(Boolean);
    const series = entries
      .filter((entry) => !entry.missing)
      .map((entry) => this.data.seriesOf(entry, { ...options, colour: this.colourOf(entry.path) }));
    if (!this.view.items.includes(this.active)) this.active = null;
    const active = this.active ?? series.find((one) => one.isLine)?.path ?? null;
    this.chart.show(series, range, { zone: this.view.zone, active, steps: this.view.steps });
    this.legend.show(
      entries.map((entry) => ({ ...this.data.legendOf(entry, range), colour: this.colourOf(entry.path) })),
      active,
    );
    byId('legend').hidden = entries.length === 0;
    this.showCursor(this.cursor);
    this.describe(entries, range);
  }

  showCursor(time) {
    this.cursor = time;
    const range = this.range();
    const at = time ?? range.to;
    const samples = new Map();
    for (const [path, entry] of this.data.entries) {
      samples.set(path, sampleAt(entry.samples, at, entry.silence ?? Infinity));
    }
    this.legend.showValues(samples);
    const withMs = range.to - range.from < 600_000;
    const whole = this.view.live ? 'Newest values' : 'Values at the end of the range';
    byId('cursor-time').textContent = time === null ? whole : `Values at ${timeText(time, this.view.zone, withMs)}`;
    this.shownSamples = samples;
  }

  // Moves the cursor to the next sample, either way, and says what is there.
  stepCursor(direction) {
    const range = this.range();
    const at = this.cursor ?? (direction > 0 ? range.from : range.to);
    let next = null;
    for (const entry of this.data.entries.values()) {
      for (const [time] of entry.samples) {
        const isNext = direction > 0 ? time > at + 0.5 : time < at - 0.5;
        if (!isNext || time < range.from || time > range.to) continue;
        if (next === null || (direction > 0 ? time < next : time > next)) next = time;
      }
    }
    if (next === null) return;
    this.chart.pointAt(next);
    this.showCursor(next);
    const said = [...this.shownSamples].map(([path, sample]) => {
      return `${path} ${sampleText(sample)}${sample ? `, ${words(sample[2])}` : ''}`;
    });
    byId('spoken').textContent = `${timeText(next, this.view.zone, true)}: ${said.join('; ')}`;
  }

  // For those who do not see the chart.
  describe(entries, range) {
    const parts = entries.map((entry) => {
      const { extremes, path } = this.data.legendOf(entry, range);
      return extremes ? `${path} from ${sampleText([0, extremes.least])} to ${sampleText([0, extremes.greatest])}` : path;
    });
    const text = `Trend from ${rangeText(range.from, range.to, this.view.zone)}: ${parts.join('; ') || 'no items'}`;
    byId('chart').setAttribute('aria-label', text);
  }

  say(text, action, onAction) {
    const note = byId('note');
    const close = () => note.replaceChildren();
    const act = () => {
      close();
      onAction();
    };
    const buttons = action ? [element('button', { type: 'button', onclick: act }, action)] : [];
    buttons.push(element('button.icon', { type: 'button', 'aria-label': 'Close', onclick: close }, '×'));
    note.replaceChildren(element('span', {}, text), ...buttons);
    clearTimeout(this.noteTimer);
    if (!action) this.noteTimer = setTimeout(close, 6000);
  }

  // A chart without anything in it says why, and what can be done.
  async showWhatIsMissing(range, signal) {
    const note = await emptyNote(this.data, this.view, range, signal);
    byId('chart').classList.toggle('empty', note !== null);
    showEmptyNote(byId('empty'), note, (way) => {
      if (way === 'items') this.showItems(true);
      else if (way === 'live') this.setLive(true);
      else this.goTo(way);
    });
  }

  // ---- saving

  fileName(ending) {
    const stamp = new Date(this.range().to).toISOString().slice(0, 19).replaceAll(':', '');
    return `trend-${stamp}.${ending}`;
  }

  saveCsv() {
    const range = this.range();
    const series = [...this.data.entries.values()].filter((entry) => entry.samples.length > 0);
    if (series.length === 0) return this.say('There is nothing to save: the chart is empty.');
    return saveAs(new Blob([csvText(series, range.from, range.to)], { type: 'text/csv' }), this.fileName('csv'));
  }

  async savePng() {
    const canvas = this.chart.canvas();
    if (!canvas || this.data.entries.size === 0) return this.say('There is nothing to save: the chart is empty.');
    const range = this.range();
    const rows = [...this.data.entries.values()].map((entry) => {
      const { extremes, layerText } = this.data.legendOf(entry, range);
      const span = extremes ? `${sampleText([0, extremes.least])} to ${sampleText([0, extremes.greatest])}` : '';
      return { colour: this.colourOf(entry.path), path: entry.path, text: [span, layerText].filter(Boolean).join(', ') };
    });
    const subtitle = `${rangeText(range.from, range.to, this.view.zone)}  (${zoneText(range.to, this.view.zone)})`;
    return saveAs(await chartImage(canvas, { title: document.title, subtitle, rows }), this.fileName('png'));
  }
}

const page = new TrendPage();
page.start();
// For the browser's console and the tests.
window.trendPage = page;
