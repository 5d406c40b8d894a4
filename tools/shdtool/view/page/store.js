// What the page knows: takes the feed's items and keeps them, bounded, for lanes, strips and lists.
// A live hub's are forgotten after a while; of a recording the whole is kept, thinned where it must.
import {Columns, Items} from './rings.js';

const KEPT_US = 120e6;       // of a live hub
const KEPT_PAUSED_US = 600e6;
const LONG_SPACING = 1.8;    // periods: what is longer is a gap, unless it is made up for
const MANY = 512;             // spacings
const EARLY_SPACING = 0.5;
const PATIENCE = 64;         // samples within which a late one is made up for
const LATENCY_STEP_US = 100e3;
const LATENCY_REST_STEPS = 20;  // with nothing: the curve breaks off
const DUMP_GROWS_US = 10e6;
const QUIET_LEAST_US = 1e6;  // shorter than this, nobody is called silent
const QUIET_DELIVERIES = 3;

const median = values => [...values].sort((a, b) => a - b)[values.length >> 1];

// One sensor: its samples, its gaps, and what its latest ones tell.
class Sensor {
  constructor(about, whole) {
    Object.assign(this, about);
    this.width = Math.max(about.axes.length, 1);
    this.samples = new Columns(this.width, 1 << 18, whole);
    this.gaps = new Items(4000);
    this.flushes = new Items(1000);
    this.asked = null;  // {period_us, batch}, null: nobody told
    this.since = 0;     // a sequence of samples is awaited since then
    this.arrival = -Infinity;
    this.latency = 0;   // of the oldest sample of the latest delivery, us
    this.deliveries = [];
    this.spacings = [];
    this.period = 0;    // as measured
    this.ahead = 0;     // periods by which the samples before came too early
    this.turns = [];    // of a recording, whose files come one behind the other: those to come
    this.open = null;   // gaps that may still be made up for
    this.broken = true;
  }

  // Sensors whose samples follow what happens have no period.
  get on() { return this.asked ? this.asked.period_us > 0 : this.samples.length > 0; }
  get expected() {
    const asked = this.asked?.period_us ?? 0;
    return asked > 0 && (!this.period || Math.abs(this.period / asked - 1) > 0.1) ? asked : this.period;
  }

  // What comes next is a new sequence: the connection or the sensor was off, or has another period.
  restart(t) {
    const last = Math.max(this.samples.last, this.since);
    const silent = this.quiet(t) > 0;
    if (silent) this.gaps.push({t: last, e: t, late: false, missing: null});
    if (!this.broken) this.offSince = silent ? t : last;
    Object.assign(this, {broken: true, open: null, ahead: 0, since: t, spacings: [], period: 0, deliveries: []});
  }

  // At t the connection came or went, or `asked` holds from then on.
  turn({t, asked}) {
    if (asked && this.asked?.period_us === asked.period_us && this.asked.batch === asked.batch) return;
    this.restart(t);
    if (asked) this.asked = asked;
  }

  add(t, arrival, values) {
    const spacing = t - this.samples.last;
    if (this.periodic && !this.broken && spacing > 0) this.measure(this.samples.last, spacing);
    if (this.broken && this.samples.length) this.gaps.push({t: this.offSince, e: t, off: true});
    const wait = arrival - this.arrival;
    if (wait > Math.max(spacing / 2, 0)) {
      if (!this.broken && this.deliveries.push(wait) > 15) this.deliveries.shift();
      this.latency = arrival - t;
    }
    this.samples.push(t, this.axes.length ? values : [0]);
    this.arrival = arrival;
    this.broken = false;
  }

  measure(from, spacing) {
    const period = this.expected;
    if (period > 0) {
      let periods = spacing / period;
      // One that came early is followed by one that seems late.
      if (!this.open && periods < EARLY_SPACING) {
        this.ahead += 1 - periods;
        periods = 1;
      } else {
        periods -= this.ahead;
        this.ahead = 0;
      }
      if (periods > LONG_SPACING) this.addGap(from, from + spacing, Math.max(Math.round(periods - 1), 1));
      if (this.open) this.follow(this.open, periods);
    }
    this.spacings.push(spacing);
    this.learn();
  }

  // The period: of what was asked for, only how far the sensor's own clock is off, which takes many
  // samples; else the median, which gaps do not move.
  learn() {
    const {length} = this.spacings;
    if (!this.asked && (length === 32 || (!this.period && length === 8))) this.period = median(this.spacings);
    if (length === MANY) this.period = this.spacings.reduce((sum, one) => sum + one, 0) / MANY;
    if (length === (this.asked ? MANY : 32)) this.spacings = [];
  }

  addGap(t, e, missing) {
    this.open ??= {lag: 0, worst: 0, gaps: []};
    this.open.left = PATIENCE;
    const last = this.open.gaps.at(-1);
    if (last?.e === t) {
      last.e = e;
      last.missing += missing;
      return this.gaps.grow(last);
    }
    const gap = {t, e, missing, late: false};
    this.open.gaps.push(gap);
    this.gaps.push(gap);
  }

  // Samples that come too early behind gaps make up for them: those were late, and nothing is missing,
  // or less.
  follow(run, periods) {
    run.lag += periods - 1;
    run.worst = Math.max(run.worst, run.lag);
    const inStep = run.lag < Math.max(0.5, run.worst / 20);
    if (!inStep && (periods > LONG_SPACING || --run.left > 0)) return;
    this.open = null;
    const presumed = inStep ? 0 : run.lag;
    const told = run.gaps.reduce((sum, gap) => sum + gap.missing, 0);
    for (const gap of run.gaps) {
      gap.missing = Math.round(gap.missing * Math.min(presumed / told, 1));
      gap.late = gap.missing === 0;
    }
  }

  // How long nothing has come, when that is too long for it.
  quiet(now) {
    if (!this.on || !this.periodic) return 0;
    const usual = Math.max((this.asked?.period_us ?? 0) * Math.max(this.asked?.batch ?? 1, 1),
      this.deliveries.length ? median(this.deliveries) : 0);
    const silence = now - Math.max(this.arrival, this.since);
    return usual > 0 && silence > Math.max(QUIET_LEAST_US, usual * QUIET_DELIVERIES) ? silence : 0;
  }

  // Of 5 s up to t: samples a second while it was on, in Hz, and the standard deviation of their
  // spacings in ms, gaps left out.
  rate(t) {
    const {time} = this.samples;
    const to = this.samples.find(t + 1), from = Math.max(this.samples.find(t - 5e6), to - 4000);
    if (to - from < 3) return null;
    let whole = time[to - 1] - time[from], spacings = to - 1 - from;
    for (const gap of this.gaps.within(time[from], time[to - 1])) {
      if (gap.t < time[from] || (!gap.off && gap.missing !== null)) continue;
      whole -= gap.e - gap.t;
      if (gap.off) --spacings;
    }
    let count = 0, sum = 0, squares = 0;
    for (let i = from + 1; i < to; ++i) {
      const spacing = time[i] - time[i - 1];
      if (this.expected && spacing > LONG_SPACING * this.expected) continue;
      ++count;
      sum += spacing;
      squares += spacing * spacing;
    }
    const mean = sum / count;
    return whole > 0 && count > 1 ? {hz: spacings * 1e6 / whole, jitter: Math.sqrt(Math.max(0, squares / count - mean * mean)) / 1000} : null;
  }
}

export class Store {
  constructor() { this.start({sensors: [], live: true, now: 0}); }

  // A new picture: the server begins with the whole that it keeps.
  start(hello) {
    const whole = !hello.live;
    const many = whole ? 400e3 : 100e3;
    Object.assign(this, {
      hello, whole, version: (this.version ?? 0) + 1, items: 0,
      first: Infinity, now: hello.now ?? 0, forgotAt: 0, up: null,
      sensors: new Map(hello.sensors.map(s => [s.h, new Sensor({periodic: true, ...s}, whole)])),
      states: new Items(4000), episodes: new Items(2000), log: new Items(whole ? 50e3 : 5000),
      frames: new Items(many), pins: new Items(10e3), exchanges: new Items(many), dumps: new Items(200),
      lost: new Items(2000),  // spans that this page cannot know of, with their cause
      load: new Columns(2, 1 << 16, whole), latency: new Columns(2, 1 << 16, whole),
      measured: false, clients: new Map(), pending: null,
    });
  }

  take(items) {
    for (const item of items) {
      if (item.k !== 'hello' && item.t !== undefined) this.see(item.a ?? item.t);
      takers[item.k]?.(this, item);
    }
    this.items += items.length;
    ++this.version;
  }

  turn(sensor, turn) {
    if (!this.whole) return sensor.turn(turn);
    sensor.turns.push(turn);
    sensor.turns.sort((one, other) => one.t - other.t);
  }

  // No more samples come before these turns.
  settle(sensor, t) {
    for (; sensor.turns.length && sensor.turns[0].t <= t; ++this.version) sensor.turn(sensor.turns.shift());
  }

  see(t) {
    if (t < this.first) this.first = t;
    if (t > this.now) this.now = t;
  }

  // Nobody told this page of what was in that time.
  lose(cause, t, e) {
    this.lost.push({t, e, cause});
    if (e === null) return;
    for (const sensor of this.sensors.values()) sensor.open = null;
  }

  // The gap, or the silence, was not the MCU's when this page was told nothing then.
  lostWithin(t, e) {
    for (const span of this.lost.within(t, e)) return span;
    return null;
  }

  // When a sensor was on and the MCU sent nothing, or was off: not what this page was not told.
  *gapsOf(sensor, from, to) {
    for (const gap of sensor.gaps.within(from, to)) if (!gap.late && !this.lostWithin(gap.t, gap.e)) yield gap;
  }

  get state() { return this.states.last; }

  forget(keepFrom) {
    this.forgotAt = this.now;
    if (this.whole) return;
    const before = Math.max(Math.min(this.now - KEPT_US, keepFrom), this.now - KEPT_PAUSED_US);
    this.first = Math.max(this.first, before);
    for (const sensor of this.sensors.values()) {
      for (const ring of [sensor.samples, sensor.gaps, sensor.flushes]) ring.forget(before);
    }
    for (const ring of [this.load, this.latency, this.log, this.frames, this.pins, this.exchanges,
      this.episodes, this.dumps, this.lost]) ring.forget(before);
    this.states.forget(before, true);
    for (const [name, client] of this.clients) {
      client.fill.forget(before);
      if (client.last < before) this.clients.delete(name);
    }
  }

  addLatency(arrival, latency) {
    const step = Math.floor(arrival / LATENCY_STEP_US);
    const ms = latency / 1000, now = this.pending;
    if (now && now.step >= step) {
      now.least = Math.min(now.least, ms);
      now.most = Math.max(now.most, ms);
      return;
    }
    if (now) this.latency.push((now.step + 1) * LATENCY_STEP_US, [now.least, now.most]);
    if (now && step - now.step > LATENCY_REST_STEPS) this.latency.push((now.step + 2) * LATENCY_STEP_US, []);
    this.pending = {step, least: ms, most: ms};
  }
}

// What each kind of item does to the store.
const takers = {
  hello: (store, item) => store.start(item),
  now() {},
  sample(store, item) {
    const sensor = store.sensors.get(item.h);
    if (!sensor) return;
    store.settle(sensor, item.a);
    sensor.add(item.t, item.a, item.v);
    if (sensor.periodic) store.addLatency(item.a, item.a - item.t);
  },
  flush: (store, item) => store.sensors.get(item.h)?.flushes.push(item),
  frame: (store, item) => store.frames.push(item),
  pin: (store, item) => store.pins.push(item),
  // An unanswered one may be told again when its reply has come after all.
  exchange(store, item) {
    const {all} = store.exchanges;
    const known = all.slice(-32).findLast(one => one.t === item.t);
    if (known) store.exchanges.grow(Object.assign(known, item)); else store.exchanges.push(item);
  },
  state(store, item) {
    const before = store.states.at(item.t);
    if (before?.s === item.s && before.m === item.m) return;
    store.states.push(item);
  },
  episode(store, item) {
    const known = store.episodes.all.findLast(e => e.t === item.t && e.kind === item.kind);
    if (known) store.episodes.grow(Object.assign(known, item)); else store.episodes.push(item);
  },
  log: (store, item) => store.log.push(item),
  connection(store, item) {
    const down = store.lost.all.findLast(span => span.cause === 'hub' && span.e === null);
    store.up = item.up;
    if (!item.up && !down) store.lose('hub', item.t, null);
    if (item.up && down) {
      down.e = item.t;
      store.lost.grow(down);
    }
    for (const sensor of store.sensors.values()) store.turn(sensor, {t: item.t});
  },
  missed: (store, item) => store.lose(item.certain ? 'tool' : 'perhaps', item.t, item.e),
  dropped: (store, item) => store.lose('page', item.t, item.e),
  unrecorded: (store, item) => store.lose('file', item.t, item.e),
  clients(store, item) {
    for (const client of item.list) {
      const name = `${client.name} ${client.pid} ${client.socket}`;
      if (!store.clients.has(name)) store.clients.set(name, {name, fill: new Columns(2, 1 << 13, store.whole)});
      const known = store.clients.get(name);
      Object.assign(known, {unread: client.unread, losing: client.losing, lost: known.lost || client.losing, last: item.t});
      known.fill.push(item.t, [client.fill, client.losing ? 1 : 0]);
    }
    store.clientsAt = item.t;
  },
  asked(store, item) {
    const sensor = store.sensors.get(item.h);
    if (sensor) store.turn(sensor, {t: item.t, asked: {period_us: item.period_us, batch: item.batch}});
  },
  load(store, item) {
    store.measured = item.measured;
    store.load.push(item.t, [item.from, item.to ?? NaN]);
  },
  // One that grows is told again.
  dump(store, item) {
    const known = store.dumps.all.findLast(dump => dump.n === item.n && item.t - dump.t < DUMP_GROWS_US);
    if (known) Object.assign(known, {...item, t: known.t}); else store.dumps.push(item);
  },
};
