// The panel beside the strips: the sensors' switches, the simulated MCU's misfortunes, what was
// picked, and the log as a list. Used by the main module.
import {bootTime, duration, element, hexDump, setText, timeOfDay} from './format.js';

const LOG_SHOWN = 300;
const LOG_EVERY_MS = 250;

// What can be done to a simulated MCU: a button, what it sends, and what then is to be seen.
const MISFORTUNES = [
  ['hang', ['hang'], 'It stands still. The daemon notices when two requests go unanswered: ask it something.'],
  ['hang hard', ['hang hard'], 'It stands still, and a reset does not help until “resume”.'],
  ['resume', ['resume'], 'It goes on where it stood.'],
  ['crash', ['crash'], 'It sends a core dump and is silent; the daemon restarts it.'],
  ['lossy line', ['drop 0.1'], 'One frame in ten is lost, both ways.'],
  ['good line', ['drop 0', 'corrupt 0'], 'Nothing is lost any more.'],
  ['failed update', ['flip 0x08000500 3', 'nack 20', 'hang'], 'Its firmware has decayed and it hangs. Ask it something: after about half a minute without an answer the daemon writes the firmware, and the bootloader refuses block 20.'],
];

export class SensorPanel {
  constructor(scope, parent) {
    this.scope = scope;
    this.parent = parent;
    this.rows = new Map();
  }

  build() {
    const {hello} = this.scope.store;
    this.parent.replaceChildren();
    this.rows.clear();
    for (const sensor of this.scope.store.sensors.values()) {
      const on = element('input', {type: 'checkbox', ariaLabel: `${sensor.name} on`});
      const rate = element('input', {type: 'number', min: 0.1, step: 'any', value: 25, ariaLabel: `${sensor.name} rate in Hz`, title: 'Hz'});
      const batch = element('input', {type: 'number', min: 1, max: sensor.batch_max || 1000, value: 1, ariaLabel: `${sensor.name} samples in a batch`, title: 'samples in a batch', disabled: sensor.batch_max === 0 || sensor.batch_max === 1});
      const flush = element('button', {textContent: 'flush', ariaLabel: `flush ${sensor.name}`});
      const apply = () => this.scope.act(on.checked
        ? {do: 'enable', sensor: sensor.h, period_us: Math.round(1e6 / Math.max(+rate.value || 1, 0.001)), batch: Math.max(1, Math.round(+batch.value) || 1)}
        : {do: 'disable', sensor: sensor.h});
      on.onchange = apply;
      for (const field of [rate, batch]) field.onchange = () => on.checked && apply();
      flush.onclick = () => this.scope.act({do: 'flush', sensor: sensor.h});
      const row = element('div', {className: 'switch'}, element('label', {}, on, sensor.name), rate, batch, flush);
      this.parent.append(row);
      this.rows.set(sensor.h, {on, rate, batch, shown: ''});
      if (!hello.live) for (const field of [on, rate, batch, flush]) field.disabled = true;
    }
  }

  // Shows what was asked, by whomever, else what is measured, but does not take a field from under a hand.
  update() {
    for (const [handle, row] of this.rows) {
      const sensor = this.scope.store.sensors.get(handle);
      const asked = sensor.asked;
      const period = asked ? asked.period_us : Math.round(sensor.period / 1000) * 1000;
      const now = `${sensor.on} ${period} ${asked?.batch}`;
      if (now === row.shown) continue;
      row.shown = now;
      row.on.checked = sensor.on;
      if (period > 0 && document.activeElement !== row.rate) row.rate.value = +(1e6 / period).toFixed(2);
      if (asked?.period_us > 0 && document.activeElement !== row.batch) row.batch.value = Math.max(asked.batch, 1);
    }
  }
}

export function buildMisfortunes(scope, parent) {
  parent.replaceChildren();
  for (const [name, commands, effect] of MISFORTUNES) {
    const button = element('button', {textContent: name, title: effect});
    button.onclick = async () => {
      for (const command of commands) {
        const answer = await scope.act({do: 'mcusim', command});
        if (!answer.ok) return;
      }
      scope.say(`${name}: ${effect}`);
    };
    parent.append(button);
  }
  // Two requests, so that a hang is noticed.
  const ask = element('button', {textContent: 'ask it something', title: 'flushes a sensor twice; a hub notices a hang only when requests go unanswered'});
  ask.onclick = async () => {
    const sensor = [...scope.store.sensors.values()].find(one => one.on && one.periodic) ?? scope.store.sensors.values().next().value;
    for (let i = 0; i < 2; ++i) await scope.act({do: 'flush', sensor: sensor.h});
  };
  parent.append(ask);
}

// Shows one thing that was picked in a lane or in the log.
export function showPicked(scope, parent, item) {
  const {anchor} = scope;
  const facts = [];
  const fact = (name, value) => facts.push(element('dt', {textContent: name}), element('dd', {textContent: value}));
  const end = item.e === null ? scope.now() : item.e;
  fact('at', `${bootTime(item.t)} s${anchor ? `  ${timeOfDay(item.t, anchor)}` : ''}`);
  if (end !== undefined) fact('for', duration(end - item.t) + (item.e === null ? ' up to now' : ''));
  if (item.mark) fact('answer', item.mark);
  if (item.level) fact(item.who === 'mcu' ? 'MCU' : 'shd', `${item.level} ${item.tag}`);
  if (item.x) fact('bytes', item.x.length / 2 + (item.bad ? ', DAMAGED' : ''));
  if (item.k === 'dump') fact('slot', String(item.n));
  const titles = {frame: item.d === 'to' ? `Frame ${item.n} to the MCU` : `Frame ${item.n} from the MCU`, exchange: 'Request', episode: item.kind, log: 'Log line', dump: 'Core dump', state: item.s, pin: 'Pin'};
  parent.replaceChildren(element('h3', {textContent: titles[item.k] ?? item.k}),
    element('p', {className: 'meaning', textContent: item.m || '–'}), element('dl', {}, ...facts));
  if (item.x) parent.append(element('pre', {className: 'bytes', tabIndex: 0, ariaLabel: 'bytes', textContent: hexDump(item.x)}));
  for (const phase of item.phases ?? []) {
    parent.append(element('p', {className: 'phase', textContent: `${bootTime(phase.t, 1000)} s  ${phase.m}  ${duration((phase.e ?? scope.now()) - phase.t)}`}));
  }
}

// The log lines of the window, the newest at the end.
export class LogList {
  constructor(scope, parent, level, filter) {
    Object.assign(this, {scope, parent, level, filter, key: '', next: 0});
    level.onchange = filter.oninput = () => { this.key = ''; this.next = 0; scope.changed(); };
  }

  update() {
    if (performance.now() < this.next) return;
    this.next = performance.now() + LOG_EVERY_MS;
    const {clock, store} = this.scope;
    const {log} = store;
    const to = log.find(clock.to), from = log.find(clock.from);
    const levels = 'VDIWEF'.slice('VDIWEF'.indexOf(this.level.value));
    const words = this.filter.value.toLowerCase();
    const lines = [];
    for (let i = to - 1; i >= from && lines.length < LOG_SHOWN; --i) {
      const line = log.all[i];
      if (levels.includes(line.level) && (!words || `${line.tag} ${line.m}`.toLowerCase().includes(words))) lines.push(line);
    }
    const key = `${lines.length} ${lines[0]?.t} ${lines.at(-1)?.t} ${this.scope.selected?.t}`;
    if (key === this.key) return;
    this.key = key;
    const hold = document.activeElement?.parentElement === this.parent ? document.activeElement.item : null;
    const rows = lines.reverse().map(line => {
      const row = element('button', {className: `line ${line.level} ${line.who}`, tabIndex: -1},
        element('time', {textContent: bootTime(line.t, 1000)}), element('span', {textContent: `${line.level} ${line.m}`}));
      row.item = line;
      row.onclick = () => this.scope.pick(line);
      return row;
    });
    if (rows.length) rows.at(-1).tabIndex = 0;
    this.parent.replaceChildren(...rows);
    if (hold) rows.find(row => row.item === hold)?.focus();
    else if (clock.follow) this.parent.scrollTop = this.parent.scrollHeight;
    if (!rows.length) this.parent.textContent = store.hello.log ? 'nothing in this window' : 'No log here. Give the daemon’s log with --log FILE.';
  }
}

// Said to the user, and to who listens instead of looking.
export function sayTo(node, text, wrong = false) {
  setText(node, text);
  node.classList.toggle('wrong', wrong);
}
