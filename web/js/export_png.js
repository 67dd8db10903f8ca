// What the page shows as an image: a title, the chart, and a legend.

import { color } from './theme.js';

const MARGIN = 20;

function line(ctx, text, x, y, { font, fill, most }) {
  ctx.font = font;
  ctx.fillStyle = fill;
  ctx.fillText(text, x, y, most);
}

// rows: [{ colour, path, text }]. A blob.
export function chartImage(chart, { title, subtitle, rows }) {
  const ratio = window.devicePixelRatio || 1;
  const width = chart.width / ratio;
  const height = chart.height / ratio;
  const legendTop = MARGIN + 48 + height;
  const canvas = document.createElement('canvas');
  canvas.width = Math.round((width + 2 * MARGIN) * ratio);
  canvas.height = Math.round((legendTop + 14 + rows.length * 20 + MARGIN) * ratio);
  const ctx = canvas.getContext('2d');
  ctx.scale(ratio, ratio);
  ctx.fillStyle = color('--surface');
  ctx.fillRect(0, 0, canvas.width, canvas.height);
  ctx.textBaseline = 'top';
  const small = '12px system-ui, sans-serif';
  line(ctx, title, MARGIN, MARGIN, { font: '600 16px system-ui, sans-serif', fill: color('--text'), most: width });
  line(ctx, subtitle, MARGIN, MARGIN + 22, { font: small, fill: color('--muted'), most: width });
  ctx.drawImage(chart, MARGIN, MARGIN + 48, width, height);
  rows.forEach((row, i) => {
    const y = legendTop + 14 + i * 20;
    ctx.fillStyle = row.colour;
    ctx.fillRect(MARGIN, y + 2, 10, 10);
    line(ctx, `${row.path}   ${row.text}`, MARGIN + 18, y, { font: small, fill: color('--text'), most: width - 18 });
  });
  return new Promise((resolve) => canvas.toBlob(resolve, 'image/png'));
}

export function saveAs(blob, name) {
  const link = document.createElement('a');
  link.href = URL.createObjectURL(blob);
  link.download = name;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 10_000);
}
