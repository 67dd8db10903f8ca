// Why the chart is empty, and what can be done.

import { element } from './dom.js';
import { zoomed } from './ranges.js';
import { lengthText, timeText } from './time_text.js';

const NOTHING_CHOSEN = {
  title: 'Choose items to see their history.',
  text: 'Pick up to twelve in the list; type parts of their names to find them.',
};
const NOT_THERE = {
  title: 'None of these items is here.',
  text: 'The host has no such items, or does not archive them. Others are in the list.',
};
const NO_HISTORY = {
  title: 'There is no history yet.',
  text: 'Nothing of these items was archived so far. New values appear here by themselves while the page follows them.',
};

// The note for a range without samples; null when a value from before is held there.
function noteOfEnds(ends, view, range) {
  if (ends.from <= range.to && ends.to >= range.from) return null;
  const isBefore = ends.to < range.from;
  const time = isBefore ? ends.to : ends.from;
  const away = lengthText(isBefore ? range.from - time : time - range.to);
  const there = { from: time - view.span * (isBefore ? 0.9 : 0.1), to: time + view.span * (isBefore ? 0.1 : 0.9) };
  return {
    title: 'Nothing was archived in this range.',
    text: `The ${isBefore ? 'newest' : 'oldest'} sample is from ${timeText(time, view.zone)}, ${away} ${isBefore ? 'earlier' : 'later'}.`,
    ways: [
      ['Go there', there],
      ['Show all there is', zoomed(ends, 1.05)],
    ],
  };
}

// { title, text, ways: [[label, range]...] }, or null when there is something to see. A way to
// "items" opens the list, one to "live" follows the newest values.
export async function emptyNote(data, view, range, signal) {
  if (view.items.length === 0) return { ...NOTHING_CHOSEN, ways: [['Choose items', 'items']] };
  if (data.hasSamplesIn(range)) return null;
  if ([...data.entries.values()].every((entry) => entry.missing)) return { ...NOT_THERE, ways: [['Choose items', 'items']] };
  const ends = await data.ends(view.items, signal);
  if (ends !== null) return noteOfEnds(ends, view, range);
  return { ...NO_HISTORY, ways: view.live ? [] : [['Follow new values', 'live']] };
}

// go(way) does what a button says.
export function showEmptyNote(box, note, go) {
  box.hidden = note === null;
  if (note === null) return;
  const buttons = note.ways.map(([label, way]) => {
    const kind = way === 'items' ? 'button.narrow' : 'button';
    return element(kind, { type: 'button', onclick: () => go(way) }, label);
  });
  box.replaceChildren(element('h2', {}, note.title), element('p', {}, note.text), ...buttons);
}
