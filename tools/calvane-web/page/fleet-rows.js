// A row for each camera of a fleet. Only those that are seen are on the page.
import { make } from "./dom.js";
import { Painter, prepare } from "./paint.js";
import { clockText, dateText, durationText } from "./time.js";

const HEIGHT = 46;
const CANVAS = HEIGHT - 1; // Above the line below a row.
const BAR = 22; // Of the row; below it are the marks.
const RULER = 34;
const BEYOND = 4; // Rows that are drawn outside of what is seen.
const LATE = 30; // Seconds behind which a camera is called late.

/** Dispatches "seen" when other rows are seen. */
export class FleetRows extends EventTarget {
  #fleet;
  #scene;
  #ruler;
  #list;
  #space;
  #painter;
  #rows = new Map(); // By index: {row, text, canvas}.
  #isAsked = false;

  constructor({ fleet, scene, ruler, list, space }) {
    super();
    Object.assign(this, { active: 0 });
    this.#fleet = fleet;
    this.#scene = scene;
    this.#ruler = ruler;
    this.#list = list;
    this.#space = space;
    this.#painter = new Painter(list, () => this.draw());
    ruler.style.height = `${RULER}px`;
    list.addEventListener("scroll", () => this.layout());
    new ResizeObserver(() => this.layout()).observe(list);
  }

  /** Where on the page time is, for Gestures. */
  timeBox() {
    return this.#ruler.getBoundingClientRect();
  }

  timeAt(x) {
    const { from, to } = this.#scene.view;
    return from + ((to - from) * x) / this.#ruler.clientWidth;
  }

  rowAt(y) {
    const index = Math.floor(y / HEIGHT);
    return index >= 0 && index < this.#fleet.total ? index : -1;
  }

  /** Indices of the first and the last row that are seen. */
  get seen() {
    const { scrollTop, clientHeight } = this.#list;
    return [Math.floor(scrollTop / HEIGHT), Math.min(this.#fleet.total, Math.ceil((scrollTop + clientHeight) / HEIGHT)) - 1];
  }

  /** The blocks of the rows that are seen, as far as their names are known. */
  get blocks() {
    const [first, last] = this.seen;
    const found = new Set();
    for (let index = first; index <= last; ++index) {
      found.add(this.#fleet.block(index));
    }
    found.delete(null);
    return [...found];
  }

  reveal(index) {
    const top = index * HEIGHT;
    const { scrollTop, clientHeight } = this.#list;
    if (top < scrollTop) {
      this.#list.scrollTop = top;
    } else if (top + HEIGHT > scrollTop + clientHeight) {
      this.#list.scrollTop = top + HEIGHT - clientHeight;
    }
    this.layout();
  }

  get perPage() {
    return Math.max(1, Math.floor(this.#list.clientHeight / HEIGHT) - 1);
  }

  /** After scrolling, or when there are other devices. */
  layout() {
    this.#space.style.height = `${this.#fleet.total * HEIGHT}px`;
    const [first, last] = this.seen;
    const [begin, end] = [Math.max(0, first - BEYOND), Math.min(this.#fleet.total - 1, last + BEYOND)];
    for (const [index, { row }] of this.#rows) {
      if (index < begin || index > end) {
        row.remove();
        this.#rows.delete(index);
      }
    }
    for (let index = begin; index <= end; ++index) {
      if (!this.#rows.has(index)) {
        this.#rows.set(index, this.#makeRow(index));
      }
    }
    this.#list.toggleAttribute("data-empty", this.#fleet.total === 0);
    this.dispatchEvent(new Event("seen"));
    this.draw();
  }

  #makeRow(index) {
    const name = make("b", {});
    const news = make("span", { className: "quiet" });
    const canvas = make("canvas", {});
    canvas.style.height = `${CANVAS}px`;
    canvas.setAttribute("aria-hidden", "true");
    const row = make("div", { className: "fleet-row", id: `row-${index}` }, make("div", { className: "fleet-name" }, name, news), canvas);
    row.setAttribute("role", "option");
    row.setAttribute("aria-posinset", String(index + 1));
    row.style.top = `${index * HEIGHT}px`;
    row.style.height = `${HEIGHT}px`;
    this.#space.append(row);
    return { row, name, news, canvas };
  }

  /** A frame is drawn soon, however often this is called. */
  draw() {
    if (!this.#isAsked) {
      this.#isAsked = true;
      requestAnimationFrame(() => {
        this.#isAsked = false;
        this.#drawNow();
      });
    }
  }

  #drawNow() {
    this.#drawRuler();
    this.#list.setAttribute("aria-activedescendant", this.#rows.has(this.active) ? `row-${this.active}` : "");
    for (const [index, parts] of this.#rows) {
      this.#drawRow(index, parts);
    }
  }

  #drawRuler() {
    const { view, zone, now, cursor, selection } = this.#scene;
    const drawing = prepare(this.#ruler, view, RULER, this.#painter.colours.surface);
    if (drawing) {
      const { context, axis } = drawing;
      this.#painter.ruler(context, axis, zone, RULER, 14);
      this.#painter.selection(context, axis, selection, RULER - 14, 14);
      this.#painter.moment(context, axis, now, "live", RULER - 14, 14);
      this.#painter.pointer(context, axis, cursor, RULER);
    }
  }

  #drawRow(index, { row, name, news, canvas }) {
    const { view, now, cursor, hover, selection, device } = this.#scene;
    const title = this.#fleet.name(index);
    const block = title === undefined ? null : this.#fleet.block(index);
    const isChosen = title !== undefined && title === device;
    row.setAttribute("aria-selected", String(isChosen));
    row.setAttribute("aria-setsize", String(this.#fleet.total));
    row.toggleAttribute("data-active", index === this.active);
    const text = this.describe(block?.facts.get(title));
    if (name.textContent !== (title ?? "…") || news.textContent !== text) {
      name.textContent = title ?? "…";
      name.title = title ?? "";
      news.textContent = text;
    }
    news.toggleAttribute("data-late", this.#isLate(block?.facts.get(title)));
    const { colours } = this.#painter;
    const drawing = prepare(canvas, view, CANVAS, colours.surface);
    if (!drawing) {
      return;
    }
    const { context, axis } = drawing;
    const labels = this.#painter.bars(context, axis, block ? block.pieces(title, view) : [], now, 4, BAR);
    this.#painter.labels(context, labels, 4 + BAR / 2);
    this.#painter.marks(context, axis, block?.events.get(title) ?? [], 4 + BAR - 1);
    this.#painter.selection(context, axis, isChosen ? selection : null, 0, CANVAS);
    this.#painter.moment(context, axis, now, "live", 0, CANVAS, 1);
    this.#painter.moment(context, axis, hover, "dim", 0, CANVAS, 1);
    this.#painter.moment(context, axis, cursor, "cursor", 0, CANVAS);
  }

  #isLate(facts) {
    return Boolean(facts?.error || (facts?.recorded && facts.lag > LATE));
  }

  /** What is known of a device, in a few words. */
  describe(facts) {
    if (!facts || facts.error) {
      return facts?.error ?? "…";
    }
    if (!facts.recorded) {
      return "nothing copied";
    }
    const { zone } = this.#scene;
    const { to } = facts.recorded;
    const isToday = dateText(to, zone) === dateText(Date.now(), zone);
    return `${isToday ? "" : `${dateText(to, zone)} `}${clockText(to, zone)}, ${durationText(Math.max(0, facts.lag) * 1000)} behind`;
  }
}
