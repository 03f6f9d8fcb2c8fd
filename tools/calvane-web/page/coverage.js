// What is recorded and why not, cached in tiles: stretches of time of a power of two, in so many buckets each.
import { getJson } from "./api.js";
import { NOT_BEGUN, UNKNOWN, reasonOf } from "./reasons.js";
import { parseTime } from "./time.js";

const BUCKETS = 2000;
const MAX_TILES = 150;
const MAX_REQUESTS = 3;
const SMALLEST = 1024; // Milliseconds.

function levelOf(span) {
  return Math.max(0, Math.ceil(Math.log2(span / 2 / SMALLEST)));
}

function lengthOf(level) {
  return SMALLEST * 2 ** level;
}

/** Spans of an answer as flat arrays, which are fast to draw. */
export function flatten(spans) {
  const flat = { count: spans.length, from: new Float64Array(spans.length), to: new Float64Array(spans.length),
    reason: new Uint8Array(spans.length), share: new Float32Array(spans.length) };
  spans.forEach((span, i) => {
    flat.from[i] = parseTime(span.from);
    flat.to[i] = parseTime(span.to);
    flat.reason[i] = reasonOf(span.reason);
    flat.share[i] = span.mixed ? span.share : span.present ? 1 : 0;
  });
  return flat;
}

/** Nothing can be known of the time before the first record, at `begin`: that is no reason for its absence. */
function labelBegin(flat, begin) {
  for (let i = 0; i < flat.count && flat.from[i] < begin; ++i) {
    if (flat.reason[i] === UNKNOWN) {
      flat.reason[i] = NOT_BEGUN;
    }
  }
}

/** The index of the last span that begins at or before a time; -1 if none does. */
export function spanAt(flat, time) {
  let low = 0;
  let high = flat.count;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (flat.from[middle] <= time) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low - 1;
}

/**
 * Dispatches "change" when there is more to draw, and "loaded" when nothing more is on its way. `now` gives the device's time:
 * nothing is asked of later times.
 */
export class Coverage extends EventTarget {
  #tracks;
  #tiles = new Map(); // Of "level:index"; `flats` of a tile are by track.
  #begins = {}; // Of tracks: when their first record is; Infinity if there is none.
  #wanted = [];
  #running = 0;
  #now;
  #mostTiles;

  constructor(tracks, now, mostTiles = MAX_TILES) {
    super();
    this.#tracks = tracks;
    this.#now = now;
    this.#mostTiles = mostTiles;
  }

  /** `begins`: the time of the first record of each track, Infinity for a track that has none. */
  setBegins(begins) {
    this.#begins = begins;
    for (const { flats } of this.#tiles.values()) {
      flats?.forEach((flat, track) => labelBegin(flat, begins[track]));
    }
    this.dispatchEvent(new Event("change"));
  }

  /** Whether a track was never recorded, as far as is known. */
  hasNone(track) {
    return this.#begins[track] === Infinity;
  }

  /** Fetches what is missing for a view; calls for an earlier view that still wait are given up. */
  want(view) {
    const level = levelOf(view.to - view.from);
    const length = lengthOf(level);
    const now = this.#now();
    this.#wanted = [];
    for (let index = Math.floor(view.from / length); index * length < Math.min(view.to, now); ++index) {
      const tile = this.#tiles.get(`${level}:${index}`);
      if (!tile || (tile.isStale && !tile.isBusy)) {
        this.#wanted.push({ level, index });
      } else {
        tile.used = performance.now();
      }
    }
    this.#fetchNext();
  }

  /** What is known between two times, the finest that fits the view: flat spans with the times they hold for. */
  pieces(track, view) {
    const level = levelOf(view.to - view.from);
    const found = [];
    this.#collect(track, level, view.from, view.to, found);
    return found;
  }

  #flatOf(track, level, index) {
    return this.#tiles.get(`${level}:${index}`)?.flats?.get(track);
  }

  #collect(track, level, from, to, found) {
    const length = lengthOf(level);
    for (let index = Math.floor(from / length); index * length < to; ++index) {
      const begin = Math.max(from, index * length);
      const end = Math.min(to, (index + 1) * length);
      const flat = this.#flatOrCoarser(track, level, index);
      if (flat) {
        found.push({ from: begin, to: end, flat });
      } else if (level > 0) {
        this.#collectFiner(track, level, begin, end, found);
      }
    }
  }

  #flatOrCoarser(track, level, index) {
    for (let up = 0; up < 30; ++up) {
      const flat = this.#flatOf(track, level + up, Math.floor(index / 2 ** up));
      if (flat) {
        return flat;
      }
    }
    return null;
  }

  #collectFiner(track, level, from, to, found) {
    for (const finer of [level - 1, level - 2, level - 3].filter((each) => each >= 0)) {
      const length = lengthOf(finer);
      let isAny = false;
      for (let index = Math.floor(from / length); index * length < to; ++index) {
        const flat = this.#flatOf(track, finer, index);
        if (flat) {
          found.push({ from: Math.max(from, index * length), to: Math.min(to, (index + 1) * length), flat });
          isAny = true;
        }
      }
      if (isAny) {
        return;
      }
    }
  }

  /** What is known at a time: {from, to, reason, share}, or null. */
  at(track, time, view) {
    for (const piece of this.pieces(track, view)) {
      if (time >= piece.from && time < piece.to) {
        const i = spanAt(piece.flat, time);
        const { flat } = piece;
        return i >= 0 && time <= flat.to[i]
          ? { from: flat.from[i], to: flat.to[i], reason: flat.reason[i], share: flat.share[i] } : null;
      }
    }
    return null;
  }

  /** What is known between two times may have changed: it is fetched again when it is wanted. */
  invalidate(from, to) {
    for (const tile of this.#tiles.values()) {
      tile.isStale ||= tile.from < to && tile.to > from;
    }
  }

  /** The spans of a time that need not be in view, by track. */
  async ask(tracks, from, to, options) {
    const answer = await getJson("/api/coverage", { tracks: tracks.join(","), from, to, buckets: BUCKETS }, options);
    return new Map(Object.entries(answer.tracks).map(([track, { spans }]) => {
      const flat = flatten(spans);
      labelBegin(flat, this.#begins[track]);
      return [track, flat];
    }));
  }

  #fetchNext() {
    while (this.#running < MAX_REQUESTS && this.#wanted.length) {
      this.#fetch(this.#wanted.shift());
    }
  }

  async #fetch({ level, index }) {
    const key = `${level}:${index}`;
    const tile = this.#tiles.get(key) ?? { from: index * lengthOf(level), to: (index + 1) * lengthOf(level), flats: null };
    if (tile.isBusy) {
      return;
    }
    tile.isBusy = true;
    tile.isStale = false;
    tile.used = performance.now();
    this.#tiles.set(key, tile);
    ++this.#running;
    try {
      const to = Math.min(tile.to, Math.max(this.#now(), tile.from + 1));
      tile.flats = await this.ask(this.#tracks, tile.from, to);
    } catch (error) {
      tile.isStale = true; // What was known before is still the best there is.
      this.dispatchEvent(new CustomEvent("problem", { detail: error }));
    } finally {
      tile.isBusy = false;
      --this.#running;
    }
    this.#forgetOld();
    this.dispatchEvent(new Event("change"));
    this.#fetchNext();
    if (this.#running === 0) {
      this.dispatchEvent(new Event("loaded"));
    }
  }

  #forgetOld() {
    if (this.#tiles.size > this.#mostTiles) {
      const [oldest] = [...this.#tiles].filter(([, tile]) => !tile.isBusy).sort((a, b) => a[1].used - b[1].used);
      this.#tiles.delete(oldest?.[0]);
    }
  }
}
