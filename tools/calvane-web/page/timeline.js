// The timeline: a ruler, a lane for each track and one for events, on a canvas.
import { Axis, Painter, prepare } from "./paint.js";
import { RECORDED } from "./reasons.js";

const RULER = 40;
const LANE = 30;
const GAP = 6;
const EVENTS = 22;

/** Everything that a frame shows; the page's parts change it and ask for a frame. */
export function emptyScene() {
  return { view: null, zone: "local", cursor: NaN, hover: NaN, now: 0, selection: null, events: [], newest: {}, erased: [] };
}

export class Timeline {
  #canvas;
  #tracks;
  #coverage;
  #scene;
  #painter;
  #hatch = null;
  #isAsked = false;
  #width = 0;

  constructor(canvas, tracks, coverage, scene) {
    this.#canvas = canvas;
    this.#tracks = tracks;
    this.#coverage = coverage;
    this.#scene = scene;
    this.#painter = new Painter(canvas, () => this.#onColours());
    canvas.style.height = `${this.height}px`;
    new ResizeObserver(() => this.#resize()).observe(canvas);
    this.#onColours();
    coverage.addEventListener("change", () => this.draw());
  }

  get height() {
    return RULER + this.#tracks.length * (LANE + GAP) + EVENTS + GAP;
  }

  get width() {
    return this.#width;
  }

  get #axis() {
    return new Axis(this.#scene.view, this.#width);
  }

  timeAt(x) {
    return this.#axis.timeAt(x);
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
    const axis = this.#axis;
    const near = this.#scene.events.map((event) => ({ event, far: Math.abs(axis.xOf(event.time) - x) }))
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

  #onColours() {
    this.#hatch = this.#makeHatch();
    this.draw();
  }

  #makeHatch() {
    const tile = document.createElement("canvas");
    tile.width = tile.height = 8;
    const context = tile.getContext("2d");
    context.strokeStyle = this.#painter.colours.live;
    context.lineWidth = 1.5;
    context.beginPath();
    for (const shift of [-8, 0, 8]) {
      context.moveTo(shift, 8);
      context.lineTo(shift + 8, 0);
    }
    context.stroke();
    return context.createPattern(tile, "repeat");
  }

  #resize() {
    this.#width = this.#canvas.clientWidth;
    this.drawNow();
  }

  drawNow() {
    const { view, zone, now, hover, cursor, selection, events } = this.#scene;
    const drawing = view && prepare(this.#canvas, view, this.height, this.#painter.colours.surface);
    if (!drawing) {
      return;
    }
    const { context, axis } = drawing;
    const painter = this.#painter;
    painter.ruler(context, axis, zone, RULER, this.height);
    this.#tracks.forEach((track, i) => this.#drawLane(context, axis, track, RULER + i * (LANE + GAP)));
    this.#drawErased(context, axis);
    const top = this.height - EVENTS - GAP;
    painter.name(context, "Events", top - 5, LANE);
    painter.marks(context, axis, events, top);
    painter.selection(context, axis, selection, RULER - 14, this.height);
    painter.moment(context, axis, now, "live", RULER - 14, this.height);
    painter.moment(context, axis, hover, "dim", RULER - 14, this.height, 1);
    painter.moment(context, axis, cursor, "cursor", RULER - 14, this.height);
    painter.pointer(context, axis, cursor, RULER - 9);
  }

  #drawLane(context, axis, track, top) {
    const { view, newest, now } = this.#scene;
    const pieces = this.#coverage.pieces(track.name, view);
    const labels = this.#painter.bars(context, axis, pieces, now, top, LANE);
    this.#drawLiveEnd(context, axis, newest[track.name], top);
    this.#painter.labels(context, labels, top + LANE / 2);
    this.#painter.name(context, track.title, top, LANE);
  }

  /** What came since the coverage was fetched. */
  #drawLiveEnd(context, axis, newest, top) {
    if (newest) {
      const from = Math.max(axis.xOf(newest.since), 0);
      const to = Math.min(axis.xOf(newest.time), axis.width);
      if (to > from) {
        context.fillStyle = this.#painter.colours.reasons[RECORDED];
        context.fillRect(from, top, to - from, LANE);
      }
    }
  }

  /** What was erased while the page is open. */
  #drawErased(context, axis) {
    const lanes = this.#tracks.length * (LANE + GAP) - GAP;
    for (const { from, to } of this.#scene.erased) {
      const left = Math.max(axis.xOf(from), 0);
      const right = Math.min(axis.xOf(to), axis.width);
      if (right > left) {
        context.globalAlpha = 0.55;
        context.fillStyle = this.#hatch;
        context.fillRect(left, RULER, right - left, lanes);
        context.globalAlpha = 1;
      }
    }
  }
}
