// The timeline: a ruler, a lane for each track and one for events, on a canvas.
import { Columns, fillColumns } from "./lanes.js";
import { REASON_COUNT, RECORDED, reasonName, reasonVariable } from "./reasons.js";
import { spanAt } from "./coverage.js";
import { clockText, dateText } from "./time.js";
import { ticksOf } from "./scale.js";

const RULER = 40;
const LANE = 30;
const GAP = 6;
const EVENTS = 22;
const TICK_ROOM = 76; // Pixels between ticks that have a text.

/** Everything that a frame shows; the page's parts change it and ask for a frame. */
export function emptyScene() {
  return { view: null, zone: "local", cursor: NaN, hover: NaN, now: 0, selection: null, events: [], newest: {}, erased: [] };
}

export class Timeline {
  #canvas;
  #context;
  #tracks;
  #coverage;
  #scene;
  #columns = new Columns();
  #colours = {};
  #hatch = null;
  #isAsked = false;
  #width = 0;

  constructor(canvas, tracks, coverage, scene) {
    this.#canvas = canvas;
    this.#context = canvas.getContext("2d", { alpha: false });
    this.#tracks = tracks;
    this.#coverage = coverage;
    this.#scene = scene;
    canvas.style.height = `${this.height}px`;
    new ResizeObserver(() => this.#resize()).observe(canvas);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => this.readColours());
    this.readColours();
    coverage.addEventListener("change", () => this.draw());
  }

  get height() {
    return RULER + this.#tracks.length * (LANE + GAP) + EVENTS + GAP;
  }

  get width() {
    return this.#width;
  }

  timeAt(x) {
    const { from, to } = this.#scene.view;
    return from + ((to - from) * x) / this.#width;
  }

  xOf(time) {
    const { from, to } = this.#scene.view;
    return ((time - from) / (to - from)) * this.#width;
  }

  /** The track whose lane is at a height; undefined beside the lanes. */
  trackAt(y) {
    const lane = Math.floor((y - RULER) / (LANE + GAP));
    return y < RULER ? undefined : this.#tracks[lane]?.name;
  }

  /** The event drawn nearest to a place, within some pixels. */
  eventAt(x, y) {
    if (y < this.height - EVENTS - GAP) {
      return undefined;
    }
    const near = this.#scene.events.map((event) => ({ event, far: Math.abs(this.xOf(event.time) - x) }))
      .filter(({ far }) => far < 8).sort((a, b) => a.far - b.far);
    return near[0]?.event;
  }

  /** A frame is drawn soon, however often this is called. */
  draw() {
    if (!this.#isAsked) {
      this.#isAsked = true;
      requestAnimationFrame(() => {
        this.#isAsked = false;
        this.drawNow();
      });
    }
  }

  readColours() {
    const style = getComputedStyle(this.#canvas);
    const read = (name) => style.getPropertyValue(name).trim();
    for (const name of ["surface", "lane", "line", "text", "dim", "accent", "live", "select", "cursor"]) {
      this.#colours[name] = read(`--${name}`);
    }
    this.#colours.reasons = Array.from({ length: REASON_COUNT }, (_, reason) => read(reasonVariable(reason)));
    this.#hatch = this.#makeHatch();
    this.draw();
  }

  #makeHatch() {
    const tile = document.createElement("canvas");
    tile.width = tile.height = 8;
    const context = tile.getContext("2d");
    context.strokeStyle = this.#colours.live;
    context.lineWidth = 1.5;
    context.beginPath();
    for (const shift of [-8, 0, 8]) {
      context.moveTo(shift, 8);
      context.lineTo(shift + 8, 0);
    }
    context.stroke();
    return this.#context.createPattern(tile, "repeat");
  }

  #resize() {
    const ratio = window.devicePixelRatio || 1;
    this.#width = this.#canvas.clientWidth;
    this.#canvas.width = Math.round(this.#width * ratio);
    this.#canvas.height = Math.round(this.height * ratio);
    this.drawNow();
  }

  drawNow() {
    const context = this.#context;
    if (!this.#scene.view || !this.#width) {
      return;
    }
    const ratio = this.#canvas.width / this.#width;
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    context.fillStyle = this.#colours.surface;
    context.fillRect(0, 0, this.#width, this.height);
    this.#drawRuler(context);
    this.#tracks.forEach((track, i) => this.#drawLane(context, track, RULER + i * (LANE + GAP), ratio));
    this.#drawErased(context);
    this.#drawEvents(context);
    this.#drawSelection(context);
    this.#drawMoments(context);
  }

  #drawRuler(context) {
    const { view, zone } = this.#scene;
    const { dim, text, line } = this.#colours;
    const least = ((view.to - view.from) / this.#width) * TICK_ROOM;
    context.font = "12px system-ui, sans-serif";
    context.textBaseline = "alphabetic";
    context.textAlign = "left";
    for (const tick of ticksOf(view, least, zone)) {
      const x = Math.round(this.xOf(tick.time)) + 0.5;
      context.fillStyle = line;
      context.fillRect(x - 0.5, RULER - 14, 1, this.height);
      context.fillStyle = tick.isMajor ? text : dim;
      context.fillText(tick.text, x + 4, RULER - 6);
    }
    context.fillStyle = text;
    context.font = "600 12px system-ui, sans-serif";
    context.fillText(view.to - view.from > 40 * 86_400_000
      ? `${dateText(view.from, zone)} – ${dateText(view.to, zone)}`
      : `${dateText(view.from, zone)} ${clockText(view.from, zone).slice(0, 5)}`, 8, 14);
  }

  #drawLane(context, track, top, ratio) {
    const { view, newest, now } = this.#scene;
    const width = Math.round(this.#width * ratio);
    const { reasons, lane } = this.#colours;
    context.fillStyle = lane;
    context.fillRect(0, top, Math.min(this.#width, Math.max(0, this.xOf(now))), LANE);
    fillColumns(this.#columns, this.#coverage.pieces(track.name, view), view, width, spanAt);
    const labels = [];
    this.#columns.runs((from, to, reason, share) => {
      const x = from / ratio;
      const length = (to - from) / ratio;
      if (share < 1) {
        context.fillStyle = reasons[reason];
        context.fillRect(x, top + 4, length, LANE - 8);
        if (length > 60 && share === 0) {
          labels.push({ x, length, text: reasonName(reason) });
        }
      }
      if (share > 0) {
        context.fillStyle = reasons[RECORDED];
        const part = Math.round(LANE * share);
        context.fillRect(x, top + LANE - part, length, part);
      }
    });
    this.#drawLiveEnd(context, newest[track.name], top);
    this.#drawLabels(context, labels, top);
    this.#drawName(context, track.title, top);
  }

  /** What came since the coverage was fetched. */
  #drawLiveEnd(context, newest, top) {
    if (newest) {
      const from = Math.max(this.xOf(newest.since), 0);
      const to = Math.min(this.xOf(newest.time), this.#width);
      if (to > from) {
        context.fillStyle = this.#colours.reasons[RECORDED];
        context.fillRect(from, top, to - from, LANE);
      }
    }
  }

  #drawLabels(context, labels, top) {
    context.font = "11px system-ui, sans-serif";
    context.textBaseline = "middle";
    context.textAlign = "center";
    context.fillStyle = this.#colours.text;
    for (const { x, length, text } of labels) {
      if (context.measureText(text).width + 12 < length) {
        context.fillText(text, x + length / 2, top + LANE / 2);
      }
    }
  }

  #drawName(context, title, top) {
    context.font = "600 11px system-ui, sans-serif";
    context.textAlign = "left";
    context.textBaseline = "middle";
    const width = context.measureText(title).width;
    context.globalAlpha = 0.82;
    context.fillStyle = this.#colours.surface;
    context.beginPath();
    context.roundRect(6, top + 7, width + 12, LANE - 14, 4);
    context.fill();
    context.globalAlpha = 1;
    context.fillStyle = this.#colours.text;
    context.fillText(title, 12, top + LANE / 2);
  }

  /** What was erased while the page is open. */
  #drawErased(context) {
    const lanes = this.#tracks.length * (LANE + GAP) - GAP;
    for (const { from, to } of this.#scene.erased) {
      const left = Math.max(this.xOf(from), 0);
      const right = Math.min(this.xOf(to), this.#width);
      if (right > left) {
        context.globalAlpha = 0.55;
        context.fillStyle = this.#hatch;
        context.fillRect(left, RULER, right - left, lanes);
        context.globalAlpha = 1;
      }
    }
  }

  #drawEvents(context) {
    const top = this.height - EVENTS - GAP;
    this.#drawName(context, "Events", top - 5);
    for (const event of this.#scene.events) {
      const x = this.xOf(event.time);
      if (x < -8 || x > this.#width + 8) {
        continue;
      }
      context.fillStyle = event.present ? this.#colours.reasons[RECORDED] : this.#colours.live;
      context.beginPath();
      if (event.present) { // Shape tells as much as colour.
        context.moveTo(x - 4, top + 4);
        context.lineTo(x + 5, top + 10);
        context.lineTo(x - 4, top + 16);
      } else {
        context.rect(x - 4, top + 6, 8, 8);
      }
      context.fill();
    }
  }

  #drawSelection(context) {
    const { selection } = this.#scene;
    if (!selection) {
      return;
    }
    const left = this.xOf(selection.from);
    const right = this.xOf(selection.to);
    context.globalAlpha = 0.22;
    context.fillStyle = this.#colours.select;
    context.fillRect(left, RULER - 14, right - left, this.height - RULER + 14);
    context.globalAlpha = 1;
    for (const x of [left, right]) {
      context.fillStyle = this.#colours.select;
      context.fillRect(x - 1, RULER - 14, 2, this.height);
    }
  }

  #drawMoments(context) {
    const { now, hover, cursor } = this.#scene;
    const { live, dim, cursor: mark } = this.#colours;
    context.fillStyle = live;
    context.fillRect(Math.round(this.xOf(now)), RULER - 14, 2, this.height);
    if (Number.isFinite(hover)) {
      context.fillStyle = dim;
      context.fillRect(Math.round(this.xOf(hover)), RULER - 14, 1, this.height);
    }
    if (Number.isFinite(cursor)) {
      const x = Math.round(this.xOf(cursor));
      context.fillStyle = mark;
      context.fillRect(x - 1, RULER - 14, 2, this.height);
      context.beginPath();
      context.moveTo(x - 7, RULER - 20);
      context.lineTo(x + 7, RULER - 20);
      context.lineTo(x, RULER - 9);
      context.fill();
    }
  }
}
