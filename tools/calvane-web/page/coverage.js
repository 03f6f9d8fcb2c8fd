// What is recorded and why not, cached in tiles: stretches of time of a power of two, in so many buckets each.
import { getJson } from "./api.js";
import { parseTime } from "./time.js";

const BUCKETS = 2000;
const MAX_TILES = 150; // Of a track.
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
    flat.reason[i] = span.reason;
    flat.share[i] = span.mixed ? span.share : span.present ? 1 : 0;
  });
  return flat;
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
 * Dispatches "change" when there is more to draw. `now` gives the device's time: nothing is asked of later times.
 */
export class Coverage extends EventTarget {
  #tracks = new Map(); // Of name: Map of "level:index" to a tile.
  #wanted = [];
  #running = 0;
  #now;

  constructor(tracks, now) {
    super();
    tracks.forEach((track) => this.#tracks.set(track, new Map()));
    this.#now = now;
  }

  /** Fetches what is missing for a view; calls for an earlier view that still wait are given up. */
  want(view) {
    const level = levelOf(view.to - view.from);
    const length = lengthOf(level);
    const now = this.#now();
    this.#wanted = [];
    for (let index = Math.floor(view.from / length); index * length < Math.min(view.to, now); ++index) {
      for (const [track, tiles] of this.#tracks) {
        const tile = tiles.get(`${level}:${index}`);
        if (!tile || (tile.isStale && !tile.isBusy)) {
          this.#wanted.push({ track, level, index });
        } else {
          tile.used = performance.now();
        }
      }
    }
    this.#fetchNext();
  }

  /** What is known between two times, the finest that fits the view: flat spans with the times they hold for. */
  pieces(track, view) {
    const level = levelOf(view.to - view.from);
    const found = [];
    this.#collect(this.#tracks.get(track), level, view.from, view.to, found);
    return found;
  }

  #collect(tiles, level, from, to, found) {
    const length = lengthOf(level);
    for (let index = Math.floor(from / length); index * length < to; ++index) {
      const begin = Math.max(from, index * length);
      const end = Math.min(to, (index + 1) * length);
      const flat = this.#tileOrCoarser(tiles, level, index, begin, end);
      if (flat) {
        found.push({ from: begin, to: end, flat });
      } else if (level > 0) {
        this.#collectFiner(tiles, level, begin, end, found);
      }
    }
  }

  #tileOrCoarser(tiles, level, index) {
    for (let up = 0; up < 30; ++up) {
      const flat = tiles.get(`${level + up}:${Math.floor(index / 2 ** up)}`)?.flat;
      if (flat) {
        return flat;
      }
    }
    return null;
  }

  #collectFiner(tiles, level, from, to, found) {
    for (const finer of [level - 1, level - 2, level - 3].filter((each) => each >= 0)) {
      const length = lengthOf(finer);
      let isAny = false;
      for (let index = Math.floor(from / length); index * length < to; ++index) {
        const flat = tiles.get(`${finer}:${index}`)?.flat;
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
    for (const tiles of this.#tracks.values()) {
      for (const tile of tiles.values()) {
        tile.isStale ||= tile.from < to && tile.to > from;
      }
    }
  }

  #fetchNext() {
    while (this.#running < MAX_REQUESTS && this.#wanted.length) {
      this.#fetch(this.#wanted.shift());
    }
  }

  async #fetch({ track, level, index }) {
    const tiles = this.#tracks.get(track);
    const key = `${level}:${index}`;
    const tile = tiles.get(key) ?? { from: index * lengthOf(level), to: (index + 1) * lengthOf(level), flat: null };
    if (tile.isBusy) {
      return;
    }
    tile.isBusy = true;
    tile.isStale = false;
    tile.used = performance.now();
    tiles.set(key, tile);
    ++this.#running;
    try {
      const to = Math.min(tile.to, Math.max(this.#now(), tile.from + 1));
      const answer = await getJson("/api/coverage", { track, from: tile.from, to, buckets: BUCKETS });
      tile.flat = flatten(answer.spans);
    } catch (error) {
      tile.isStale = true; // What was known before is still the best there is.
      this.dispatchEvent(new CustomEvent("problem", { detail: error }));
    } finally {
      tile.isBusy = false;
      --this.#running;
    }
    this.#forgetOld(tiles);
    this.dispatchEvent(new Event("change"));
    this.#fetchNext();
  }

  #forgetOld(tiles) {
    if (tiles.size > MAX_TILES) {
      const [oldest] = [...tiles].filter(([, tile]) => !tile.isBusy).sort((a, b) => a[1].used - b[1].used);
      tiles.delete(oldest?.[0]);
    }
  }
}
