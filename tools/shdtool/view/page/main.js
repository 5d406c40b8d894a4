// The page: joins the feed, the store, the clock, strips, lanes and the panel, and draws them. Loaded
// by index.html; `scope` is what its parts know of one another.
import {Clock} from './clock.js';
import {Feed} from './feed.js';
import {bootTime, colour, duration, lostWords, readColours, setText, stateWords, timeOfDay} from './format.js';
import {KEYS, fillHelp, listenToKeys} from './keys.js';
import {AxisLane, ClientLane, EpisodeLane, ExchangeLane, FrameLane, LogLane, StateLane} from './lanes.js';
import {listenToPointer} from './pointer.js';
import {LogList, SensorPanel, buildMisfortunes, sayTo, showPicked} from './side.js';
import {Store} from './store.js';
import {LatencyStrip, LoadStrip, SensorStrip} from './strips.js';

const FRAME_MS = 1000 / 30 - 4;  // more frames than that only cost
const BUDGET_MS = 30;            // for the strips of one frame; what is left over comes with the next
const CONNECTING = 'connecting';
const FORGET_US = 1e6;
const SLOW_MS = 250;             // what only people read: words, rows that come and go

const $ = selector => document.querySelector(selector);

class Scope {
  constructor() {
    this.store = new Store();
    this.clock = new Clock();
    this.feed = new Feed(items => this.take(items), wrong => this.onLink(wrong));
    this.dirty = true;
    this.selected = null;
    this.linkWrong = CONNECTING;
    this.linkSince = performance.now();
    this.drawn = {seen: '', next: 0, at: 0, slow: 0, counted: 0, count: 0, frames: 0, items: 0};
    this.lanes = [new AxisLane(this), new StateLane(this), new EpisodeLane(this), new LogLane(this),
      new FrameLane(this), new ExchangeLane(this)];
    this.clients = new ClientLane(this);
    this.common = [new LoadStrip(this), new LatencyStrip(this)];
    this.sensors = new Map();
    this.inView = new Set();
  }

  start() {
    readColours();
    matchMedia('(prefers-color-scheme: dark)').onchange = () => {
      readColours();
      for (const strip of this.strips()) strip.recolour();
      this.changed();
    };
    for (const lane of [...this.lanes, this.clients]) lane.attach($('#lanes'));
    this.watch = new IntersectionObserver(entries => {
      for (const entry of entries) this.inView[entry.isIntersecting ? 'add' : 'delete'](entry.target);
      this.changed();
    });
    for (const strip of this.common) this.attach(strip, $('#lanes'));
    this.panel = new SensorPanel(this, $('#sensors'));
    this.logList = new LogList(this, $('#log'), $('#level'), $('#filter'));
    buildMisfortunes(this, $('#misfortunes'));
    fillHelp($('#keys'));
    listenToKeys(this);
    listenToPointer(this, $('#rows'), $('#choice'));
    const press = key => KEYS.find(([keys]) => keys.includes(key))[2];
    for (const [id, key] of [['follow', ' '], ['out', '-'], ['in', '+'], ['fit', '0'], ['ask', '?']]) {
      $(`#${id}`).onclick = event => {
        press(key)(this, event);
        this.hurry();
      };
    }
    this.feed.open();
    requestAnimationFrame(() => this.frame());
  }

  attach(strip, parent) {
    strip.attach(parent);
    this.watch.observe(strip.row);
  }

  *strips() {
    yield* this.common;
    yield* this.sensors.values();
  }

  changed() { this.dirty = true; }

  // Of what the user did, words must not come later than the picture.
  hurry() {
    this.drawn.slow = 0;
    this.changed();
  }

  take(items) {
    const {hello} = this.store;
    this.store.take(items);
    if (this.store.hello !== hello) this.onHello();
    if (this.store.hello.live && !this.linkWrong) this.clock.hear(this.store.now);
    if (this.store.now > this.store.forgotAt + FORGET_US) this.store.forget(this.clock.follow ? Infinity : this.clock.from);
  }

  onHello() {
    const {hello} = this.store;
    this.anchor = hello.wall ? hello : null;
    this.feed.live = hello.live;
    if (this.linkWrong === CONNECTING) this.onLink(null);
    this.selected = null;
    setText($('#title'), hello.title || 'shd');
    document.title = hello.title || 'shd';
    $('#simulated').hidden = !hello.sim || !hello.live;
    $('#follow').hidden = !hello.live;
    for (const strip of this.sensors.values()) strip.remove();
    this.sensors.clear();
    this.panel.build();
    this.clock.hear(this.store.now);
    this.clock.shown = 0;
    this.fitted = {items: -1, from: this.clock.from, to: this.clock.to};
    if (hello.live) this.clock.live(); else this.clock.follow = false;
    this.drawn.slow = 0;
  }

  onLink(wrong) {
    // Connected is who has been greeted.
    this.linkWrong = wrong ?? (this.store.hello.sensors.length ? null : CONNECTING);
    this.linkSince = performance.now();
    this.hurry();
  }

  // The hub's time as far as it is known.
  now() { return this.store.now; }

  // Why nothing can be said of the hub, null when something can.
  dead() {
    if (this.linkWrong && !this.store.whole) return this.linkWrong;
    return this.store.hello.live && this.store.up === false
      ? 'No connection to shd: the daemon does not run, or does not serve its data socket' : null;
  }

  frame() {
    requestAnimationFrame(() => this.frame());
    const at = performance.now();
    if (at - this.drawn.at < FRAME_MS) return;
    const {clock, store, drawn} = this;
    clock.step(store);
    if (clock.pointer !== undefined && !clock.held) clock.cursor = clock.t(clock.pointer, this.clients.width);
    if (at - drawn.slow > SLOW_MS) this.slow(at);
    const seen = `${clock.version} ${clock.follow || store.now < clock.to + 1e6 || store.whole ? store.version : ''}`;
    if (!this.dirty && seen === drawn.seen) return;
    Object.assign(drawn, {seen, at});
    this.dirty = false;
    for (const lane of this.lanes) lane.draw();
    this.clients.draw();
    this.place($('#cursor'), clock.cursor);
    this.place($('#mark'), clock.mark);
    this.drawStrips(at);
    ++drawn.count;
  }

  // As many of the strips in view as the time allows, in turns.
  drawStrips(at) {
    const strips = [...this.strips()].filter(strip => this.inView.has(strip.row));
    for (let n = 0; n < strips.length; ++n) {
      strips[this.drawn.next++ % strips.length].draw();
      if (performance.now() - at > BUDGET_MS) {
        if (n + 1 < strips.length) this.dirty = true;
        return;
      }
    }
  }

  // What changes with the eye's speed and not with the screen's.
  slow(at) {
    const {store, clock, drawn} = this;
    const reading = clock.cursor ?? (clock.follow ? this.now() : clock.to);
    this.showSensors();
    this.fitRecording();
    for (const lane of [...this.lanes, this.clients]) lane.tell(reading);
    for (const strip of this.strips()) strip.tell(reading);
    this.panel.update();
    this.logList.update();
    this.tellHeader(reading);
    if (at - drawn.counted > 1000) {
      const rate = now => Math.max(0, Math.round(now * 1000 / (at - drawn.counted)));
      setText($('#figures'), `${drawn.count === drawn.frames ? 'nothing to draw' : `${rate(drawn.count - drawn.frames)} frames/s`} · ${rate(store.items - drawn.items)} items/s · ${Number.isFinite(store.first) ? duration(store.now - store.first) : 'nothing'} kept · window ${duration(clock.span)}`);
      Object.assign(drawn, {counted: at, items: store.items, frames: drawn.count});
      $('#rows').style.setProperty('--full', `${$('#strips').offsetTop + $('#strips').offsetHeight}px`);
    }
    drawn.slow = at;
    if (this.dead()) this.changed();
  }

  // A recording is shown as a whole while it comes, until the user looks at a part of it.
  fitRecording() {
    const {store, clock, fitted} = this;
    if (!store.whole) return;
    if (store.items === fitted?.items) for (const sensor of store.sensors.values()) store.settle(sensor, Infinity);
    if (store.items === fitted?.items || clock.from !== fitted?.from || clock.to !== fitted.to) return;
    clock.fit(store);
    this.fitted = {items: store.items, from: clock.from, to: clock.to};
  }

  showSensors() {
    for (const sensor of this.store.sensors.values()) {
      const wanted = sensor.on || sensor.samples.length > 0;
      const strip = this.sensors.get(sensor.h);
      if (wanted && !strip) {
        const made = new SensorStrip(this, sensor);
        this.sensors.set(sensor.h, made);
        this.attach(made, $('#strips'));
        const order = [...this.sensors.values()].sort((a, b) => a.sensor.h - b.sensor.h);
        const next = order[order.indexOf(made) + 1];
        if (next) $('#strips').insertBefore(made.row, next.row);
      } else if (!wanted && strip) {
        this.watch.unobserve(strip.row);
        this.inView.delete(strip.row);
        strip.remove();
        this.sensors.delete(sensor.h);
      }
    }
    $('#none').hidden = this.sensors.size > 0 || Boolean(this.dead());
    setText($('#none'), this.store.hello.live ? 'No sensor is on. Switch one on in the panel (key s), or: shdtool enable accelerometer --rate 25'
      : 'No samples in these files: add a recording of events (shdtool record).');
  }

  tellHeader(reading) {
    const {store, clock} = this;
    const {hello} = store;
    const dead = this.dead();
    const state = clock.cursor === null ? store.state : store.states.at(reading);
    const chip = $('#mcu');
    const since = clock.cursor === null ? this.stateSince() : '';
    setText(chip, dead && clock.cursor === null ? 'MCU: not known' : state ? `MCU ${stateWords[state.s] ?? state.s}${since}` : 'MCU: not known');
    chip.classList.toggle('wrong', !dead && state?.s === 'silent');
    chip.style.setProperty('--tone', dead ? colour.faint : colour[state?.s] ?? colour.faint);
    const link = $('#link');
    const ages = (performance.now() - this.linkSince) * 1000;
    setText(link, this.linkWrong === CONNECTING ? CONNECTING : dead ? 'no connection' : !hello.live ? 'recording' : clock.follow ? 'live' : 'paused');
    link.classList.toggle('wrong', Boolean(dead));
    link.style.setProperty('--tone', clock.follow ? colour.good : colour.warn);
    const banner = $('#banner');
    const down = this.linkWrong ? ages : this.now() - (store.lost.all.findLast(span => span.e === null)?.t ?? this.now());
    banner.hidden = (!dead && !this.linkWrong) || this.linkWrong === CONNECTING;
    if (!banner.hidden) setText($('#wrong'), `${dead ?? this.linkWrong}. ${dead ? 'What stands below is old' : 'What was read stays'}.`);
    setText($('#wrongFor'), duration(down));
    document.body.classList.toggle('dead', Boolean(dead));
    setText($('#spoken'), dead ?? `MCU ${stateWords[store.state?.s] ?? 'not known'}`);
    const times = [`${bootTime(reading, Math.max(clock.span / 1000, 1))} s since boot`, timeOfDay(reading, this.anchor)];
    if (clock.mark !== null) times.push(`${duration(reading - clock.mark)} from the mark`);
    const lost = store.lostWithin(reading, reading);
    if (lost) times.push(lostWords[lost.cause][0]);
    setText($('#reading'), times.filter(Boolean).join('   '));
    setText($('#follow'), clock.follow ? 'pause' : 'go on');
  }

  stateSince() {
    const last = [...this.lanes[1].segments(this.now(), Infinity)].at(-1);
    return last ? ` ${duration(last.e - last.t)}` : '';
  }

  place(line, t) {
    const x = t === null ? -1 : this.clock.x(t, this.clients.width);
    line.hidden = x < 0 || x > this.clients.width;
    if (!line.hidden) line.style.transform = `translateX(${this.clients.canvas.offsetLeft + x}px)`;
  }

  say(text, wrong = false) { sayTo($('#said'), text, wrong); }

  async act(what) {
    const answer = await this.feed.ask(what);
    this.say(answer.ok ? answer.text || 'done' : answer.error, !answer.ok);
    if (!answer.ok) for (const row of this.panel.rows.values()) row.shown = '';
    return answer;
  }

  pick(item) {
    this.selected = item;
    this.clock.show(item.t, item.e ?? item.t);
    showPicked(this, $('#picked'), item);
    $('#picked').scrollTop = 0;
    this.hurry();
  }

  lane() { return document.activeElement?.lane; }

  walk(direction) {
    const lane = this.lane() ?? this.lanes[2];
    const item = lane.walk(this.clock.cursor ?? this.now(), direction);
    if (item) this.pick(item); else this.say(direction > 0 ? 'nothing behind it' : 'nothing before it');
  }

  pickAtCursor() {
    const lane = this.lane();
    const x = this.clock.x(this.clock.cursor ?? this.now(), this.clients.width);
    const item = lane && (lane.near(x, -1) ?? lane.walk(this.clock.cursor ?? this.now(), -1));
    if (item) this.pick(item);
  }

  moveCursor(steps) {
    const {clock} = this;
    if (clock.cursor === null) clock.cursor = (clock.from + clock.to) / 2;
    clock.point(Math.min(Math.max(clock.cursor + steps * clock.span / 200, clock.from), clock.to), true);
  }

  setMark() {
    this.clock.mark = this.clock.cursor ?? this.now();
    ++this.clock.version;
  }

  focus(selector) { $(selector)?.focus(); }
  help() { $('#help').showModal(); }

  escape() {
    this.clock.mark = null;
    this.clock.point(null);
    this.clock.pointer = undefined;
    this.selected = null;
  }
}

export const scope = new Scope();
scope.start();
