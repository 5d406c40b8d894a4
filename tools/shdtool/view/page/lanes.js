// Lanes: what has a place on the common clock but is no curve. The MCU's state, episodes, log lines,
// frames, exchanges and clients. Made by the main module.
import {bootTime, colour, duration, setText, stateWords} from './format.js';
import {Lane} from './lane.js';

export class AxisLane extends Lane {
  constructor(scope) {
    super(scope, 'seconds since boot', 20);
    this.row.classList.add('axis');
    this.canvas.removeAttribute('tabindex');
  }

  paint(ctx, x, clock) {
    const rough = clock.span / Math.max(this.width / 110, 1);
    const power = 10 ** Math.floor(Math.log10(rough));
    const step = [1, 2, 5, 10].map(f => f * power).find(s => s >= rough) ?? rough;
    ctx.textAlign = 'left';
    ctx.fillStyle = colour.faint;
    for (let n = Math.ceil(clock.from / step * 5); n * step / 5 <= clock.to; ++n) {
      const at = Math.round(x(n * step / 5));
      ctx.fillRect(at, this.height - (n % 5 ? 3 : 7), 1, 7);
      if (n % 5) continue;
      ctx.fillText(bootTime(n * step / 5, step), at + 4, this.height / 2);
    }
  }
}

const BAND_PX = 20;

export class StateLane extends Lane {
  constructor(scope) { super(scope, 'MCU', BAND_PX + 16); }

  rings() { return [this.scope.store.states]; }

  // One for each state, whatever reasons it has meanwhile; told is one that it keeps.
  *segments(from, to) {
    const {all} = this.scope.store.states;
    let i = Math.max(this.scope.store.states.find(from) - 1, 0);
    while (i > 0 && all[i - 1].s === all[i].s) --i;
    for (let next; i < all.length && all[i].t <= to; i = next) {
      let {m} = all[i];
      for (next = i + 1; next < all.length && all[next].s === all[i].s; ++next) if (all[next].m !== m) m = '';
      yield {...all[i], m, e: all[next]?.t ?? this.scope.now()};
    }
  }

  paint(ctx, x, clock, store) {
    if (!store.states.all.length) this.absent(ctx, store.hello.live ? 'nothing known yet' : 'these files do not tell');
    for (const segment of this.segments(clock.from, clock.to)) {
      ctx.globalAlpha = segment.s === 'service' ? 0.45 : 0.9;
      this.box(colour[segment.s], segment.t, segment.e, 1, BAND_PX - 2);
      ctx.globalAlpha = 1;
      const from = Math.max(x(segment.t), 0), to = Math.min(x(segment.e), this.width);
      const healthy = segment.s === 'service';
      const words = `${stateWords[segment.s] ?? segment.s} ${duration(segment.e - segment.t)}`;
      const texts = segment.m && !healthy ? [`${words}: ${segment.m}`, words] : [words];
      // What does not fit stands below its part of the band.
      if (!this.write(texts, from + 5, BAND_PX / 2, healthy ? colour.ink : colour.paper, to - 2) && !healthy) this.write(words, from, BAND_PX + 8, colour[segment.s]);
    }
  }

  tell(t) {
    const state = this.scope.store.states.at(t);
    setText(this.facts, state ? `${stateWords[state.s] ?? state.s}${state.m ? `: ${state.m}` : ''}` : 'unknown');
  }
}

export class EpisodeLane extends Lane {
  constructor(scope) { super(scope, 'what happened', 84); }

  rings() { return [this.scope.store.episodes, this.scope.store.dumps]; }

  paint(ctx, x, clock, store) {
    const shown = [...store.episodes.within(clock.from, clock.to)];
    const levels = [];
    for (const episode of shown) {
      const end = episode.e ?? this.scope.now();
      const time = duration(end - episode.t);
      const says = episode.m || `${episode.kind}${episode.e === null ? ' goes on' : ''}`;
      const texts = [episode.e === null ? `${says} (for ${time} now)` : says, `${episode.kind} ${time}`];
      let {width} = ctx.measureText(texts[0]);
      if (width > this.width - 8) {
        texts[0] = `${texts[0].slice(0, Math.floor(texts[0].length * (this.width - 8) / width) - 2)}…`;
        width = this.width - 8;
      }
      const from = Math.max(0, Math.min(x(episode.t), this.width - width));
      let level = levels.findIndex(until => until < from);
      if (level < 0) level = levels.push(0) - 1;
      levels[level] = Math.max(x(end), from + width) + 8;
      const top = 1 + level * 34;
      if (top > this.height) continue;
      const fill = episode.ok === false ? colour.bad : episode.kind === 'crash' ? colour.silent : episode.kind === 'update' ? colour.updating : colour.recovering;
      this.box(fill, episode.t, end, top, 4, 3);
      (episode.phases ?? []).forEach((phase, i) => {
        const until = phase.e ?? this.scope.now();
        ctx.globalAlpha = i % 2 ? 0.25 : 0.4;
        this.box(fill, phase.t, until, top + 18, 14);
        ctx.globalAlpha = 1;
        this.write([`${phase.m} ${duration(until - phase.t)}`, phase.m], Math.max(x(phase.t), 0) + 3, top + 25, colour.ink, Math.min(x(until), this.width));
      });
      this.write(texts, x(episode.t), top + 11, episode.ok === false ? colour.bad : colour.ink);
    }
    for (const dump of store.dumps.within(clock.from, clock.to)) {
      this.box(colour.bad, dump.t, dump.t, this.height - 14, 14, 2);
      const texts = [dump.m, dump.m.split(/[,;]/)[0]].map(words => `core dump ${dump.n}: ${words}`);
      this.write([...texts, `core dump ${dump.n}`], x(dump.t) + 4, this.height - 7, colour.bad, this.width);
    }
    if (shown.length || [...store.dumps.within(clock.from, clock.to)].length) return;
    if (store.hello.log || store.hello.line || store.episodes.all.length) this.absent(ctx, this.calm ?? '', this.calm?.includes(';') ? colour.warn : colour.faint);
    else this.absent(ctx, 'recoveries, crashes and updates show with the daemon’s log: give it with --log FILE');
  }

  // What there is to say of a window without an episode.
  sumUp() {
    const {clock, store} = this.scope;
    let missing = 0, requests = 0, unanswered = 0, damaged = 0;
    for (const sensor of store.sensors.values()) {
      for (const gap of store.gapsOf(sensor, clock.from, clock.to)) missing += gap.missing ?? 0;
    }
    for (const one of store.exchanges.within(clock.from, clock.to)) {
      ++requests;
      if (one.mark === 'unanswered') ++unanswered;
    }
    for (const frame of store.frames.within(clock.from, clock.to)) if (frame.bad) ++damaged;
    const faults = [missing && `${missing} samples missing`, damaged && `${damaged} frames damaged`,
      unanswered && `${unanswered} of ${requests} requests unanswered`].filter(Boolean);
    return `no recovery, crash or update${faults.length ? `; ${faults.join(', ')}` : ', nothing missing, nothing damaged'}`;
  }

  tell(t) {
    const during = [...this.scope.store.episodes.within(t, t)].at(-1);
    setText(this.facts, during ? `${during.kind} ${duration((during.e ?? this.scope.now()) - during.t)}` : '');
    const calm = this.sumUp();
    if (calm !== this.calm) this.scope.changed();
    this.calm = calm;
  }
}

export class LogLane extends Lane {
  constructor(scope) { super(scope, 'log', 48); }

  rings() { return [this.scope.store.log]; }

  paint(ctx, x, clock, store) {
    const {log} = store;
    if (!log.all.length && !store.hello.log) {
      return this.absent(ctx, store.hello.live ? 'no log: start with --log FILE, the daemon’s log' : 'no log among these files');
    }
    const drawn = {};
    for (const line of log.within(clock.from, clock.to)) {
      const mcu = line.who === 'mcu';
      const strong = 'WEF'.includes(line.level);
      const at = Math.round(x(line.t));
      const top = mcu ? 13 : 1;
      if (drawn[top + line.level] === at) continue;
      drawn[top + line.level] = at;
      const fill = 'EF'.includes(line.level) ? colour.bad : line.level === 'W' ? colour.warn : mcu ? colour.axis2 : colour.faint;
      ctx.fillStyle = fill;
      ctx.fillRect(at, top, strong ? 2 : 1, strong ? 11 : 7);
      const texts = line.m.length > 60 ? [line.m, `${line.m.slice(0, 57)}…`] : line.m;
      if (strong) this.write(texts, at, 30, fill) || this.write(texts, at, 41, fill);
    }
  }

  tell(t) {
    const line = this.scope.store.log.at(t);
    setText(this.facts, line ? `${line.level} ${line.m}` : '');
  }
}

export class FrameLane extends Lane {
  constructor(scope) { super(scope, 'line', 38); }

  rings(y) {
    const {frames, pins} = this.scope.store;
    const direction = y < 0 ? null : y < this.height / 2 ? 'to' : 'from';
    return [direction ? {within: function* (from, to) {
      for (const frame of frames.within(from, to)) if (frame.d === direction) yield frame;
    }} : frames, pins];
  }

  paint(ctx, x, clock, store) {
    if (!store.frames.all.length && !store.hello.line) {
      return this.absent(ctx, store.hello.live
        ? 'no bytes of the line: start with --line FILE, which mcusim --record FILE or shdtool tap -o FILE writes'
        : 'no bytes of the line: add a recording of mcusim --record or shdtool tap -o');
    }
    const half = this.height / 2, last = {};
    const {selected} = this.scope;
    const cursorPx = clock.span / this.width;
    for (const frame of store.frames.within(clock.from, clock.to)) {
      const top = frame.d === 'to' ? 1 : half + 1;
      const bad = frame.bad ? 1 : 0;
      // What falls on a pixel that is full already would not be seen.
      const pixel = Math.floor((frame.e - clock.from) / cursorPx);
      if (last[top] === pixel && !bad && frame !== selected) continue;
      last[top] = pixel;
      const fill = frame === selected ? colour.accent : bad ? colour.bad : colour[frame.d];
      this.box(fill, frame.t, frame.e, top, half - 2, bad ? 2 : 1);
      const from = Math.max(x(frame.t), 0), to = Math.min(x(frame.e), this.width);
      if (to - from > 40) this.write([frame.m, frame.m.slice(0, Math.floor((to - from) / 6))], from + 3, top + half / 2 - 1, colour.paper, to);
    }
    for (const pin of store.pins.within(clock.from, clock.to)) {
      this.box(colour.warn, pin.t, pin.t, 0, this.height, 1.5);
      this.write(pin.m, x(pin.t) + 3, 7, colour.warn);
    }
  }

  tell(t) {
    const {frames} = this.scope.store;
    const frame = frames.at(t);
    setText(this.facts, frame && t - frame.e < this.scope.clock.span / 20 ? `${frame.d === 'to' ? '→' : '←'} ${frame.m}` : frames.lost ? 'older frames are not kept' : '→ to the MCU, ← from it');
  }
}

export class ExchangeLane extends Lane {
  constructor(scope) { super(scope, 'requests', 30); }

  rings() { return [this.scope.store.exchanges]; }

  paint(ctx, x, clock, store) {
    if (!store.exchanges.all.length && !store.hello.line) return this.absent(ctx, 'seen with the bytes of the line');
    const fills = {'': colour.good, late: colour.warn, shifted: colour.bootloader, unanswered: colour.bad};
    const shown = [...store.exchanges.within(clock.from, clock.to)];
    let last = -1;
    for (const one of shown) {
      const end = Math.floor(x(one.e ?? one.t));
      if (!one.mark && end === last) continue;
      last = end;
      this.box(fills[one.mark], one.t, one.e ?? one.t, 2, 9, one.mark ? 3 : 1);
    }
    // Words of what went wrong first, then of the others, where there is room.
    for (const marked of [true, false]) {
      for (const one of shown.slice(-400)) {
        if (Boolean(one.mark) !== marked) continue;
        const time = duration((one.e ?? one.t) - one.t);
        this.write(one.mark ? [`${one.m}: ${one.mark}${one.mark === 'late' ? ` ${time}` : ''}`, one.mark] : [`${one.m} ${time}`, one.m],
          Math.max(x(one.t), 0), 21, one.mark ? fills[one.mark] : colour.faint);
      }
    }
  }

  tell(t) {
    const one = this.scope.store.exchanges.at(t);
    setText(this.facts, one ? `${one.m} ${one.mark || duration((one.e ?? one.t) - one.t)}` : '');
  }
}

const CLIENT_PX = 16;
const CLIENTS_SHOWN = 8;
const GONE_AFTER_US = 5e6;

export class ClientLane extends Lane {
  constructor(scope) { super(scope, 'clients', CLIENT_PX); }

  // Those that are here, and those that went away after they had lost something.
  shown() {
    const {clients, clientsAt} = this.scope.store;
    return [...clients.values()].filter(client => client.lost || client.last >= clientsAt - GONE_AFTER_US).slice(0, CLIENTS_SHOWN);
  }

  paint(ctx, x, clock, store) {
    const clients = this.shown();
    const height = Math.max(clients.length, 1) * CLIENT_PX;
    if (height !== this.height) {
      this.height = height;
      return this.resize();
    }
    if (!clients.length) this.absent(ctx, store.hello.live ? 'none seen' : 'recordings do not tell');
    clients.forEach((client, n) => {
      const bottom = (n + 1) * CLIENT_PX - 1;
      const {time, value, from: first, to: end} = client.fill;
      for (let i = Math.max(client.fill.find(clock.from) - 1, first); i < end && time[i] <= clock.to; ++i) {
        const until = i + 1 < end ? time[i + 1] : client.last;
        const share = Math.min(value[2 * i] / 100, 1);
        ctx.globalAlpha = 0.6;
        this.box(value[2 * i + 1] ? colour.bad : colour.to, time[i], until, bottom - 1 - share * (CLIENT_PX - 3), 1 + share * (CLIENT_PX - 3));
        ctx.globalAlpha = 1;
      }
      const gone = client.last < (store.clientsAt ?? 0);
      this.write(`${client.name}${gone ? ' (gone)' : client.losing ? `: LOSING DATA, ${client.unread} bytes unread` : client.unread ? `: ${client.unread} bytes unread` : ''}`,
        4, bottom - CLIENT_PX / 2, client.losing && !gone ? colour.bad : gone ? colour.faint : colour.ink);
    });
  }

  tell() {
    const {clients, clientsAt} = this.scope.store;
    const here = [...clients.values()].filter(client => client.last >= clientsAt);
    const losing = here.filter(client => client.losing).length;
    setText(this.facts, `${here.length} connected${losing ? `, ${losing} losing data` : ''}${here.length > CLIENTS_SHOWN ? `, ${CLIENTS_SHOWN} shown` : ''}`);
  }
}
