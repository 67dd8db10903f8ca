// Draws lanes: the spells of items without numbers, and the strips that show where a line's quality
// is not good.

import { color } from './theme.js';

export const LANE_HEIGHT = 26;
export const STRIP_HEIGHT = 7;

export function valueText(value) {
  if (value === null) return 'no value';
  if (typeof value === 'boolean') return value ? 'on' : 'off';
  if (value === '') return 'empty';
  return typeof value === 'object' ? JSON.stringify(value) : String(value);
}

// Equal texts have equal shades, neighbours differ.
function shadeOf(text) {
  let hash = 0;
  for (const c of text) hash = (hash * 31 + c.codePointAt(0)) >>> 0;
  return 0.16 + (hash % 5) * 0.09;
}

function drawText(ctx, text, x, y, room) {
  if (room < 18) return;
  let shown = text;
  if (ctx.measureText(shown).width > room) {
    while (shown.length > 1 && ctx.measureText(`${shown}…`).width > room) shown = shown.slice(0, -1);
    shown = shown.length > 1 ? `${shown}…` : '';
  }
  ctx.fillText(shown, x, y);
}

function hatch(ctx, x, y, width, height, colour, ratio) {
  ctx.save();
  ctx.beginPath();
  ctx.rect(x, y, width, height);
  ctx.clip();
  ctx.strokeStyle = colour;
  ctx.lineWidth = ratio;
  ctx.beginPath();
  for (let at = x - height; at < x + width; at += 6 * ratio) {
    ctx.moveTo(at, y + height);
    ctx.lineTo(at + height, y);
  }
  ctx.stroke();
  ctx.restore();
}

// frame: { ctx, left, width, toX, ratio }, all in pixels of the canvas.
function drawSpell(frame, spell, x, width, top, height, colour) {
  const { ctx, ratio } = frame;
  const isBad = spell.severity === 'bad';
  const text = isBad ? 'bad' : valueText(spell.value);
  const isOff = spell.value === false && !isBad;
  ctx.globalAlpha = isBad ? 0.14 : isOff ? 0.1 : typeof spell.value === 'boolean' ? 0.55 : shadeOf(text);
  ctx.fillStyle = isBad ? color('--bad') : colour;
  if (isOff) ctx.fillRect(x, top + height - 3 * ratio, width, 3 * ratio);
  else ctx.fillRect(x, top, width, height);
  ctx.globalAlpha = 1;
  if (isBad) hatch(ctx, x, top, width, height, color('--bad'), ratio);
  if (spell.severity === 'uncertain') {
    ctx.fillStyle = color('--uncertain');
    ctx.fillRect(x, top, width, 3 * ratio);
  }
  // The edge where the value changed.
  ctx.fillStyle = isBad ? color('--bad') : colour;
  if (width > 2 * ratio) ctx.fillRect(x, top, ratio, height);
  ctx.fillStyle = color('--text');
  if (!isOff) drawText(ctx, text, x + 5 * ratio, top + height / 2, width - 9 * ratio);
}

export function drawLane(frame, spells, top, colour, label) {
  const { ctx, left, width, toX, ratio } = frame;
  const height = (LANE_HEIGHT - 6) * ratio;
  const y = top + 3 * ratio;
  ctx.save();
  ctx.font = `${11 * ratio}px system-ui, sans-serif`;
  ctx.textBaseline = 'middle';
  ctx.textAlign = 'right';
  ctx.fillStyle = colour;
  const room = left - 12 * ratio;
  if (room > 30 * ratio) drawText(ctx, label, left - 8 * ratio, y + height / 2, room);
  ctx.textAlign = 'left';
  ctx.fillStyle = color('--grid');
  ctx.fillRect(left, top, width, ratio);
  ctx.beginPath();
  ctx.rect(left, top, width, LANE_HEIGHT * ratio);
  ctx.clip();
  for (const spell of spells) {
    const x = Math.max(toX(spell.from), left - 2 * ratio);
    const end = Math.min(toX(spell.to), left + width + 2 * ratio);
    if (end < left || x > left + width) continue;
    drawSpell(frame, spell, x, Math.max(end - x, 1.5 * ratio), y, height, colour);
  }
  ctx.restore();
}

export function drawStrip(frame, runs, top, colour) {
  const { ctx, left, width, toX, ratio } = frame;
  ctx.save();
  ctx.fillStyle = colour;
  ctx.beginPath();
  ctx.arc(left - 5 * ratio, top + (STRIP_HEIGHT / 2) * ratio, 2.5 * ratio, 0, 7);
  ctx.fill();
  ctx.beginPath();
  ctx.rect(left, top, width, STRIP_HEIGHT * ratio);
  ctx.clip();
  for (const run of runs) {
    const x = toX(run.from);
    ctx.fillStyle = color(run.severity === 'bad' ? '--bad' : '--uncertain');
    ctx.fillRect(x, top + ratio, Math.max(toX(run.to) - x, 2 * ratio), (STRIP_HEIGHT - 2) * ratio);
  }
  ctx.restore();
}
