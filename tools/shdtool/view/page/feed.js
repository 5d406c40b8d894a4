// The wire to the server: receives the feed, notices when it is dead, and sends what the user asks
// for. Used by the page's main module.

const DEAF_MS = 2500;  // a live feed says its time ten times a second

export class Feed {
  // onItems(items) for each message; onLink(text) with what is wrong with the link, null: nothing.
  constructor(onItems, onLink) {
    Object.assign(this, {onItems, onLink, heard: performance.now(), live: true, wrong: undefined, opened: false});
  }

  open() {
    this.source = new EventSource('feed');
    this.source.onopen = () => {
      this.opened = true;
      this.heard = performance.now();
      this.#tell(null);
    };
    this.source.onmessage = message => {
      this.heard = performance.now();
      this.onItems(JSON.parse(message.data));
    };
    // The browser tries again by itself, but not after a refusal.
    this.source.onerror = () => {
      this.#tell(this.opened
        ? 'No connection to shdtool view: it has ended or does not answer'
        : 'shdtool view refuses this page: its address is that of another run');
      if (this.source.readyState === EventSource.CLOSED) setTimeout(() => this.open(), 1000);
    };
    this.timer ??= setInterval(() => this.check(), 250);
  }

  check() {
    if (!this.opened || !this.live || this.source.readyState !== EventSource.OPEN) return;
    if (performance.now() - this.heard > DEAF_MS) this.#tell('shdtool view is connected but says nothing');
    else if (this.wrong) this.#tell(null);
  }

  #tell(wrong) {
    if (wrong === this.wrong) return;
    this.wrong = wrong;
    this.onLink(wrong);
  }

  // Asks the server to do something; resolves to {ok, text} or {ok: false, error}.
  async ask(what) {
    try {
      const response = await fetch('do', {
        method: 'POST', headers: {'Content-Type': 'application/json'}, body: JSON.stringify(what),
      });
      if (response.status === 403) return {ok: false, error: 'a recording is read-only'};
      return await response.json();
    } catch {
      return {ok: false, error: 'no connection to shdtool view'};
    }
  }
}
