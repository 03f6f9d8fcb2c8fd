// Draws time: a ruler, what is recorded as bars, events as marks, the selection and the cursor, in the page's colours.
import { Columns, fillColumns } from "./lanes.js";
import { REASON_COUNT, RECORDED, reasonName, reasonVariable } from "./reasons.js";
import { spanAt } from "./coverage.js";
import { clockText, dateText } from "./time.js";
import { ticksOf } from "./scale.js";

const TICK_ROOM = 76; // Pixels between ticks that have a text.

/** Where time lies on a canvas that is `width` pixels wide and has `ratio` of the screen's for each of them. */
export class Axis {
  constructor(view, width, ratio = 1) {
    this.view = view;
    this.width = width;
    this.ratio = ratio;
  }

  timeAt(x) {
    return this.view.from + ((this.view.to - this.view.from) * x) / this.width;
  }

  xOf(time) {
    return ((time - this.view.from) / (this.view.to - this.view.from)) * this.width;
  }
}

export class Painter {
  #element;
  #columns = new Columns();
  colours = {};

  /** In the colours that the style gives an element; `onColours` is called when they change. */
  constructor(element, onColours) {
    this.#element = element;
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
      this.#readColours();
      onColours();
    });
    this.#readColours();
  }

  #readColours() {
    const style = getComputedStyle(this.#element);
    const read = (name) => style.getPropertyValue(name).trim();
    for (const name of ["surface", "lane", "line", "text", "dim", "accent", "live", "select", "cursor"]) {
      this.colours[name] = read(`--${name}`);
    }
    this.colours.reasons = Array.from({ length: REASON_COUNT }, (_, reason) => read(reasonVariable(reason)));
  }

  /** Ticks from the lower end of the ruler down to `height`, with their texts. */
  ruler(context, axis, zone, bottom, height) {
    const { view } = axis;
    const { dim, text, line } = this.colours;
    const least = ((view.to - view.from) / axis.width) * TICK_ROOM;
    context.font = "12px system-ui, sans-serif";
    context.textBaseline = "alphabetic";
    context.textAlign = "left";
    for (const tick of ticksOf(view, least, zone)) {
      const x = Math.round(axis.xOf(tick.time)) + 0.5;
      context.fillStyle = line;
      context.fillRect(x - 0.5, bottom - 14, 1, height);
      context.fillStyle = tick.isMajor ? text : dim;
      context.fillText(tick.text, x + 4, bottom - 6);
    }
    context.fillStyle = text;
    context.font = "600 12px system-ui, sans-serif";
    context.fillText(view.to - view.from > 40 * 86_400_000
      ? `${dateText(view.from, zone)} – ${dateText(view.to, zone)}`
      : `${dateText(view.from, zone)} ${clockText(view.from, zone).slice(0, 5)}`, 8, 14);
  }

  /** The pieces that Coverage gives of a track, up to `now`. */
  bars(context, axis, pieces, now, top, height) {
    const { view, width, ratio } = axis;
    const { reasons, lane } = this.colours;
    context.fillStyle = lane;
    context.fillRect(0, top, Math.min(width, Math.max(0, axis.xOf(now))), height);
    fillColumns(this.#columns, pieces, view, Math.round(width * ratio), spanAt);
    const labels = [];
    this.#columns.runs((from, to, reason, share) => {
      const x = from / ratio;
      const length = (to - from) / ratio;
      if (share < 1) {
        context.fillStyle = reasons[reason];
        context.fillRect(x, top + 4, length, height - 8);
        if (length > 60 && share === 0) {
          labels.push({ x, length, text: reasonName(reason) });
        }
      }
      if (share > 0) {
        context.fillStyle = reasons[RECORDED];
        const part = Math.round(height * share);
        context.fillRect(x, top + height - part, length, part);
      }
    });
    return labels;
  }

  /** The names of gaps that are long enough, as bars() has found them. */
  labels(context, labels, middle) {
    context.font = "11px system-ui, sans-serif";
    context.textBaseline = "middle";
    context.textAlign = "center";
    context.fillStyle = this.colours.text;
    for (const { x, length, text } of labels) {
      if (context.measureText(text).width + 12 < length) {
        context.fillText(text, x + length / 2, middle);
      }
    }
  }

  name(context, title, top, height) {
    context.font = "600 11px system-ui, sans-serif";
    context.textAlign = "left";
    context.textBaseline = "middle";
    const width = context.measureText(title).width;
    context.globalAlpha = 0.82;
    context.fillStyle = this.colours.surface;
    context.beginPath();
    context.roundRect(6, top + 7, width + 12, height - 14, 4);
    context.fill();
    context.globalAlpha = 1;
    context.fillStyle = this.colours.text;
    context.fillText(title, 12, top + height / 2);
  }

  /** Events: what comes points forward, what goes is a square. Shape tells as much as colour. */
  marks(context, axis, events, top) {
    for (const event of events) {
      const x = axis.xOf(event.time);
      if (x < -8 || x > axis.width + 8) {
        continue;
      }
      context.fillStyle = event.present ? this.colours.reasons[RECORDED] : this.colours.live;
      context.beginPath();
      if (event.present) {
        context.moveTo(x - 4, top + 4);
        context.lineTo(x + 5, top + 10);
        context.lineTo(x - 4, top + 16);
      } else {
        context.rect(x - 4, top + 6, 8, 8);
      }
      context.fill();
    }
  }

  selection(context, axis, selection, top, height) {
    if (!selection) {
      return;
    }
    const left = axis.xOf(selection.from);
    const right = axis.xOf(selection.to);
    context.globalAlpha = 0.22;
    context.fillStyle = this.colours.select;
    context.fillRect(left, top, right - left, height);
    context.globalAlpha = 1;
    for (const x of [left, right]) {
      context.fillStyle = this.colours.select;
      context.fillRect(x - 1, top, 2, height);
    }
  }

  /** A line at a time in a colour of the style; nothing where there is no time. */
  moment(context, axis, time, colour, top, height, width = 2) {
    if (Number.isFinite(time)) {
      context.fillStyle = this.colours[colour];
      context.fillRect(Math.round(axis.xOf(time)) - (colour === "cursor" ? 1 : 0), top, width, height);
    }
  }

  /** The head of the cursor, which points down to `bottom`. */
  pointer(context, axis, time, bottom) {
    if (Number.isFinite(time)) {
      const x = Math.round(axis.xOf(time));
      context.fillStyle = this.colours.cursor;
      context.beginPath();
      context.moveTo(x - 7, bottom - 11);
      context.lineTo(x + 7, bottom - 11);
      context.lineTo(x, bottom);
      context.fill();
    }
  }
}

/** Fits a canvas to its place on the page and clears it; gives its context and its Axis, or null while it has no size. */
export function prepare(canvas, view, height, background) {
  const width = canvas.clientWidth;
  if (!width) {
    return null;
  }
  const ratio = window.devicePixelRatio || 1;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const context = canvas.getContext("2d", { alpha: false });
  const drawn = canvas.width / width;
  context.setTransform(drawn, 0, 0, drawn, 0, 0);
  context.fillStyle = background;
  context.fillRect(0, 0, width, height);
  return { context, axis: new Axis(view, width, drawn) };
}
