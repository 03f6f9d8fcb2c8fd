// Which time is in view, where the cursor is and what is selected; all the page's parts go by it.
import { moved, viewAround } from "./scale.js";
import { readPlace, writePlace } from "./place.js";
import { DAY, HOUR } from "./time.js";

const SETTLE = 150; // Milliseconds without a change after which lists and the address follow.
const LIVE_SHARE = 0.9; // Where the live edge stays in a view that follows it.

/** Dispatches "view", "cursor" and "selection" at once, and "settled" when the view has come to rest. */
export class Navigator extends EventTarget {
  #scene;
  #live;
  #timer = 0;
  #isRestoring = false;
  range = null; // {from, to} of all that is recorded.
  follows = false; // The view goes with the live edge.

  constructor(scene, live) {
    super();
    this.#scene = scene;
    this.#live = live;
    scene.view = viewAround(live.now(), HOUR, LIVE_SHARE);
  }

  get view() {
    return this.#scene.view;
  }

  get span() {
    return this.view.to - this.view.from;
  }

  setView(view, isByUser = true) {
    this.#scene.view = view;
    if (isByUser) {
      const now = this.#live.now();
      this.follows = this.follows && now > view.from && now <= view.to;
    }
    this.#emit("view");
    this.#settle();
  }

  moveBy(share) {
    this.setView(moved(this.view, this.span * share));
  }

  /** Everything that is recorded, with some room beside it. */
  showAll() {
    const { from, to } = this.range ?? { from: this.#live.now() - DAY, to: this.#live.now() };
    const room = Math.max((to - from) * 0.04, 1000);
    this.setView({ from: from - room, to: to + room });
  }

  /** So long a view around the cursor if that is in view, or around the middle. */
  showSpan(span) {
    const { cursor, view } = this.#scene;
    const isShown = cursor >= view.from && cursor <= view.to;
    const share = isShown ? (cursor - view.from) / this.span : 0.5;
    this.setView(viewAround(isShown ? cursor : (view.from + view.to) / 2, span, share));
  }

  followLive() {
    this.follows = true;
    this.setView(viewAround(this.#live.now(), Math.min(this.span, 30 * DAY), LIVE_SHARE), false);
  }

  setCursor(time) {
    this.#scene.cursor = time;
    this.#emit("cursor");
    this.#settle();
  }

  /** Moves the view when a time is outside of it. */
  reveal(time) {
    if (!(time >= this.view.from && time <= this.view.to)) {
      this.setView(viewAround(time, this.span, 0.3));
    }
  }

  /** While something is played: the view turns the page when the cursor leaves it. */
  keepInView(time) {
    const { from, to } = this.view;
    if (!this.follows && time > to - this.span * 0.02 && time < to + this.span * 0.2) {
      this.setView({ from: from + this.span * 0.8, to: to + this.span * 0.8 }, false);
    }
  }

  setSelection(a, b) {
    this.#scene.selection = Number.isFinite(a) && Number.isFinite(b) && a !== b
      ? { from: Math.min(a, b), to: Math.max(a, b) } : null;
    this.#emit("selection");
    this.#settle();
  }

  setZone(zone) {
    this.#scene.zone = zone;
    this.#emit("zone");
    this.#emit("view");
    this.#settle();
  }

  /** Called every frame or so: the live edge moves, and the view with it if it follows. */
  tick() {
    this.#scene.now = this.#live.now();
    if (this.follows) {
      this.#scene.view = viewAround(this.#scene.now, this.span, LIVE_SHARE);
    }
  }

  #viewOf({ view, live }) {
    return view ?? (live ? viewAround(this.#live.now(), live, LIVE_SHARE) : this.view);
  }

  /** The view that restore() leads to. */
  get placedView() {
    return this.#viewOf(readPlace(location.hash));
  }

  /** As the address says. Gives what it says of the cursor; `live` is NaN unless the view goes with the live edge. */
  restore() {
    this.#isRestoring = true;
    const place = readPlace(location.hash);
    if (place.view) {
      this.follows = false;
    }
    if (place.view || place.live) {
      this.setView(this.#viewOf(place), false);
    }
    if (place.zone) {
      this.setZone(place.zone);
    }
    if (place.selection) {
      this.setSelection(place.selection.from, place.selection.to);
    }
    this.#isRestoring = false;
    return place;
  }

  #settle() {
    clearTimeout(this.#timer);
    this.#timer = setTimeout(() => {
      this.#emit("settled");
      if (!this.#isRestoring) {
        const { view, cursor, selection, zone, device } = this.#scene;
        history.replaceState(null, "", writePlace({ view, cursor, selection, zone, device, isLive: this.follows }));
      }
    }, SETTLE);
  }

  #emit(name) {
    this.dispatchEvent(new Event(name));
  }
}
