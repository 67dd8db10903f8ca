// Keys of the trend page; the help dialog lists them.

import { panned, SPANS, zoomed } from './ranges.js';
import { byId } from './dom.js';

function isTyping(target) {
  return target.closest('input, select, textarea, dialog[open]') !== null;
}

export function listenToKeys(page) {
  const { actions } = page;
  const keys = {
    ArrowLeft: () => page.goTo(panned(page.range(), -0.2)),
    ArrowRight: () => page.goTo(panned(page.range(), 0.2)),
    '+': () => page.goTo(zoomed(page.range(), 0.5)),
    '=': () => page.goTo(zoomed(page.range(), 0.5)),
    '-': () => page.goTo(zoomed(page.range(), 2)),
    ',': () => page.stepCursor(-1),
    '.': () => page.stepCursor(1),
    l: actions.live,
    Home: () => page.setLive(true),
    u: actions.zone,
    s: actions.steps,
    c: actions.csv,
    p: actions.png,
    '?': actions.help,
    '/': () => {
      page.showItems(true);
      byId('search').select();
    },
    Escape: () => {
      if (document.body.classList.contains('items-shown')) page.showItems(false);
      page.showCursor(null);
    },
  };
  SPANS.forEach(({ key }, i) => {
    keys[String(i + 1)] = () => page.setSpan(key);
  });
  document.addEventListener('keydown', (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey || isTyping(event.target)) return;
    const action = keys[event.key];
    if (!action) return;
    event.preventDefault();
    action();
  });
}
