// Bounded memory for what the page shows: rows of numbers (Columns) and things with a beginning and
// an end (Items), both in order of time. The store fills them, lanes and strips read them.

// Rows of a time and `width` numbers in typed arrays. Full, it forgets its oldest quarter, or, when
// it is to keep the whole, halves its resolution: of four rows stay their least and greatest values.
export class Columns {
  constructor(width, most = 1 << 18, whole = false) {
    Object.assign(this, {width, most, whole, from: 0, to: 0, thinned: 1});
    this.time = new Float64Array(256);
    this.value = new Float32Array(256 * width);
  }

  get length() { return this.to - this.from; }
  get last() { return this.to > this.from ? this.time[this.to - 1] : -Infinity; }

  push(t, values) {
    if (this.to === this.time.length) this.#makeRoom();
    let at = this.to++;
    // A stamp may lie before that of the batch ahead of it.
    while (at > this.from && this.time[at - 1] > t && this.to - at < 4096) this.#copy(at - 1, at--);
    this.time[at] = t;
    for (let i = 0; i < this.width; ++i) this.value[at * this.width + i] = values[i] ?? NaN;
  }

  // The first row that is not before t.
  find(t) {
    let low = this.from, high = this.to;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.time[middle] < t) low = middle + 1; else high = middle;
    }
    return low;
  }

  forget(before) { this.from = this.find(before); }

  #copy(from, to) {
    this.time[to] = this.time[from];
    this.value.copyWithin(to * this.width, from * this.width, (from + 1) * this.width);
  }

  #makeRoom() {
    const {width} = this;
    if (this.from < this.to / 4 && this.time.length < this.most) {
      const grown = [new Float64Array(this.to * 2), new Float32Array(this.to * 2 * width)];
      grown[0].set(this.time);
      grown[1].set(this.value);
      [this.time, this.value] = grown;
      return;
    }
    if (this.from < this.to / 4 && this.whole) return this.#thin();
    if (this.from < this.to / 4) this.from += this.length >> 2;
    this.time.copyWithin(0, this.from, this.to);
    this.value.copyWithin(0, this.from * width, this.to * width);
    this.to -= this.from;
    this.from = 0;
  }

  #thin() {
    const {width} = this;
    let to = 0;
    for (let at = 0; at + 4 <= this.to; at += 4) {
      for (let i = 0; i < width; ++i) {
        const four = [0, 1, 2, 3].map(k => this.value[(at + k) * width + i]);
        this.value[to * width + i] = Math.min(...four);
        this.value[(to + 1) * width + i] = Math.max(...four);
      }
      this.time[to++] = this.time[at];
      this.time[to++] = this.time[at + 2];
    }
    this.to = to;
    this.thinned *= 2;
  }
}

// Objects with a beginning `t` and perhaps an end `e`; the oldest go when there are more than most.
export class Items {
  constructor(most = 1000) {
    Object.assign(this, {most, all: [], lost: 0, longest: 0});
  }

  get last() { return this.all[this.all.length - 1]; }

  push(item) {
    let at = this.all.length;
    while (at > 0 && this.all[at - 1].t > item.t) --at;
    if (at === this.all.length) this.all.push(item); else this.all.splice(at, 0, item);
    this.grow(item);
    // A tenth at once: taking one off a long list costs as much.
    if (this.all.length > this.most * 1.1) this.lost += this.all.splice(0, this.all.length - this.most).length;
  }

  // An item's end is known, or another one.
  grow(item) { this.longest = Math.max(this.longest, (item.e ?? item.t) - item.t); }

  // The index of the first item that begins at t or later.
  find(t) {
    let low = 0, high = this.all.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.all[middle].t < t) low = middle + 1; else high = middle;
    }
    return low;
  }

  // Those that are, wholly or in part, within [from, to]; one without an end goes on.
  *within(from, to) {
    for (let i = this.find(from - this.longest); i < this.all.length && this.all[i].t <= to; ++i) {
      const item = this.all[i];
      if ((item.e === null ? Infinity : item.e ?? item.t) >= from) yield item;
    }
  }

  // The one at t or the last one before it.
  at(t) { return this.all[this.find(t + 1) - 1]; }

  // Of what ended before, one stays when it is a state, which holds until the next.
  forget(before, keepOne = false) {
    let gone = this.find(before) - (keepOne ? 1 : 0);
    while (gone > 0 && this.all[gone - 1].e === null) --gone;
    if (gone > this.all.length / 4) this.all.splice(0, gone);
  }
}
