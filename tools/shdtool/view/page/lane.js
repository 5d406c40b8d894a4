// A lane: a canvas on the common clock with a label beside it, that can be pointed at and walked
// along. The base of the lanes.
import {colour, element} from './format.js';

const NEAR_PX = 7;
const FONT = '11px system-ui, sans-serif';

export class Lane {
  constructor(scope, name, height, hint = '') {
    Object.assign(this, {scope, height, nameText: name});
    this.canvas = element('canvas', {className: 'lane', tabIndex: 0, role: 'img', ariaLabel: name, title: hint});
    this.facts = element('span', {className: 'facts'});
    this.label = element('div', {className: 'label'}, element('b', {textContent: name}), this.facts);
    this.row = element('section', {className: 'lane', ariaLabel: name}, this.label, this.canvas);
    this.context = this.canvas.getContext('2d');
    this.canvas.lane = this;
  }

  attach(parent) {
    parent.append(this.row);
    this.watch = new ResizeObserver(() => this.resize());
    this.watch.observe(this.canvas);
    this.resize();
  }

  resize() {
    const scale = devicePixelRatio;
    this.canvas.style.height = `${this.height}px`;
    this.width = this.canvas.clientWidth;
    this.canvas.width = this.width * scale;
    this.canvas.height = this.height * scale;
    this.context.setTransform(scale, 0, 0, scale, 0, 0);
    this.scope.changed();
  }

  draw() {
    const {context: ctx, width, height} = this;
    if (!width) return;
    const {clock, store} = this.scope;
    ctx.clearRect(0, 0, width, height);
    ctx.font = FONT;
    ctx.textBaseline = 'middle';
    this.used = [];
    for (const span of store.lost.within(clock.from, clock.to)) {
      if (span.cause === 'file') continue; // of the strips alone
      ctx.globalAlpha = span.cause === 'perhaps' ? 0.12 : 0.35;
      this.box(colour.lost, span.t, span.e ?? this.scope.now(), 0, height);
      ctx.globalAlpha = 1;
    }
    this.paint(ctx, t => clock.x(t, width), clock, store);
  }

  box(fill, from, to, top, height, least = 1) {
    const {clock} = this.scope;
    const x = Math.max(clock.x(from, this.width), -2);
    const end = Math.min(clock.x(to, this.width), this.width + 2);
    if (end < -1 || x > this.width + 1) return;
    this.context.fillStyle = fill;
    this.context.fillRect(x, top, Math.max(end - x, least), height);
  }

  // Writes a text at x where nothing stands yet; of several, the first that has room: between x and
  // until, or where none is given, anywhere near x. True: written.
  write(texts, x, y, fill, until = null) {
    const {context: ctx} = this;
    const taken = this.used.filter(used => Math.abs(used.y - y) < 10);
    for (const text of [texts].flat()) {
      const width = ctx.measureText(text).width;
      const at = Math.max(2, until === null ? Math.min(x, this.width - width - 2) : x);
      if (until !== null && at + width > until) continue;
      if (taken.some(used => at < used.to + 6 && at + width > used.from - 6)) continue;
      ctx.fillStyle = fill;
      ctx.textAlign = 'left';
      ctx.fillText(text, at, y);
      this.used.push({from: at, to: at + width, y});
      return true;
    }
    return false;
  }

  absent(ctx, text, fill = colour.faint) {
    ctx.fillStyle = fill;
    ctx.textAlign = 'left';
    ctx.fillText(text, 4, this.height / 2, this.width - 8);
  }

  // Things that can be picked, in order of time.
  rings() { return []; }

  // The thing nearest to a place, of those near enough.
  near(x, y) {
    const {clock} = this.scope;
    const reach = clock.span * NEAR_PX / this.width;
    const t = clock.t(x, this.width);
    let best = null, least = Infinity;
    for (const ring of this.rings(y)) {
      for (const item of ring.within(t - reach, t + reach)) {
        const end = item.e === null ? this.scope.now() : item.e ?? item.t;
        // Of those below the pointer, the shorter: it could not be met otherwise.
        const far = t < item.t ? item.t - t : t > end ? t - end : 0;
        const rank = far * 1e3 + (end - item.t) * 1e-3;
        if (rank < least) [best, least] = [item, rank];
      }
    }
    return best;
  }

  // The next thing behind t, or the last before it.
  walk(t, direction) {
    let best = null;
    for (const ring of this.rings(-1)) {
      const at = ring.find(direction > 0 ? t + 1 : t) - (direction > 0 ? 0 : 1);
      const item = ring.all[at];
      if (item && (!best || (item.t - best.t) * direction < 0)) best = item;
    }
    return best;
  }

  tell() {}
}
