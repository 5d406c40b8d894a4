// Pointer and wheel on strips and lanes: point, drag, zoom, pick. Used by the main module.

const CLICK_PX = 4;
const WHEEL_STEP = 0.0015;

export function listenToPointer(scope, rows, choice) {
  const {clock} = scope;
  let drag = null;
  // Of the plots, all of which lie under one another; null beside them.
  const place = event => {
    const box = scope.clients.canvas.getBoundingClientRect();
    const x = event.clientX - box.left;
    return x >= 0 && x <= box.width ? x : null;
  };

  rows.addEventListener('pointermove', event => {
    const x = place(event);
    if (drag) {
      const by = event.clientX - drag.x;
      if (Math.abs(by) > CLICK_PX) drag.moved = true;
      if (drag.moved && drag.choose) {
        choice.hidden = false;
        choice.style.left = `${scope.clients.canvas.offsetLeft + drag.at + Math.min(by, 0)}px`;
        choice.style.width = `${Math.abs(by)}px`;
      } else if (drag.moved) {
        clock.set(drag.from - by * drag.perPixel, drag.to - by * drag.perPixel);
      }
    }
    if (clock.held && !event.movementX && !event.movementY) return;
    clock.pointer = x ?? undefined;
    clock.point(x === null ? null : clock.t(x, scope.clients.width));
  });
  rows.addEventListener('pointerleave', () => {
    clock.pointer = undefined;
    if (!clock.held) clock.point(null);
  });
  rows.addEventListener('pointerdown', event => {
    const at = place(event);
    if (at === null || event.button !== 0) return;
    drag = {x: event.clientX, at, from: clock.from, to: clock.to, perPixel: clock.span / scope.clients.width, choose: event.shiftKey, moved: false};
    rows.setPointerCapture(event.pointerId);
  });
  const end = event => {
    if (!drag) return;
    const was = drag;
    drag = null;
    choice.hidden = true;
    if (event.type === 'pointercancel') return;
    if (was.moved) {
      const [a, b] = [was.at, was.at + event.clientX - was.x].sort((one, other) => one - other);
      if (was.choose) clock.set(clock.t(a, scope.clients.width), clock.t(b, scope.clients.width));
      return;
    }
    const canvas = document.elementsFromPoint(event.clientX, event.clientY).find(node => node.lane);
    const item = canvas?.lane.near(was.at, event.clientY - canvas.getBoundingClientRect().top);
    if (item) {
      canvas.focus({preventScroll: true});
      scope.pick(item);
    } else {
      clock.point(clock.t(was.at, scope.clients.width), true);
    }
  };
  rows.addEventListener('pointerup', end);
  rows.addEventListener('pointercancel', end);
  rows.addEventListener('dblclick', () => scope.store.hello.live && clock.live());
  rows.addEventListener('wheel', event => {
    const x = place(event);
    if (x === null) return;
    if (event.ctrlKey) clock.zoom(Math.exp(event.deltaY * WHEEL_STEP), clock.t(x, scope.clients.width));
    else if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) clock.pan((event.deltaX || event.deltaY) / 1000);
    else return;
    event.preventDefault();
  }, {passive: false});
}
