// The chart: lines with a scale each above, lanes of other values below, one axis of time.
//
// All of it is one canvas. The scales leave the lower part of the plot to the strips and lanes, so
// cursor, zoom and image have nothing to keep in step.

import { drawLane, drawStrip, LANE_HEIGHT, STRIP_HEIGHT } from './lanes.js';
import { listenForGestures } from './gestures.js';
import { color } from './theme.js';
import { axisText, valueRange } from './value_scale.js';

const FONT = '12px system-ui, sans-serif';
const MOST_AXES = 3;
const MARK_ROOM = 4; // pixels of the plot for each mark, on average
const MARK_STEP = 11; // pixels between marks

export class Chart {
  // handlers: { select(from, to), zoom(factor, time), pan(part), settle(), cursor(time or null), back() }
  constructor(box, handlers) {
    this.box = box;
    this.handlers = handlers;
    this.series = [];
    this.range = { from: 0, to: 1 };
    this.zone = 'local';
    this.active = null;
    this.plot = null;
    this.shape = '';
    new ResizeObserver(() => this.resize()).observe(box);
  }

  lines() {
    return this.series.filter((series) => series.isLine);
  }
  lanes() {
    return this.series.filter((series) => !series.isLine);
  }
  strips() {
    return this.lines().filter((series) => series.runs.length > 0);
  }

  // series: [{ path, label, colour, isLine, points: {xs, ys}, runs, spells, marks }]
  show(series, range, { zone, active, steps }) {
    this.series = series;
    this.range = range;
    this.zone = zone;
    this.steps = steps;
    this.active = active;
    const shape = this.shapeText();
    if (!this.plot || shape !== this.shape) this.build(shape);
    else this.fill();
  }

  // Moves to another range with the data there are.
  move(range) {
    this.range = range;
    if (this.plot) this.fill();
  }

  // What needs the plot to be built anew when it changes.
  shapeText() {
    const parts = this.lines().map((s) => `${s.path}|${s.colour}`);
    return [parts.join('\n'), this.axisPaths().join('\n'), this.zone, this.steps, color('--text')].join('\f');
  }

  // The items whose axes are shown: the active one first.
  axisPaths() {
    const lines = this.lines().map((s) => s.path);
    const most = this.box.clientWidth < 560 ? 1 : this.box.clientWidth < 900 ? 2 : MOST_AXES;
    const first = lines.includes(this.active) ? [this.active] : [];
    return first.concat(lines.filter((path) => path !== this.active)).slice(0, most);
  }

  reserved() {
    const lanes = this.lanes().length * LANE_HEIGHT;
    const strips = this.strips().length * STRIP_HEIGHT;
    return lanes + strips + (lanes + strips > 0 ? 13 : 0);
  }

  build(shape = this.shapeText()) {
    this.plot?.destroy();
    this.shape = shape;
    this.plot = new uPlot(this.options(), this.data(), this.box);
    this.plot.root.setAttribute('aria-hidden', 'true');
    const over = this.plot.over;
    listenForGestures(over, {
      zoom: (factor, part) => this.handlers.zoom(factor, this.timeAt(part)),
      pan: (part) => this.handlers.pan(part),
      done: () => this.handlers.settle(),
    });
    over.addEventListener('pointerleave', () => this.handlers.cursor(null));
  }

  timeAt(part) {
    return this.range.from + (this.range.to - this.range.from) * part;
  }

  options() {
    const lines = this.lines();
    const scales = { x: { time: true, range: () => [this.range.from, this.range.to] } };
    lines.forEach((_, i) => {
      scales[`y${i}`] = { range: () => this.scaleRange(i) };
    });
    return {
      width: this.box.clientWidth,
      height: this.box.clientHeight,
      ms: 1,
      tzDate: (time) => (this.zone === 'utc' ? uPlot.tzDate(new Date(time), 'Etc/UTC') : new Date(time)),
      padding: [12, this.box.clientWidth < 560 ? 18 : 32, 0, lines.length > 0 ? 0 : this.gutter()],
      legend: { show: false },
      scales,
      series: [{}, ...lines.map((line, i) => this.seriesOptions(line, i))],
      axes: this.axes(lines),
      cursor: this.cursorOptions(),
      hooks: {
        draw: [(plot) => this.drawBelow(plot)],
        setSelect: [(plot) => this.onSelect(plot)],
        setCursor: [(plot) => this.onCursor(plot)],
      },
    };
  }

  gutter() {
    return this.box.clientWidth < 560 ? 62 : 110;
  }

  seriesOptions(line, i) {
    return {
      scale: `y${i}`,
      stroke: line.colour,
      width: line.path === this.active ? 2.25 : 1.5,
      points: { show: (plot, index) => this.showsPoints(plot, index), size: 5, fill: line.colour },
      paths: this.steps || line.isStepped ? uPlot.paths.stepped({ align: 1 }) : uPlot.paths.linear(),
    };
  }

  // Single samples would not be seen as a line.
  showsPoints(plot, index) {
    const line = this.lines()[index - 1];
    return line !== undefined && line.points.xs.length * 12 < plot.over.clientWidth;
  }

  axes(lines) {
    const axisColour = color('--muted');
    const grid = { stroke: color('--grid'), width: 1 };
    const timeAxis = {
      stroke: axisColour,
      font: FONT,
      grid,
      ticks: { stroke: color('--grid'), size: 5, width: 1 },
      space: 80,
      values: timeFormats,
    };
    const shown = this.axisPaths();
    const valueAxes = shown.map((path, place) => {
      const i = lines.findIndex((line) => line.path === path);
      const visible = (plot, splits) => splits.map((v) => (v >= this.floorOf(i) ? v : null));
      return {
        scale: `y${i}`,
        side: 3,
        stroke: lines[i].colour,
        font: FONT,
        size: (plot, values) => this.axisSize(plot, values, shown.length === 1),
        gap: 4,
        space: 36,
        filter: visible,
        values: (plot, splits, _, __, step) => splits.map((v) => (v === null ? '' : axisText(v, step))),
        grid: { ...grid, show: place === 0, filter: visible },
        ticks: { show: false },
      };
    });
    return [timeAxis, ...valueAxes.reverse()];
  }

  axisSize(plot, values, isOnly) {
    const longest = (values ?? []).reduce((most, text) => Math.max(most, (text ?? '').length), 3);
    const wanted = Math.ceil(longest * 7 + 14);
    return isOnly && this.lanes().length > 0 ? Math.max(wanted, this.gutter()) : Math.max(wanted, 46);
  }

  cursorOptions() {
    const zoomsOut = () => (event) => {
      event.preventDefault();
      this.handlers.back();
      return null;
    };
    return {
      y: false,
      drag: { x: true, y: false, setScale: false, dist: 6 },
      points: { size: 8, width: 2 },
      dataIdx: (plot, series, hovered) => {
        const ys = plot.data[series];
        let i = hovered;
        while (i > 0 && ys[i] === undefined) i -= 1;
        return i;
      },
      bind: {
        dblclick: zoomsOut,
        mousedown: (plot, target, handle) => (event) => {
          if (event.button === 0 && !event.shiftKey) handle(event);
          return null;
        },
      },
    };
  }

  data() {
    const lines = this.lines();
    if (lines.length === 0) return [[this.range.from, this.range.to]];
    return uPlot.join(lines.map((line) => [line.points.xs, line.points.ys]));
  }

  fill() {
    this.plot.setData(this.data(), false);
    this.plot.setScale('x', { min: this.range.from, max: this.range.to });
  }

  resize() {
    if (!this.plot || this.box.clientWidth === 0) return;
    if (this.shapeText() !== this.shape) return this.build();
    this.plot.setSize({ width: this.box.clientWidth, height: this.box.clientHeight });
  }

  // The numbers that the line itself takes: [low, high].
  ownRange(i) {
    const line = this.lines()[i];
    return line ? valueRange(line.points.xs, line.points.ys, this.range.from, this.range.to) : [0, 1];
  }
  floorOf(i) {
    return this.ownRange(i)[0];
  }
  // With room below for strips and lanes.
  scaleRange(i) {
    const [low, high] = this.ownRange(i);
    const height = Math.max(60, this.box.clientHeight - 60);
    const below = Math.min(this.reserved(), height * 0.75);
    return [low - ((high - low) * below) / (height - below), high];
  }

  drawBelow(plot) {
    const ratio = uPlot.pxRatio;
    const { left, top, width, height } = plot.bbox;
    const frame = { ctx: plot.ctx, left, width, ratio, toX: (time) => plot.valToPos(time, 'x', true) };
    const lanes = this.lanes();
    let y = top + height - lanes.length * LANE_HEIGHT * ratio;
    lanes.forEach((lane, i) => drawLane(frame, lane.spells, y + i * LANE_HEIGHT * ratio, lane.colour, lane.label));
    const strips = this.strips();
    y -= (strips.length * STRIP_HEIGHT + (lanes.length > 0 ? 3 : 0)) * ratio;
    strips.forEach((line, i) => drawStrip(frame, line.runs, y + i * STRIP_HEIGHT * ratio, line.colour));
    this.lines().forEach((line, i) => this.drawMarks(plot, frame, line, i));
  }

  // Samples that are not good: a ring where the value is uncertain, a cross where it is bad.
  drawMarks(plot, frame, line, i) {
    const { ctx, ratio, left, width } = frame;
    const seen = line.marks.filter(([time]) => time >= this.range.from && time <= this.range.to);
    // Where they would run together, the strip below says it better.
    if (seen.length * MARK_ROOM * ratio > width) return;
    const [low, high] = this.ownRange(i);
    ctx.save();
    ctx.beginPath();
    ctx.rect(left, plot.bbox.top, width, plot.bbox.height);
    ctx.clip();
    ctx.lineWidth = 1.5 * ratio;
    let last = -Infinity;
    for (const [time, value, kind] of seen) {
      const x = frame.toX(time);
      if (x - last < MARK_STEP * ratio) continue;
      last = x;
      const y = plot.valToPos(Math.min(Math.max(value, low), high), `y${i}`, true);
      const r = 3 * ratio;
      ctx.strokeStyle = color(kind === 'bad' ? '--bad' : '--uncertain');
      ctx.beginPath();
      if (kind === 'bad') {
        ctx.moveTo(x - r, y - r);
        ctx.lineTo(x + r, y + r);
        ctx.moveTo(x - r, y + r);
        ctx.lineTo(x + r, y - r);
      } else {
        ctx.arc(x, y, r, 0, 7);
      }
      ctx.stroke();
    }
    ctx.restore();
  }

  onSelect(plot) {
    const { left, width } = plot.select;
    if (width < 6) return;
    const from = plot.posToVal(left, 'x');
    const to = plot.posToVal(left + width, 'x');
    plot.setSelect({ left: 0, width: 0, top: 0, height: 0 }, false);
    this.handlers.select(from, to);
  }

  onCursor(plot) {
    const { left } = plot.cursor;
    this.handlers.cursor(left === undefined || left < 0 ? null : plot.posToVal(left, 'x'));
  }

  // Puts the cursor at a time, as the keyboard does.
  pointAt(time) {
    if (!this.plot) return;
    this.plot.setCursor({ left: this.plot.valToPos(time, 'x'), top: 10 });
  }

  columns() {
    return Math.max(100, this.plot ? this.plot.over.clientWidth : this.box.clientWidth - 80);
  }

  canvas() {
    return this.plot?.ctx.canvas ?? null;
  }
}

// From the largest step down: [step, text, text at a new year, -, day, -, -, ...] of the chart library.
const MS = { second: 1e3, minute: 6e4, hour: 36e5, day: 864e5 };
const timeFormats = [
  [MS.day * 365, '{YYYY}', null, null, null, null, null, null, 1],
  [MS.day * 28, '{MMM}', '\n{YYYY}', null, null, null, null, null, 1],
  [MS.day, '{D} {MMM}', '\n{YYYY}', null, null, null, null, null, 1],
  [MS.hour, '{HH}:{mm}', '\n{D} {MMM} {YYYY}', null, '\n{D} {MMM}', null, null, null, 1],
  [MS.minute, '{HH}:{mm}', '\n{D} {MMM} {YYYY}', null, '\n{D} {MMM}', null, null, null, 1],
  [MS.second, '{HH}:{mm}:{ss}', '\n{D} {MMM} {YYYY}', null, '\n{D} {MMM}', null, null, null, 1],
  [1, ':{ss}.{fff}', '\n{D} {MMM} {YYYY} {HH}:{mm}', null, '\n{D} {MMM} {HH}:{mm}', null, '\n{HH}:{mm}', null, 1],
];
