// The player's controls, and what is said in place of a picture.
import { byId, show } from "./dom.js";
import { Player } from "./player.js";
import { reasonText } from "./reasons.js";
import { MINUTE, clockText, dateText, durationText, timeText, zoneText } from "./time.js";

const SPEEDS = [0.25, 0.5, 1, 2, 4, 8];
const TOAST = 6000;

export class Stage {
  #video = byId("video");
  #player;
  #navigator;
  #scene;
  #reasonAt;
  #thumbnails;
  #next = NaN;
  #toastTimer = 0;
  #frame = 1000 / 30;
  onExport = () => {};

  /** `reasonAt(time)` gives why there is no video then, as a number; null if that is not known. */
  constructor({ scene, navigator, live, thumbnails, reasonAt }) {
    this.#scene = scene;
    this.#navigator = navigator;
    this.#thumbnails = thumbnails;
    this.#reasonAt = reasonAt;
    this.#player = new Player(this.#video, () => live.newest || live.now(), (time) => reasonAt(time) > 0);
    this.#player.addEventListener("time", () => this.#onTime());
    this.#player.addEventListener("state", () => this.#showState());
    this.#player.addEventListener("skipped", ({ detail }) => this.#onSkipped(detail));
    this.#player.addEventListener("problem", ({ detail }) => this.#onProblem(detail));
    this.#player.addEventListener("fine", () => this.#clear());
    navigator.addEventListener("zone", () => this.#showTime());
    this.#connect();
    this.#showState();
  }

  get player() {
    return this.#player;
  }

  /** Of the camera, for single steps. */
  set frameRate(rate) {
    this.#frame = rate > 0 ? 1000 / rate : 1000 / 30;
  }

  #connect() {
    const on = (id, handle) => byId(id).addEventListener("click", handle);
    on("play", () => this.toggle());
    on("back", () => this.skip(-10_000));
    on("forward", () => this.skip(10_000));
    on("previous-frame", () => this.step(-1));
    on("next-frame", () => this.step(1));
    on("live", () => this.goLive());
    on("mute", () => this.toggleSound());
    on("message-next", () => this.seek(this.#next));
    on("message-export", () => this.onExport(this.#player.position, this.#player.position + MINUTE));
    this.#video.addEventListener("click", () => this.toggle());
    this.#video.addEventListener("volumechange", () => this.#showState());
    byId("speed").addEventListener("change", (event) => (this.#player.rate = Number(event.target.value)));
  }

  seek(time) {
    this.#navigator.follows = false;
    this.#player.seek(time);
    this.#navigator.reveal(time);
  }

  skip(duration) {
    this.seek(this.#player.position + duration);
  }

  step(frames) {
    this.#player.pause();
    this.seek(this.#player.frameTime + (frames + 0.5) * this.#frame); // The middle of it, since times are rounded.
  }

  toggle() {
    if (this.#player.isPlaying) {
      this.#player.pause();
    } else {
      this.#player.play();
    }
  }

  goLive() {
    this.#player.seekLive();
    this.#player.play();
    this.#navigator.followLive();
  }

  toggleSound() {
    this.#video.muted = !this.#video.muted;
  }

  changeSpeed(steps) {
    const at = SPEEDS.indexOf(this.#player.rate);
    this.#player.rate = SPEEDS[Math.min(Math.max(at + steps, 0), SPEEDS.length - 1)];
  }

  /** A short notice over the picture, also for screen readers. */
  toast(text) {
    byId("toast").textContent = text;
    clearTimeout(this.#toastTimer);
    this.#toastTimer = setTimeout(() => (byId("toast").textContent = ""), TOAST);
  }

  #onTime() {
    const { position } = this.#player;
    this.#navigator.setCursor(position);
    if (this.#player.isPlaying) {
      this.#navigator.keepInView(position);
    }
    this.#showTime();
  }

  #showTime() {
    const { position } = this.#player;
    if (Number.isFinite(position)) {
      const { zone } = this.#scene;
      const time = byId("clock-time");
      time.textContent = clockText(position, zone, this.#player.isPlaying ? 1 : 3);
      time.dateTime = new Date(position).toISOString();
      show(byId("clock-date"), `${dateText(position, zone)} ${zoneText(position, zone)}`);
    }
  }

  #showState() {
    const { isPlaying, isLive, rate } = this.#player;
    const play = byId("play");
    play.toggleAttribute("data-playing", isPlaying);
    play.setAttribute("aria-label", isPlaying ? "Pause" : "Play");
    byId("live").setAttribute("aria-pressed", String(isLive));
    byId("mute").setAttribute("aria-pressed", String(this.#video.muted));
    byId("speed").value = String(rate);
    byId("spinner").hidden = !this.#player.isWaiting || !byId("message").hidden;
    this.#showTime();
  }

  #onSkipped({ from, to }) {
    const reason = this.#reasonAt((from + to) / 2);
    const why = reason ? ` – ${reasonText(reason)}` : "";
    this.toast(`Skipped ${durationText(to - from)} without video${why}`);
  }

  #onProblem({ kind, text, next }) {
    const { position } = this.#player;
    this.#next = next;
    show(byId("message-text"), kind === "nothing" ? this.#nothingText(position) : `${text}.`);
    byId("message-next").hidden = !Number.isFinite(next);
    byId("message-export").hidden = kind !== "codec";
    byId("message").hidden = false;
    byId("spinner").hidden = true;
    if (kind === "codec") { // The server can decode what the browser cannot.
      this.#thumbnails.want(position, 1000, (picture) => {
        byId("still").hidden = !picture;
        byId("still").src = picture?.address ?? "";
      });
    }
  }

  #nothingText(position) {
    const reason = this.#reasonAt(position);
    const when = timeText(position, this.#scene.zone);
    return reason ? `No video at ${when}. ${reasonText(reason)}.` : `Nothing is recorded at ${when}.`;
  }

  #clear() {
    byId("message").hidden = true;
    byId("still").hidden = true;
    this.#showState();
  }
}
