// Draws spans of a track as columns of pixels, so that the cost is that of the width and not of the number of spans.
import { REASON_COUNT, RECORDED } from "./reasons.js";

const SHADES = 8; // Of how much of a column is recorded.

/**
 * What each column of a lane shows, summed over spans that may be narrower than a column. Kept between frames: it is
 * allocated once for a width.
 */
export class Columns {
  #width = 0;
  #present;
  #absent;
  #longest; // The longest gap's length and reason, of those in the column.
  #reason;

  reset(width) {
    if (width !== this.#width) {
      this.#width = width;
      this.#present = new Float32Array(width);
      this.#absent = new Float32Array(width);
      this.#longest = new Float32Array(width);
      this.#reason = new Uint8Array(width);
    }
    this.#present.fill(0);
    this.#absent.fill(0);
    this.#longest.fill(0);
    this.#reason.fill(0);
  }

  /** Adds the part between the columns `left` and `right` (fractions) with `share` of it recorded. */
  add(left, right, reason, share) {
    const begin = Math.max(0, left);
    const end = Math.min(this.#width, right);
    if (share < 1 && end >= begin && end - begin < 0.01) {
      this.#note(Math.min(Math.floor(begin), this.#width - 1), 0.01, reason, share); // No gap is too short to be seen.
      return;
    }
    for (let column = Math.floor(begin); column < end; ++column) {
      this.#note(column, Math.min(end, column + 1) - Math.max(begin, column), reason, share);
    }
  }

  #note(column, length, reason, share) {
    this.#present[column] += length * share;
    const gap = length * (1 - share);
    if (gap > 0) {
      this.#absent[column] += gap;
      if (gap > this.#longest[column]) {
        this.#longest[column] = gap;
        this.#reason[column] = reason;
      }
    }
  }

  /** A number for what a column shows, the same for columns that look alike: -1 nothing. */
  look(column) {
    const present = this.#present[column];
    const absent = this.#absent[column];
    if (present + absent === 0) {
      return -1;
    }
    if (absent === 0) {
      return SHADES * REASON_COUNT;
    }
    const shade = present === 0 ? 0 : Math.min(SHADES - 1, Math.max(1, Math.round((present / (present + absent)) * SHADES)));
    return this.#reason[column] * SHADES + shade;
  }

  /** Calls `each(from, to, reason, share)` for every run of columns that look alike. */
  runs(each) {
    for (let from = 0; from < this.#width; ) {
      const look = this.look(from);
      let to = from + 1;
      while (to < this.#width && this.look(to) === look) {
        ++to;
      }
      if (look >= 0) {
        const isAll = look === SHADES * REASON_COUNT;
        each(from, to, isAll ? RECORDED : Math.floor(look / SHADES), isAll ? 1 : (look % SHADES) / SHADES);
      }
      from = to;
    }
  }
}

/** Fills columns from the pieces that Coverage gives for a view. */
export function fillColumns(columns, pieces, view, width, spanAt) {
  columns.reset(width);
  const scale = width / (view.to - view.from);
  for (const { from, to, flat } of pieces) {
    for (let i = Math.max(0, spanAt(flat, from)); i < flat.count && flat.from[i] < to; ++i) {
      const begin = Math.max(from, flat.from[i]);
      const end = Math.min(to, flat.to[i]);
      if (end >= begin) {
        columns.add((begin - view.from) * scale, (end - view.from) * scale, flat.reason[i], flat.share[i]);
      }
    }
  }
}
