// Strips: curves over the common clock, drawn with dygraphs. One a sensor, one for the line's load,
// one for the latency. Rows are decimated to pixels, gaps and silence are shaded by their cause.
/* global Dygraph */
import {bytesPerSecond, colour, duration, element, lostWords, number, setText} from './format.js';

const MOST_ROWS_A_PIXEL = 0.5;
const CAPACITY = 11520;
const BLOCK_ALPHA = {bad: 0.16, grid: 0.16, lost: 0.35, perhaps: 0.12};

Dygraph.PLUGINS.length = 0;  // axes and legend are drawn here, on the canvas

// Rows for dygraphs of a ring's part in [from, to], at most about half a row a pixel; between two
// rows with a gap an empty one. Also finds the least and the greatest value.
function rowsOf(ring, clock, pixels, gaps, plotted) {
  let at = Math.max(ring.find(clock.from) - 1, ring.from);
  const to = Math.min(ring.find(clock.to) + 1, ring.to);
  const {width, time, value} = ring;
  const rows = [];
  let least = Infinity, most = -Infinity, gap = gaps.next().value;
  const leave = before => {  // true when a gap lies between the last row and this one
    let left = false;
    while (gap && gap.t < before) {
      left ||= !gap.late;
      if (gap.e > before) break;
      gap = gaps.next().value;
    }
    return left;
  };
  const see = (number, i) => {
    if (plotted[i] && number < least) least = number;
    if (plotted[i] && number > most) most = number;
    return number;
  };
  // Steps stand still on the clock, so that curves do not shimmer while they move.
  const step = to - at > pixels * 2 * MOST_ROWS_A_PIXEL
    ? 2 ** Math.ceil(Math.log2(clock.span / (pixels * MOST_ROWS_A_PIXEL))) : 0;
  while (at < to) {
    if (leave(time[at]) && rows.length) rows.push([time[at] - 1, ...Array(width).fill(null)]);
    if (!step) {
      const row = [time[at]];
      for (let i = 0; i < width; ++i) row.push(see(value[at * width + i], i));
      rows.push(row);
      ++at;
      continue;
    }
    const end = Math.min((Math.floor(time[at] / step) + 1) * step, gap && gap.t >= time[at] && !gap.late ? gap.t + 1 : Infinity);
    const first = [time[at]], second = [0];
    let next = at + 1;
    while (next < to && time[next] < end) ++next;
    for (let i = 0; i < width; ++i) {
      let low = Infinity, high = -Infinity;
      for (let k = at; k < next; ++k) {
        const v = value[k * width + i];
        if (v < low) low = v;
        if (v > high) high = v;
      }
      if (low > high) low = high = NaN;
      // In the order in which they came, roughly: the curve goes on from there.
      const rises = value[at * width + i] <= value[(next - 1) * width + i];
      first.push(see(rises ? low : high, i));
      second.push(see(rises ? high : low, i));
    }
    rows.push(first);
    if (next > at + 1) {
      second[0] = time[next - 1];
      rows.push(second);
    }
    at = next;
  }
  return {rows, least, most};
}

// Round steps of about a third of the range.
function ticks(low, high) {
  const rough = (high - low) / 2.5;
  const power = 10 ** Math.floor(Math.log10(rough));
  const step = [1, 2, 5, 10].map(f => f * power).find(s => s >= rough) ?? rough;
  const all = [];
  for (let t = Math.ceil(low / step) * step; t <= high; t += step) all.push(Math.abs(t) < step / 1e6 ? 0 : t);
  return all;
}

// What strips of all kinds share. A kind gives ring(), gaps(), shade() and tell().
class Strip {
  constructor(scope, name, labels, options = {}) {
    Object.assign(this, {scope, range: [0, 1], drawn: ''});
    this.name = element('b', {textContent: name});
    this.facts = element('span', {className: 'facts'});
    this.values = element('span', {className: 'values'});
    this.plot = element('div', {className: 'plot', role: 'img', ariaLabel: name});
    this.row = element('section', {className: `strip ${options.kind ?? ''}`, ariaLabel: name},
      element('div', {className: 'label'}, this.name, this.facts, this.values), this.plot);
    this.labels = labels;
    this.options = options;
    this.plotted = options.plotted ?? labels.map(() => true);
    this.tags = labels.map((label, i) => {
      const tag = element('i', {className: `axis${i}`});
      this.values.append(tag);
      return tag;
    });
  }

  // The canvas can only be made once the row has its size.
  attach(parent) {
    parent.append(this.row);
    this.graph = new Dygraph(this.plot, [[0, ...this.labels.map(() => 0)]], {
      labels: ['t', ...this.labels], visibility: this.plotted, interactionModel: {}, legend: 'never', pointSize: 1.2,
      strokeWidth: 1, highlightCircleSize: 0, connectSeparatedPoints: false,
      axes: {x: {drawAxis: false, ticker: () => []}, y: {drawAxis: false, ticker: () => []}},
      xRangePad: 0, yRangePad: 0, rightGap: 0, underlayCallback: (...args) => this.underlay(...args), ...this.options.graph,
    });
    this.recolour();
    this.watch = new ResizeObserver(() => this.plot.clientWidth && this.graph.resize());
    this.watch.observe(this.plot);
  }

  remove() {
    this.watch?.disconnect();
    this.graph?.destroy();
    this.row.remove();
  }

  recolour() {
    const names = this.options.colours ?? ['axis0', 'axis1', 'axis2', 'axis3'];
    this.graph?.updateOptions({colors: this.labels.map((_, i) => colour[names[i]])}, true);
  }

  draw() {
    const {clock} = this.scope;
    const width = this.plot.clientWidth;
    if (!width) return;
    const {rows, least, most} = rowsOf(this.ring(), clock, width, this.gaps(), this.plotted);
    this.#fitRange(least, most);
    if (!rows.length) rows.push([clock.from, ...this.labels.map(() => null)]);
    this.graph.updateOptions({file: rows, dateWindow: [clock.from, clock.to], valueRange: this.range});
  }

  // Grows at once and shrinks only when much of it is unused: a scale that moves cannot be read.
  #fitRange(least, most) {
    if (this.options.range) return void (this.range = this.options.range(most));
    if (least > most) return;
    const size = Math.max(most - least, Math.abs(most) * 1e-4, 1e-3);
    const [low, high] = this.range;
    if (least >= low && most <= high && size > (high - low) * 0.35 && this.seen) return;
    this.seen = true;
    this.range = [least - size * 0.15, most + size * 0.15];
  }

  underlay(ctx, area) {
    const {clock} = this.scope;
    const x = t => area.x + clock.x(t, area.w);
    const y = v => area.y + area.h * (1 - (v - this.range[0]) / (this.range[1] - this.range[0]));
    ctx.font = '10px system-ui, sans-serif';
    ctx.textBaseline = 'middle';
    for (const tick of ticks(...this.range)) {
      ctx.fillStyle = colour.grid;
      ctx.fillRect(area.x, Math.round(y(tick)), area.w, 1);
    }
    this.shade(ctx, area, x, y);
    for (const span of this.scope.store.lost.within(clock.from, clock.to)) if (span.cause !== 'file' || this.options.kind !== 'load') this.block(ctx, area, x(span.t), x(span.e ?? this.scope.now()), span.cause === 'perhaps' ? 'perhaps' : 'lost', lostWords[span.cause]);
    ctx.fillStyle = colour.faint;
    ctx.textAlign = 'left';
    let below = Infinity;
    for (const tick of ticks(...this.range)) {
      const at = y(tick) > area.y + 12 ? y(tick) - 6 : y(tick) + 7;
      if (below - at < 11) continue;
      below = at;
      ctx.fillText(this.options.tick?.(tick) ?? String(+tick.toPrecision(6)), area.x + 3, at);
    }
  }

  // A shaded block of time, with words when there is room.
  block(ctx, area, from, to, kind, words) {
    from = Math.max(from, area.x);
    to = Math.min(to, area.x + area.w);
    if (to < from) return;
    ctx.globalAlpha = BLOCK_ALPHA[kind];
    ctx.fillStyle = colour[kind] ?? colour.lost;
    ctx.fillRect(from, area.y, Math.max(to - from, 1), area.h);
    ctx.globalAlpha = 1;
    if (to - from < 14) return;
    ctx.fillStyle = {bad: colour.bad, lost: colour.ink}[kind] ?? colour.faint;
    ctx.textAlign = 'center';
    const texts = [words].flat();
    const text = texts.find(one => ctx.measureText(one).width < to - from - 6);
    if (text) ctx.fillText(text, (from + to) / 2, area.y + area.h / 2);
  }

  shade() {}

  // The row that holds at t, -1: none.
  rowAt(t) {
    const ring = this.ring();
    const at = ring.find(t + 1) - 1;
    return at >= ring.from ? at : -1;
  }

  showValues(t, texts) {
    const at = this.rowAt(t);
    const ring = this.ring();
    texts(at < 0 ? null : [...ring.value.subarray(at * ring.width, (at + 1) * ring.width)], at < 0 ? null : ring.time[at])
      .forEach((text, i) => this.tags[i] && setText(this.tags[i], text));
  }
}

// A value without a unit beside one that has a unit is a code or a date: it is told and not drawn. Of
// a sensor without values only is drawn that there was a sample.
export class SensorStrip extends Strip {
  constructor(scope, sensor) {
    const measured = sensor.axes.some(axis => axis.unit);
    const bare = sensor.axes.length === 0;
    super(scope, sensor.name, bare ? ['event'] : sensor.axes.map(axis => axis.name), {
      kind: 'sensor', plotted: bare ? [true] : sensor.axes.map(axis => !measured || Boolean(axis.unit)),
      ...bare && {range: () => [-1, 1], tick: () => ''},
      graph: sensor.periodic ? {} : {drawPoints: true, pointSize: 2, strokeWidth: bare ? 0 : 1},
    });
    this.sensor = sensor;
    const units = [...new Set(sensor.axes.map(axis => axis.unit).filter(Boolean))];
    this.unit = units.length === 1 ? units[0] : '';
    this.name.append(element('small', {textContent: this.unit ? ` ${this.unit}` : ''}));
  }

  ring() { return this.sensor.samples; }
  gaps() { return this.sensor.gaps.within(this.scope.clock.from, this.scope.clock.to); }

  shade(ctx, area, x) {
    const {clock, store} = this.scope;
    for (const gap of store.gapsOf(this.sensor, clock.from, clock.to)) {
      const time = duration(gap.e - gap.t);
      if (gap.off) {
        if (!this.sensor.periodic) continue;
        this.block(ctx, area, x(gap.t), x(gap.e), 'grid', [`off for ${time}`, 'off']);
        continue;
      }
      this.block(ctx, area, x(gap.t), x(gap.e), 'bad', gap.missing === null ? [`SILENT for ${time}`, time]
        : [`${gap.missing} samples missing in ${time}`, `−${gap.missing}`]);
    }
    ctx.fillStyle = colour.accent;
    for (const flush of this.sensor.flushes.within(clock.from, clock.to)) ctx.fillRect(x(flush.t), area.y + area.h - 7, 2, 7);
    const quiet = this.quiet();
    if (!quiet) return;
    const from = Math.max(this.sensor.samples.last, this.sensor.since);
    if (from < clock.to) this.block(ctx, area, x(from), x(this.scope.now()), 'bad', [`SILENT for ${duration(quiet)}`, `SILENT ${duration(quiet)}`, 'SILENT']);
  }

  // Behind the recordings of events nobody knows whether it was silent.
  quiet() {
    const now = this.scope.now();
    return this.scope.dead() || this.scope.store.lostWithin(now, now)?.cause === 'file' ? 0 : this.sensor.quiet(now);
  }

  tell(t) {
    const {sensor, scope} = this;
    const now = scope.now(), quiet = this.quiet();
    const rate = sensor.periodic ? sensor.rate(t) : null;
    const parts = [];
    if (!sensor.on) parts.push('off');
    else if (quiet && t >= now - 1e6) parts.push(`SILENT ${duration(quiet)}${sensor.asked || scope.store.hello.line ? '' : ' or switched off elsewhere'}`);
    else if (rate) parts.push(`${rate.hz.toFixed(2)} Hz`, `jitter ${rate.jitter.toFixed(2)} ms`);
    if (sensor.on && sensor.asked) parts.push(`asked ${+(1e6 / sensor.asked.period_us).toFixed(2)} × ${Math.max(sensor.asked.batch, 1)}`);
    if (sensor.periodic && sensor.on && !quiet) parts.push(`latency ${duration(sensor.latency)}`);
    if (sensor.samples.thinned > 1) parts.push(`thinned 1:${sensor.samples.thinned}`);
    setText(this.facts, parts.join(' · '));
    this.row.classList.toggle('quiet', quiet > 0);
    this.showValues(t, values => sensor.axes.map((axis, i) =>
      `${axis.name} ${values ? number(values[i]) : '–'}${this.unit ? '' : axis.unit ? ` ${axis.unit}` : ''}`));
  }
}

export class LoadStrip extends Strip {
  constructor(scope) {
    super(scope, 'line load', ['from the MCU', 'to the MCU'], {
      kind: 'load', colours: ['from', 'to'], tick: t => (t >= 1000 ? `${t / 1000} kB/s` : `${t}`),
      range: most => [0, most > CAPACITY * 0.3 ? CAPACITY * 1.12 : Math.max(most * 1.3, 1000)], graph: {stepPlot: true},
    });
  }

  ring() { return this.scope.store.load; }
  gaps() { return [][Symbol.iterator](); }

  shade(ctx, area, x, y) {
    const top = y(CAPACITY);
    if (top < area.y) return;
    ctx.fillStyle = colour.bad;
    ctx.fillRect(area.x, Math.round(top), area.w, 1);
    ctx.textAlign = 'right';
    ctx.fillText('full: 11,520 B/s', area.x + area.w - 4, top + 7);
  }

  tell(t) {
    const {store} = this.scope;
    setText(this.facts, store.load.length === 0 ? '' : store.measured ? 'of 11,520 B/s each way' : 'estimated from the events: no bytes of the line here');
    this.showValues(t, values => [
      `from ${bytesPerSecond(values?.[0])}${values ? ` ${(values[0] / CAPACITY * 100).toFixed(0)} %` : ''}`, `to ${bytesPerSecond(values?.[1])}`]);
  }
}

export class LatencyStrip extends Strip {
  constructor(scope) {
    super(scope, 'latency', ['newest', 'oldest'], {
      kind: 'latency', colours: ['to', 'from'], tick: t => `${t} ms`,
      range: most => [0, most > 0 ? niceTop(most) : 10],
    });
    setText(this.facts, 'from sample to arrival');
  }

  ring() { return this.scope.store.latency; }
  gaps() { return [][Symbol.iterator](); }

  tell(t) {
    this.showValues(t, values => [`least ${values ? duration(values[0] * 1000) : '–'}`, `most ${values ? duration(values[1] * 1000) : '–'}`]);
  }
}

// The next of 1, 2, 5, 10, ... above a value and some room.
function niceTop(most) {
  const power = 10 ** Math.floor(Math.log10(most * 1.1));
  return [1, 2, 5, 10].map(f => f * power).find(top => top >= most * 1.1);
}
