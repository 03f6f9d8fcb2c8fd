// Mouse, pen, fingers and wheel on the timeline.
import { moved, pinched, zoomed } from "./scale.js";

const CLICK = 5; // Pixels that a click may move.

/**
 * Tells `target` what is done to the canvas: view(view), seek(x, y), hover(x, y) or hover() when the pointer leaves,
 * select(x0, x1, y0), selected(). `target.currentView()` gives the view, `target.isSelecting()` whether a drag selects. Where
 * only a part of an element shows time, `target.timeBox()` gives its left border on the page and its width; with
 * `target.wheelScrolls` the wheel alone does nothing here.
 */
export class Gestures {
  #canvas;
  #target;
  #pointers = new Map(); // Of id: its place.
  #drag = null;

  constructor(canvas, target) {
    this.#canvas = canvas;
    this.#target = target;
    canvas.addEventListener("wheel", (event) => this.#onWheel(event), { passive: false });
    canvas.addEventListener("pointerdown", (event) => this.#onDown(event));
    canvas.addEventListener("pointermove", (event) => this.#onMove(event));
    canvas.addEventListener("pointerup", (event) => this.#onUp(event));
    canvas.addEventListener("pointercancel", (event) => this.#onUp(event, true));
    canvas.addEventListener("pointerleave", () => this.#target.hover());
  }

  get isDragging() {
    return this.#drag !== null;
  }

  #place(event) {
    return { x: event.clientX - this.#box.left, y: event.clientY - this.#canvas.getBoundingClientRect().top };
  }

  get #box() {
    return this.#target.timeBox?.() ?? this.#canvas.getBoundingClientRect();
  }

  #onWheel(event) {
    if (this.#target.wheelScrolls && !event.ctrlKey && !event.shiftKey && Math.abs(event.deltaY) >= Math.abs(event.deltaX)) {
      return;
    }
    event.preventDefault();
    const view = this.#target.currentView();
    const unit = event.deltaMode === WheelEvent.DOM_DELTA_LINE ? 30 : 1;
    const sideways = event.shiftKey && !event.deltaX ? event.deltaY : event.deltaX;
    if (Math.abs(sideways) > Math.abs(event.deltaY) || (event.shiftKey && sideways)) {
      this.#target.view(moved(view, ((view.to - view.from) * sideways * unit) / this.#box.width));
      return;
    }
    const speed = event.ctrlKey ? 0.01 : 0.0025; // A pinch on a touch pad comes as ctrl and small steps.
    this.#target.view(zoomed(view, Math.exp(event.deltaY * unit * speed), this.#place(event).x / this.#box.width));
  }

  #onDown(event) {
    if (event.button !== 0 || this.#pointers.size === 2) {
      return; // A third finger does nothing.
    }
    this.#canvas.setPointerCapture(event.pointerId);
    const place = this.#place(event);
    this.#pointers.set(event.pointerId, place);
    const view = this.#target.currentView();
    if (this.#pointers.size === 2) {
      const width = this.#box.width;
      const times = [...this.#pointers.values()].map(({ x }) => view.from + ((view.to - view.from) * x) / width);
      this.#drag = { kind: "pinch", times };
    } else {
      this.#drag = { kind: "click", from: place, view, selects: event.shiftKey || this.#target.isSelecting() };
    }
  }

  #onMove(event) {
    const place = this.#place(event);
    if (this.#pointers.has(event.pointerId)) {
      this.#pointers.set(event.pointerId, place);
    }
    if (!this.#drag) {
      this.#target.hover(place.x, place.y);
      return;
    }
    if (this.#drag.kind === "pinch") {
      this.#pinch();
      return;
    }
    const { from, view, selects } = this.#drag;
    if (this.#drag.kind === "click" && Math.hypot(place.x - from.x, place.y - from.y) > CLICK) {
      this.#drag.kind = selects ? "select" : "move";
      this.#target.hover();
    }
    if (this.#drag.kind === "move") {
      this.#target.view(moved(view, ((view.to - view.from) * (from.x - place.x)) / this.#box.width));
    } else if (this.#drag.kind === "select") {
      this.#target.select(from.x, place.x, from.y);
    }
  }

  #pinch() {
    const shares = [...this.#pointers.values()].map(({ x }) => x / this.#box.width);
    const view = shares.length === 2 && pinched(this.#drag.times, shares);
    if (view) {
      this.#target.view(view);
    }
  }

  #onUp(event, isCancelled = false) {
    this.#pointers.delete(event.pointerId);
    const drag = this.#drag;
    this.#drag = null;
    if (drag?.kind === "select") {
      this.#target.selected();
    } else if (drag?.kind === "click" && !isCancelled) {
      this.#target.seek(drag.from.x, drag.from.y);
    }
  }
}
