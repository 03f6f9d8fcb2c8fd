// Small pictures of moments, few requests at a time and the latest wish first.
import { request, source } from "./api.js";
import { parseTime } from "./time.js";

const KEPT = 200;

export class Thumbnails {
  #kept = new Map(); // Of the time asked for: {address, time}, or null where there is no picture.
  #wish = null;
  #isBusy = false;
  #origin = 0; // Changes with what is pictured.

  /** Calls back with {address, time} or null; not at all when there is a later wish. `step`: times this near are one. */
  want(time, step, onPicture) {
    const at = Math.round(time / step) * step;
    if (this.#kept.has(at)) {
      this.#wish = null;
      onPicture(this.#kept.get(at));
      return;
    }
    this.#wish = { at, onPicture };
    this.#fetch();
  }

  async #fetch() {
    if (this.#isBusy || !this.#wish) {
      return;
    }
    this.#isBusy = true;
    const { at, onPicture } = this.#wish;
    const picture = await this.#get(at);
    this.#isBusy = false;
    if (this.#wish?.at === at && picture !== undefined) {
      this.#wish = null;
      onPicture(picture);
    }
    this.#fetch();
  }

  /** Undefined when something else is pictured meanwhile. */
  async #get(at) {
    const origin = this.#origin;
    try {
      const response = await request(`${source.path}/thumbnail`, { ...source.parameters, at, width: 240 });
      const time = parseTime(response.headers.get("X-Calvane-Time"));
      const blob = await response.blob();
      if (origin !== this.#origin) {
        return undefined;
      }
      const picture = { address: URL.createObjectURL(blob), time };
      this.#keep(at, picture);
      return picture;
    } catch (error) {
      if (error.status === 404 && origin === this.#origin) {
        this.#keep(at, null);
      }
      return origin === this.#origin ? null : undefined;
    }
  }

  /** Pictures of something else are wanted from now on. */
  forget() {
    this.#wish = null;
    this.#kept.forEach((picture) => picture && URL.revokeObjectURL(picture.address));
    this.#kept.clear();
    this.#origin += 1;
  }

  /** Where there was none, there may be one now. */
  forgetMissing() {
    for (const [at, picture] of this.#kept) {
      if (!picture) {
        this.#kept.delete(at);
      }
    }
  }

  #keep(at, picture) {
    this.#kept.set(at, picture);
    if (this.#kept.size > KEPT) {
      const [oldest, old] = this.#kept.entries().next().value;
      this.#kept.delete(oldest);
      if (old) {
        URL.revokeObjectURL(old.address);
      }
    }
  }
}
