// What the device tells of itself while the page is open.
import { request } from "./api.js";
import { parseTime } from "./time.js";

const RETRY = 2000;

/**
 * Dispatches
 * - "recorded" {video: time, ...}: the newest times, at most once a second;
 * - "erased" {before: time}; "status" (the status as the server gives it);
 * - "link" {state, before}: "up", "gone" (the server answers, the recorder does not), "down" (no answer at all).
 *   `before` may also be "" (just started) or "hidden" (nobody saw the page). With "up" anything may have changed.
 */
export class Live extends EventTarget {
  state = "";
  #source = null;
  #retry = 0;
  #newest = 0;
  #newestSeen = 0;

  /** From now on, while the page is seen: a browser has few connections to a device for all of its pages together. */
  start() {
    const follow = () => (document.hidden ? this.#rest() : this.#open());
    document.addEventListener("visibilitychange", follow);
    window.addEventListener("pageshow", follow);
    window.addEventListener("pagehide", () => this.#rest());
    follow();
  }

  #rest() {
    this.#close();
    this.state = "hidden";
  }

  #close() {
    clearTimeout(this.#retry);
    this.#source?.close();
    this.#source = null;
  }

  #open() {
    if (this.#source) {
      return;
    }
    const source = new EventSource("/api/events");
    this.#source = source;
    source.onopen = () => this.#setState("up");
    source.onerror = () => {
      this.#setState("down");
      this.#close();
      this.#retry = setTimeout(() => this.#reopen(), RETRY);
    };
    const on = (name, handle) => source.addEventListener(name, (event) => handle(JSON.parse(event.data || "{}")));
    on("recorded", (data) => this.#onRecorded(data));
    on("erased", (data) => this.#emit("erased", { before: parseTime(data.before) }));
    on("status", (data) => this.#emit("status", data));
    on("gone", () => this.#setState("gone"));
    on("back", () => this.#setState("up"));
  }

  /** An event source does not tell why it ended. A request does, and asks for the password where that is the reason. */
  async #reopen() {
    await request("/api/summary").catch(() => {});
    if (!document.hidden) {
      this.#open();
    }
  }

  /** The device's time, as far as it is known here: what it recorded last goes on with the clock. */
  now() {
    const elapsed = performance.now() - this.#newestSeen;
    return this.#newest && elapsed < 10_000 ? this.#newest + elapsed : Math.max(Date.now(), this.#newest);
  }

  /** The newest time that is recorded; 0 if none was told. */
  get newest() {
    return this.#newest;
  }

  #onRecorded(data) {
    const times = Object.fromEntries(Object.entries(data).map(([track, text]) => [track, parseTime(text)])
      .filter(([, time]) => time > 0));
    this.#newest = Math.max(0, ...Object.values(times));
    this.#newestSeen = performance.now();
    this.#emit("recorded", times);
  }

  #setState(state) {
    if (state !== this.state) {
      const before = this.state;
      this.state = state;
      this.#emit("link", { state, before });
    }
  }

  #emit(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}
