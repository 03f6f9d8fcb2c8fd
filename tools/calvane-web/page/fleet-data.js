// What the fleet's streams have: names in pages, and coverage, newest times and events for some rows at a time.
import { getJson } from "./api.js";
import { Coverage, flatten } from "./coverage.js";
import { eventOf } from "./panels.js";
import { parseTime } from "./time.js";

const NAMES = 500; // Names that are asked for at once.
export const ROWS = 16; // Rows whose coverage is asked for at once.
const BUCKETS = 600; // Of a tile: a view has two of them or so.
const TILES = 24;
const BLOCKS = 24; // Kept, with those that were seen last.
const EVENTS = 200; // Of each device in view.
const RETRY = 3000;
const TAIL = 20_000; // What is recorded within this time may not have been told yet.

const spanOf = (recorded) => recorded && { from: parseTime(recorded.first), to: parseTime(recorded.last) };

/** Rows that follow one another. */
class Block extends Coverage {
  #fleet;
  #asked = null; // Of which view the events are.
  facts = new Map(); // By device: {recorded: {from, to} or null, lag, bytes} or {error}.
  events = new Map();
  omitted = 0; // Events that were too many.
  used = 0;

  constructor(names, fleet) {
    super(names, () => Date.now(), TILES);
    this.names = names;
    this.#fleet = fleet;
  }

  /** The spans of these devices; what else is told of them goes into `facts`. */
  async ask(names, from, to) {
    const parameters = { devices: names.join(","), track: this.#fleet.track, from, to, buckets: BUCKETS };
    const { devices } = await this.#fleet.ask("coverage", parameters);
    return new Map(Object.entries(devices).map(([name, { error, recorded, lag, bytes, spans }]) => {
      this.facts.set(name, error ? { error } : { recorded: spanOf(recorded), lag, bytes, seen: Date.now() });
      return [name, flatten(spans ?? [])];
    }));
  }

  /** What may have changed since it was asked for: what is new, and what was copied later. */
  async refresh(view, isAll) {
    const now = Date.now();
    this.invalidate(isAll ? -Infinity : now - Math.max(TAIL, (view.to - view.from) / BUCKETS), now);
    if (now < view.from || now > view.to) {
      await this.ask(this.names, now - 1000, now).catch(() => {}); // For the newest times.
    }
    this.want(view);
    this.wantEvents(view, true);
  }

  async wantEvents(view, isAgain = false) {
    const key = `${view.from} ${view.to}`;
    if (key === this.#asked && !isAgain) {
      return;
    }
    this.#asked = key;
    const parameters = { devices: this.names.join(","), from: view.from, to: view.to, limit: EVENTS };
    try {
      const { devices } = await this.#fleet.ask("history", parameters);
      if (this.#asked === key) {
        this.events = new Map(Object.entries(devices).map(([name, { events }]) => [name, (events ?? []).map(eventOf)]));
        this.omitted = Object.values(devices).reduce((sum, each) => sum + (each.omitted ?? 0), 0);
        this.dispatchEvent(new Event("change"));
      }
    } catch {
      this.#asked = null; // The fleet has said so.
    }
  }
}

/**
 * Dispatches "change" when there is more to draw, "list" when there are other devices, and "link" {state, text}: "up", or "down"
 * with the reason.
 */
export class Fleet extends EventTarget {
  #names = []; // By index; holes where they were not asked for.
  #pages = new Set();
  #blocks = new Map(); // By the index of their first row.
  #listing = 0; // Changes with what is searched for.
  search = "";
  track = "video";
  total = 0;
  state = "";

  /** One question; its outcome is told as "link". */
  async ask(what, parameters) {
    try {
      const answer = await getJson(`/api/fleet/${what}`, parameters);
      this.#link("up", "");
      return answer;
    } catch (error) {
      if (error.status === 0 || error.status === 503) {
        this.#link("down", error.message);
      }
      throw error;
    }
  }

  #link(state, text) {
    if (state !== this.state) {
      this.state = state;
      this.dispatchEvent(new CustomEvent("link", { detail: { state, text } }));
    }
  }

  /** Lists the devices whose names have a text in them. */
  list(search) {
    this.search = search;
    this.#listing += 1;
    this.#names = [];
    this.#pages.clear();
    this.#blocks.clear();
    this.total = 0;
    return this.#loadNames(0);
  }

  /** Devices may have come or gone. */
  async relist() {
    await Promise.all([...new Set([0, ...this.#pages])].map((page) => this.#loadNames(page, true)));
  }

  setTrack(track) {
    this.track = track;
    this.#blocks.clear();
    this.dispatchEvent(new Event("list"));
  }

  async #loadNames(page, isAgain = false) {
    if (this.#pages.has(page) && !isAgain) {
      return;
    }
    this.#pages.add(page);
    const listing = this.#listing;
    try {
      const parameters = { search: this.search || null, offset: page * NAMES, limit: NAMES };
      const { devices, total } = await this.ask("devices", parameters);
      if (listing === this.#listing) {
        this.#take(page * NAMES, devices, total);
      }
    } catch {
      setTimeout(() => listing === this.#listing && this.#pages.delete(page), RETRY); // Then a look at it asks again.
    }
  }

  #take(first, names, total) {
    const isSame = total === this.total && names.every((name, i) => this.#names[first + i] === name);
    if (isSame) {
      return;
    }
    this.total = total;
    this.#names.length = Math.min(this.#names.length, total);
    names.forEach((name, i) => (this.#names[first + i] = name));
    this.dispatchEvent(new Event("list"));
  }

  name(index) {
    return this.#names[index];
  }

  indexOf(name) {
    return this.#names.indexOf(name);
  }

  /** The rows of an index, once their names are known; they are fetched otherwise. */
  block(index) {
    const first = index - (index % ROWS);
    const last = Math.min(first + ROWS, this.total) - 1;
    this.#loadNames(Math.floor(first / NAMES));
    this.#loadNames(Math.floor(last / NAMES));
    const names = Array.from({ length: last - first + 1 }, (_, i) => this.#names[first + i]);
    if (names.length === 0 || names.includes(undefined)) {
      return null;
    }
    let block = this.#blocks.get(first);
    if (!block || block.names.join() !== names.join()) {
      block = new Block(names, this);
      block.addEventListener("change", () => this.dispatchEvent(new Event("change")));
      this.#blocks.set(first, block);
    }
    block.used = performance.now();
    this.#forgetOld();
    return block;
  }

  #forgetOld() {
    if (this.#blocks.size > BLOCKS) {
      const [[oldest]] = [...this.#blocks].sort((a, b) => a[1].used - b[1].used);
      this.#blocks.delete(oldest);
    }
  }
}
