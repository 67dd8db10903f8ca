// The table below the chart: for each item its value and quality at the cursor, its extremes in the
// range, and the layer it was read from.

import { element } from './dom.js';
import { severity, words } from './quality.js';
import { valueText } from './lanes.js';
import { numberText } from './value_scale.js';
import { splitPath } from './item_search.js';
import { numberOf } from './line_points.js';

// What is said of a sample's value; whole numbers keep their digits.
export function sampleText(sample, span) {
  if (!sample) return '–';
  const value = sample[1];
  if (typeof value === 'number') return numberText(value, Number.isInteger(value) ? 1e-3 : span);
  return valueText(value);
}

export class Legend {
  // handlers: { remove(path), activate(path) }
  constructor(body, handlers) {
    this.body = body;
    this.handlers = handlers;
    this.rows = new Map(); // path -> its row
    this.shown = '';
  }

  // entries: [{ path, colour, isLine, layerText, note, extremes, span }]. Rows stay while their items
  // do: what has the focus, or is being pressed, is not replaced under the hand.
  show(entries, active) {
    const shown = JSON.stringify(entries.map(({ path, colour, isLine }) => [path, colour, isLine]));
    if (shown !== this.shown) {
      this.shown = shown;
      this.rows = new Map(entries.map((entry) => [entry.path, this.row(entry)]));
      this.body.replaceChildren(...[...this.rows.values()].map((row) => row.node));
    }
    for (const entry of entries) this.update(this.rows.get(entry.path), entry, entry.path === active);
  }

  update(row, entry, isActive) {
    const { least, greatest } = entry.extremes ?? {};
    const number = (x) => (x === undefined ? '–' : numberText(x, entry.span));
    row.entry = entry;
    row.node.classList.toggle('active', isActive);
    if (entry.isLine) row.select.setAttribute('aria-pressed', String(isActive));
    row.least.textContent = number(least);
    row.greatest.textContent = number(greatest);
    row.layer.textContent = entry.note || entry.layerText;
    row.layer.classList.toggle('wrong', entry.note !== '');
  }

  row(entry) {
    const { path, isLine } = entry;
    const { folder, name } = splitPath(path);
    const cell = (kind, label) => element(`td.${kind}`, { 'data-label': label });
    const cells = {
      value: cell('value', 'Value'),
      quality: cell('quality', 'Quality'),
      least: cell('extreme', 'Least'),
      greatest: cell('extreme', 'Greatest'),
      layer: cell('layer', 'Read from'),
    };
    const swatch = element('span.swatch', { 'aria-hidden': 'true' });
    swatch.style.setProperty('--swatch', entry.colour);
    const select = element(
      'button.item-name',
      {
        type: 'button',
        title: `${path}${isLine ? ': show its scale first' : ''}`,
        onclick: () => this.handlers.activate(path),
      },
      swatch,
      element('span.path', {}, element('span.name', {}, name), element('span.folder', {}, folder)),
    );
    const remove = element(
      'button.icon',
      { type: 'button', title: `Remove ${path}`, 'aria-label': `Remove ${path}`, onclick: () => this.handlers.remove(path) },
      '×',
    );
    const ends = [element('th', { scope: 'row' }, select), element('td.remove', {}, remove)];
    const node = element('tr', {}, ends[0], ...Object.values(cells), ends[1]);
    return { node, select, entry, ...cells };
  }

  // samples: a map from each path to its sample at the cursor, or null.
  showValues(samples) {
    for (const [path, row] of this.rows) {
      const sample = samples.get(path);
      row.value.textContent = sampleText(sample, row.entry.span);
      row.value.title = sample && numberOf(sample[1]) !== null ? String(sample[1]) : '';
      row.quality.textContent = sample ? words(sample[2]) : 'no value here';
      row.quality.dataset.severity = sample ? severity(sample[2]) : 'none';
    }
  }
}
