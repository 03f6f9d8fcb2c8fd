// The time below the pointer: a picture of it, or why there is none.
import { byId, show } from "./dom.js";
import { reasonName, reasonText } from "./reasons.js";
import { timeText } from "./time.js";

const WIDTH = 256;

export class Hover {
  #scene;
  #timeline;
  #thumbnails;
  #tracks;
  #knownAt;

  /** `knownAt(track, time)` is what Coverage knows. */
  constructor({ scene, timeline, thumbnails, tracks, knownAt }) {
    this.#scene = scene;
    this.#timeline = timeline;
    this.#thumbnails = thumbnails;
    this.#tracks = tracks;
    this.#knownAt = knownAt;
  }

  hide() {
    byId("hover").hidden = true;
    this.#scene.hover = NaN;
    this.#timeline.draw();
  }

  show(x, y) {
    const time = this.#timeline.timeAt(x);
    const { view, zone, now } = this.#scene;
    this.#scene.hover = time;
    this.#timeline.draw();
    const box = byId("hover");
    box.hidden = false;
    box.style.left = `${Math.min(Math.max(0, x - WIDTH / 2), Math.max(0, this.#timeline.width - WIDTH))}px`;
    const span = view.to - view.from;
    byId("hover-time").textContent = timeText(time, zone, span < 20 * 60_000 ? 3 : 0);
    show(byId("hover-text"), this.#text(time, x, y, now));
    this.#showPicture(time, Math.max(1000, span / 300), now);
  }

  #text(time, x, y, now) {
    const event = this.#timeline.eventAt(x, y);
    if (event) {
      return `${event.text}: ${timeText(event.time, this.#scene.zone, 3)}`;
    }
    if (time > now) {
      return "Not yet";
    }
    const lane = this.#timeline.trackAt(y);
    if (lane) {
      const known = this.#knownAt(lane, time);
      const share = known && known.share > 0 && known.share < 1 ? `, ${Math.round(known.share * 100)} % recorded` : "";
      return known ? reasonText(known.reason) + share : "";
    }
    return this.describe(time);
  }

  /** All tracks in words: "Video: recorded, audio: stopped". */
  describe(time) {
    return this.#tracks.map(({ name, title }) => {
      const known = this.#knownAt(name, time);
      return known ? `${title}: ${known.share > 0 ? "recorded" : reasonName(known.reason).toLowerCase()}` : "";
    }).filter(Boolean).join(", ");
  }

  #showPicture(time, step, now) {
    const picture = byId("hover-picture");
    const known = this.#knownAt("video", time);
    if (time > now || !known || known.share === 0) {
      picture.hidden = true;
      return;
    }
    this.#thumbnails.want(time, step, (found) => {
      picture.hidden = !found;
      if (found) {
        picture.src = found.address;
      }
    });
  }
}
