// The list of items beside the chart. Only the rows in sight are in the document, so thousands of
// items cost no more than a few.

import { element } from './dom.js';
import { prepareItems, searchItems } from './item_search.js';

const ROW = 44;

export class ItemList {
  // parts: { list, search, count }; onToggle(path).
  constructor(parts, onToggle) {
    Object.assign(this, parts);
    this.onToggle = onToggle;
    this.all = [];
    this.found = [];
    this.chosen = new Map(); // path -> colour
    this.active = 0;
    this.rows = element('div.rows');
    this.list.append(this.rows);
    this.list.addEventListener('scroll', () => this.draw());
    this.list.addEventListener('keydown', (event) => this.onKey(event));
    this.list.addEventListener('focus', () => this.markActive());
    this.list.addEventListener('blur', () => this.markActive());
    this.search.addEventListener('input', () => this.filter());
    this.search.addEventListener('keydown', (event) => this.onSearchKey(event));
    new ResizeObserver(() => this.draw()).observe(this.list);
  }

  setItems(items) {
    this.all = prepareItems(items);
    this.filter();
  }

  setChosen(chosen) {
    this.chosen = chosen;
    this.draw();
  }

  filter() {
    this.found = searchItems(this.all, this.search.value);
    this.shown = null;
    this.active = 0;
    this.list.scrollTop = 0;
    const some = this.found.length === this.all.length;
    this.count.textContent = some ? `${this.all.length} items` : `${this.found.length} of ${this.all.length} items`;
    this.draw();
  }

  draw() {
    const first = Math.max(0, Math.floor(this.list.scrollTop / ROW) - 4);
    const last = Math.min(this.found.length, first + Math.ceil(this.list.clientHeight / ROW) + 9);
    const seen = this.found.slice(first, last);
    const shown = JSON.stringify([first, seen.map((item) => [item.path, this.chosen.get(item.path)])]);
    // Rows that stay are left alone: a press of the mouse would be lost with its row.
    if (shown !== this.shown) {
      this.shown = shown;
      this.rows.style.height = `${this.found.length * ROW}px`;
      this.rows.replaceChildren(...seen.map((item, i) => this.row(first + i)));
      if (this.found.length === 0 && this.all.length > 0) {
        this.rows.append(element('p.none', {}, 'No item has these words in its path.'));
      }
    }
    this.markActive();
  }

  // The row that the arrow keys have reached.
  markActive() {
    const hasFocus = this.found.length > 0 && document.activeElement === this.list;
    for (const row of this.rows.children) row.classList.toggle('active', hasFocus && row.id === `item-${this.active}`);
    if (hasFocus) this.list.setAttribute('aria-activedescendant', `item-${this.active}`);
    else this.list.removeAttribute('aria-activedescendant');
  }

  row(i) {
    const item = this.found[i];
    const colour = this.chosen.get(item.path);
    const isArchived = item.layers.length > 0;
    const swatch = element('span.swatch', { 'aria-hidden': 'true' });
    if (colour) swatch.style.setProperty('--swatch', colour);
    const row = element(
      'div.row',
      {
        id: `item-${i}`,
        role: 'option',
        'aria-selected': colour ? 'true' : 'false',
        'aria-setsize': this.found.length,
        'aria-posinset': i + 1,
        'aria-disabled': isArchived ? null : 'true',
        title: isArchived ? item.path : `${item.path} is not archived: it has no history`,
        onclick: () => this.toggle(i),
      },
      swatch,
      element('span.path', {}, element('span.name', {}, item.name), element('span.folder', {}, item.folder)),
      element('span.type', {}, isArchived ? item.type : 'no history'),
    );
    if (colour) row.classList.add('chosen');
    row.style.transform = `translateY(${i * ROW}px)`;
    return row;
  }

  toggle(i) {
    const item = this.found[i];
    if (!item || item.layers.length === 0) return;
    this.active = i;
    this.onToggle(item.path);
  }

  move(to) {
    this.active = Math.min(Math.max(to, 0), this.found.length - 1);
    const top = this.active * ROW;
    if (top < this.list.scrollTop) this.list.scrollTop = top;
    const room = this.list.clientHeight - ROW;
    if (top > this.list.scrollTop + room) this.list.scrollTop = top - room;
    this.draw();
  }

  onKey(event) {
    const page = Math.max(1, Math.floor(this.list.clientHeight / ROW) - 1);
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page };
    if (event.key in steps) this.move(this.active + steps[event.key]);
    else if (event.key === 'Home') this.move(0);
    else if (event.key === 'End') this.move(this.found.length - 1);
    else if (event.key === 'Enter' || event.key === ' ') this.toggle(this.active);
    else return;
    event.preventDefault();
    event.stopPropagation();
  }

  onSearchKey(event) {
    event.stopPropagation();
    if (event.key === 'ArrowDown') this.list.focus();
    else if (event.key === 'Enter') this.toggle(0);
    else if (event.key === 'Escape' && this.search.value) {
      this.search.value = '';
      this.filter();
    } else if (event.key === 'Escape') this.search.blur();
    else return;
    event.preventDefault();
  }
}
