// The keyboard: one table of keys with what they do, which the help shows too. Used by the main
// module.
import {element} from './format.js';

// keys, what they do in words, and the deed.
export const KEYS = [
  [[' '], 'pause, go on', scope => scope.clock.follow ? scope.clock.pause() : scope.clock.live()],
  [['End'], 'follow the hub again', scope => scope.clock.live()],
  [['Home', '0'], 'show all that is kept', scope => scope.clock.fit(scope.store)],
  [['+', '='], 'zoom in', scope => scope.clock.zoom(0.5)],
  [['-'], 'zoom out', scope => scope.clock.zoom(2)],
  [['PageUp', '['], 'back by half a window', scope => scope.clock.pan(-0.5)],
  [['PageDown', ']'], 'on by half a window', scope => scope.clock.pan(0.5)],
  [['ArrowLeft'], 'cursor back (Shift: by ten)', (scope, event) => scope.moveCursor(event.shiftKey ? -10 : -1)],
  [['ArrowRight'], 'cursor on (Shift: by ten)', (scope, event) => scope.moveCursor(event.shiftKey ? 10 : 1)],
  [['n'], 'next thing of the lane in focus (else: of what happened)', scope => scope.walk(1)],
  [['p'], 'the one before', scope => scope.walk(-1)],
  [['Enter'], 'in a lane: show what is at the cursor, its bytes and meaning', scope => scope.pickAtCursor()],
  [['m'], 'set a mark at the cursor, to measure from', scope => scope.setMark()],
  [['s'], 'to the sensors’ switches', scope => scope.focus('#sensors input:not(:disabled)')],
  [['l'], 'to the log’s filter', scope => scope.focus('#filter')],
  [['g'], 'to the first lane', scope => scope.focus('canvas.lane[tabindex]')],
  [['?', 'h'], 'this help', scope => scope.help()],
  [['Escape'], 'close, or take the cursor and the mark away', scope => scope.escape()],
];

const NAMES = {' ': 'Space', ArrowLeft: '←', ArrowRight: '→', PageUp: 'Page Up', PageDown: 'Page Down', Escape: 'Esc'};

export function listenToKeys(scope) {
  document.addEventListener('keydown', event => {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const {target} = event;
    const typing = target.matches('input:not([type=checkbox]), select, dialog *');
    if (event.key === 'Escape' && typing) return void target.blur();
    if (typing) return;
    if (target.matches('button, input, summary') && [' ', 'Enter'].includes(event.key)) return;
    if (target.matches('.line') && ['ArrowUp', 'ArrowDown'].includes(event.key)) {
      const other = event.key === 'ArrowUp' ? target.previousElementSibling : target.nextElementSibling;
      other?.focus();
      return event.preventDefault();
    }
    const row = KEYS.find(([keys]) => keys.includes(event.key));
    if (!row) return;
    event.preventDefault();
    row[2](scope, event);
    scope.hurry();
  });
}

export function fillHelp(parent) {
  for (const [keys, words] of KEYS) {
    parent.append(element('dt', {}, ...keys.map(key => element('kbd', {textContent: NAMES[key] ?? key}))),
      element('dd', {textContent: words}));
  }
}
