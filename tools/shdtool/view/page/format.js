// Texts of times, sizes and bytes, and the colours of things. Used by all that draws or tells.

// A duration of us microseconds with three digits.
export function duration(us) {
  const size = Math.abs(us);
  if (size < 1000) return `${us.toFixed(0)} µs`;
  if (size < 1e6) return `${(us / 1000).toPrecision(3)} ms`;
  if (size < 60e6) return `${(us / 1e6).toFixed(size < 10e6 ? 2 : 1)} s`;
  return `${Math.floor(us / 60e6)} min ${((us % 60e6) / 1e6).toFixed(0)} s`;
}

// Seconds of the boot clock, with as many digits as a step of `step` microseconds needs.
export const bootTime = (us, step = 1) =>
  (us / 1e6).toFixed(Math.max(0, Math.min(6, Math.ceil(6 - Math.log10(step) - 1e-9))));

// The local time of day of a boot time, where the anchor is known.
export function timeOfDay(us, anchor) {
  if (!anchor) return '';
  const date = new Date((us - anchor.now + anchor.wall) / 1000);
  return date.toTimeString().slice(0, 8) + '.' + String(date.getMilliseconds()).padStart(3, '0');
}

// A value with as many digits as are worth reading.
export function number(value) {
  if (!Number.isFinite(value)) return '–';
  if (Number.isInteger(value)) return String(value);
  return Math.abs(value) < 0.01 ? value.toFixed(4) : value.toPrecision(Math.abs(value) < 1000 ? 4 : 6);
}

export const bytesPerSecond = value => value == null || Number.isNaN(value) ? '–' : `${Math.round(value).toLocaleString('en')} B/s`;

// Hexadecimal text as lines of 16 bytes with their place.
export function hexDump(hex) {
  const lines = hex.match(/.{1,32}/g) ?? [];
  return lines.map((line, n) => `${(n * 16).toString(16).padStart(4, '0')}  ${line.match(/../g).join(' ')}`).join('\n');
}

// The colours of style.css by their names, read anew when the scheme changes.
export const colour = {};
export function readColours() {
  const style = getComputedStyle(document.documentElement);
  for (const name of ['ink', 'faint', 'grid', 'paper', 'panel', 'accent', 'bad', 'warn', 'good', 'lost',
    'starting', 'service', 'silent', 'bootloader', 'recovering', 'updating', 'down', 'unknown', 'to', 'from',
    'axis0', 'axis1', 'axis2', 'axis3']) colour[name] = style.getPropertyValue(`--${name}`).trim();
}

// The MCU's states in words.
export const stateWords = {
  starting: 'starting', service: 'in service', silent: 'SILENT', bootloader: 'in the bootloader',
  recovering: 'recovering', updating: 'updating', down: 'down', unknown: 'not known',
};

// Why this page knows nothing of a time, in words and in fewer.
export const lostWords = {
  hub: ['no connection to shd', 'no connection', 'no link'],
  tool: ['lost on the way to this tool', 'lost on the way', 'lost'],
  file: ['not in a recording of events', 'not recorded', ''],
  perhaps: ['perhaps lost on the way to this tool', 'perhaps lost'],
  page: ['this browser did not keep up', 'browser too slow', 'lost'],
};

// An element with properties and children: element('b', {className: 'x'}, 'text').
export function element(name, properties = {}, ...children) {
  const made = Object.assign(document.createElement(name), properties);
  for (const [key, value] of Object.entries(properties)) {
    if (key.startsWith('aria') || key === 'role') made.setAttribute(key.replace(/^aria(.)/, (_, c) => `aria-${c.toLowerCase()}`), value);
  }
  made.append(...children);
  return made;
}

// Changes a text only when it is another one: a change costs a layout.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}
