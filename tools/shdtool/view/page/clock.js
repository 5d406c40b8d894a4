// The one clock of all strips and lanes: which time is shown, whether it follows the hub, where the
// cursor stands. Lanes and strips read it; pointer, wheel and keys move it.

const LEAST_US = 500;
const MOST_US = 86_400e6;
const LAG_US = 150e3;  // shown so far behind the hub, that what is on its way has arrived

export class Clock {
  constructor() {
    Object.assign(this, {from: 0, to: 30e6, follow: true, cursor: null, held: false, mark: null, version: 0});
    this.heard = {at: 0, now: 0};
    this.shown = 0;
  }

  get span() { return this.to - this.from; }

  // The hub's clock was this just now.
  hear(now) { this.heard = {at: performance.now(), now}; }

  // Follows the hub, but never further than it was heard of: a dead link makes time stand still.
  step(store) {
    if (!this.follow) return;
    let to = store.now;
    if (store.hello.live) {
      to = this.heard.now + Math.min((performance.now() - this.heard.at) * 1000, 250e3) - LAG_US;
      to = Math.max(to, this.shown);
    }
    this.shown = to;
    if (to !== this.to) this.set(to - this.span, to, true);
  }

  set(from, to, follow = false) {
    const span = Math.min(Math.max(to - from, LEAST_US), MOST_US);
    Object.assign(this, {from: to - span, to, follow});
    ++this.version;
  }

  // By a factor, around a time that stays where it is.
  zoom(factor, around = this.cursor ?? (this.follow ? this.to : (this.from + this.to) / 2)) {
    const span = Math.min(Math.max(this.span * factor, LEAST_US), MOST_US);
    if (this.follow) return this.set(this.to - span, this.to, true);
    const share = (around - this.from) / this.span;
    this.set(around - span * share, around + span * (1 - share));
  }

  pan(share) { this.set(this.from + this.span * share, this.to + this.span * share); }

  // Shows this time, with a quarter of the window behind it.
  show(from, to = from) {
    const span = Math.max(this.span, (to - from) * 1.5);
    if (from < this.from || to > this.to) this.set(from - span / 4, from + span * 3 / 4);
    this.point(from, true);
  }

  // All that is kept.
  fit(store) {
    if (!Number.isFinite(store.first)) return;
    const rim = Math.max((store.now - store.first) * 0.01, LEAST_US);
    this.set(store.first - rim, store.now + rim, store.hello.live);
  }

  // Follows the hub; a cursor that was held is left behind.
  live() {
    this.shown = 0;
    this.follow = true;
    this.point(null);
  }

  pause() {
    this.follow = false;
    ++this.version;
  }

  // held: by a key or a click; a pointer that leaves does not take it away.
  point(t, held = false) {
    this.cursor = t;
    this.held = held && t !== null;
    ++this.version;
  }

  x(t, width) { return (t - this.from) / this.span * width; }
  t(x, width) { return this.from + x / width * this.span; }
}
