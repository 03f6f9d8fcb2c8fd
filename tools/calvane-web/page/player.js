// Plays what is recorded from any time on, across gaps, up to what is being recorded.
import { findVideo, getMedia } from "./api.js";
import { MediaBuffer, canPlay, codecsText } from "./media-buffer.js";
import { SECOND, parseTime } from "./time.js";

const PIECE = 30 * SECOND; // What is asked for at once.
const AHEAD = 20 * SECOND; // What is loaded before it is needed, at normal speed.
const LIVE_DELAY = 2.5 * SECOND; // Behind the newest record, so that playing goes on smoothly.
const LIVE_STEP = 0.8 * SECOND; // How often what is new there is asked for.
const GAP = 1.2 * SECOND; // The server ends a piece at a gap that is longer than 1 s.
const MOMENT = 200; // Longer than a frame.
const TICK = 100;
const PATIENCE = 5 * SECOND;

const pause = (duration) => new Promise((resolve) => setTimeout(resolve, duration));

/**
 * Dispatches
 * - "time": the position has changed; "state": playing, paused, live or waiting has changed;
 * - "skipped" {from, to}: playback went on behind a gap;
 * - "problem" {kind, text, next}: "nothing" (nothing is recorded there; `next` is the time of the next data or NaN),
 *   "codec" (the browser cannot play it), "error" (anything else); "fine" when there is none any more.
 */
export class Player extends EventTarget {
  #video;
  #media;
  #newest; // Gives the newest recorded time.
  #isAbsent; // Whether it is known that there is no video at a time.
  #abort = new AbortController();
  #position = NaN;
  #frameTime = NaN;
  #target = NaN; // Where to go as soon as something is loaded.
  #next = null; // A piece of another kind that follows when this one is played: {from}.
  #wantsPlay = false;
  #stuckSince = null;
  #hasProblem = false;
  isLive = false;
  isWaiting = false;

  constructor(video, newest, isAbsent) {
    super();
    this.#video = video;
    this.#media = new MediaBuffer(video);
    this.#newest = newest;
    this.#isAbsent = isAbsent;
    video.addEventListener("play", () => this.#emit("state"));
    video.addEventListener("pause", () => this.#emit("state"));
    video.addEventListener("error", () => this.#onError());
    setInterval(() => this.#tick(), TICK);
    this.#watchFrames();
  }

  get position() {
    return this.#position;
  }

  /** When the frame that is shown begins. */
  get frameTime() {
    return Math.abs(this.#frameTime - this.#position) < SECOND ? this.#frameTime : this.#position;
  }

  get isPlaying() {
    return this.#wantsPlay;
  }

  get rate() {
    return this.#video.playbackRate;
  }

  set rate(rate) {
    this.#video.playbackRate = this.#video.defaultPlaybackRate = rate;
    if (rate > 1) {
      this.#setLive(false);
    }
    this.#emit("state");
  }

  /** Goes to a time. What is played or not stays so. */
  seek(time) {
    this.#setLive(false);
    this.#goTo(time);
  }

  seekLive() {
    this.#goTo(this.#newest() - LIVE_DELAY);
    this.rate = 1;
    this.#setLive(true);
  }

  play() {
    this.#wantsPlay = true;
    this.#start();
    this.#emit("state");
  }

  pause() {
    this.#wantsPlay = false;
    this.#setLive(false);
    this.#video.pause();
    this.#emit("state");
  }

  /** Whatever was loaded may be wrong, for example after the recorder was away. */
  reload() {
    if (Number.isFinite(this.#position) && (this.#hasProblem || !this.#media.rangeAt(this.#position, 500))) {
      this.#goTo(this.#position);
    }
  }

  /** From now on something else is played: what is loaded is not of it. */
  forget() {
    this.#abort.abort();
    this.#media.close();
    this.#next = null;
    this.#target = NaN;
    this.#clearProblem();
  }

  #start() {
    this.#video.play().catch((error) => {
      if (error.name === "NotAllowedError" && !this.#video.muted) {
        this.#video.muted = true; // Browsers play sound only after a click or a key.
        this.#start();
      }
    });
  }

  #goTo(time) {
    this.#position = time;
    this.#next = null;
    this.#clearProblem();
    const range = this.#media.rangeAt(time);
    if (range) {
      this.#target = NaN;
      this.#video.currentTime = this.#media.mediaTimeOf(time);
      this.#load(range.to);
    } else {
      this.#target = time;
      this.#load(time);
    }
    this.#emit("time");
  }

  /** Loads pieces one after another until there is another wish. */
  async #load(from) {
    this.#abort.abort();
    this.#abort = new AbortController();
    const { signal } = this.#abort;
    try {
      while (!signal.aborted) {
        from = await this.#loadPiece(from, signal);
      }
    } catch (error) {
      if (!signal.aborted && error.name !== "AbortError") {
        this.#complain(error.kind ?? "error", error.message);
        if (error.status === 0 || error.status === 503 || error.status === 429) {
          await pause(2 * SECOND); // reload() is called earlier when the device is back.
          if (!signal.aborted) {
            this.#load(from);
          }
        }
      }
    }
  }

  /**
   * Loads one piece and returns where the next one begins. Whenever it has waited, there may be another wish: then it must not
   * touch what is loaded for that.
   */
  async #loadPiece(from, signal) {
    await this.#waitUntilNeeded(from, signal);
    signal.throwIfAborted();
    if (Number.isFinite(this.#target) && this.#isAbsent(from)) {
      const next = await this.#findNext(from, signal);
      if (!(next <= from)) { // Otherwise there is something by now.
        return this.#onNothing(from, next, signal);
      }
    }
    let piece;
    try {
      piece = await getMedia(from, from + PIECE, { signal });
    } catch (error) {
      if (error.status !== 404) {
        throw error;
      }
      signal.throwIfAborted();
      return this.#onNothing(from, parseTime(error.body.next), signal);
    }
    signal.throwIfAborted();
    if (!canPlay(piece.mime)) {
      piece.body.cancel();
      this.#wantsPlay = false;
      this.#setLive(false);
      const text = `This browser cannot play ${codecsText(piece.mime)}`;
      throw Object.assign(new Error(text), { kind: "codec" });
    }
    if (Number.isFinite(this.#target) && piece.begin - this.#target > GAP) {
      if (!this.#wantsPlay) {
        piece.body.cancel();
        return this.#onNothing(from, piece.begin, signal);
      }
      this.#emit("skipped", { from: this.#target, to: piece.begin });
    }
    if (!await this.#prepare(piece, from, signal)) {
      return from;
    }
    signal.throwIfAborted();
    this.#clearProblem();
    await this.#append(piece, signal);
    return this.#afterPiece(from, piece.begin, signal);
  }

  #findNext(from, signal) {
    return findVideo(from, Math.max(this.#newest(), from + 1), { signal });
  }

  /** Makes the buffer ready for a piece; false when it has to wait until what is loaded is played. */
  async #prepare(piece, from, signal) {
    const isSeek = Number.isFinite(this.#target);
    if (this.#media.fits(piece.mime, piece.begin)) {
      await this.#media.begin(piece.begin);
      return true;
    }
    if (!isSeek && this.#media.rangeAt(this.#position, 200)) {
      piece.body.cancel();
      this.#next = { from };
      while (!signal.aborted && this.#next) {
        await pause(TICK);
      }
      return false;
    }
    this.#target = isSeek ? this.#target : Math.max(from, piece.begin);
    await this.#media.open(piece.mime, piece.begin);
    signal.throwIfAborted();
    this.#video.playbackRate = this.#video.defaultPlaybackRate;
    await this.#media.begin(piece.begin);
    return true;
  }

  async #append(piece, signal) {
    const reader = piece.body.getReader();
    for (;;) {
      const { done, value } = await reader.read();
      signal.throwIfAborted();
      if (done) {
        return;
      }
      await this.#media.append(value);
      signal.throwIfAborted();
      this.#reachTarget(piece.begin);
    }
  }

  /** Shows what was asked for as soon as it is there. */
  #reachTarget(begin) {
    if (!Number.isFinite(this.#target)) {
      return;
    }
    const time = Math.max(this.#target, begin);
    const range = this.#media.rangeAt(time, GAP);
    if (range) {
      this.#target = NaN;
      this.#jump(Math.max(time, range.from) + 0.1);
      if (this.#wantsPlay) {
        this.#start();
      }
    }
  }

  /** To a time that is loaded. The clock goes there at once, since the picture may be shown before the next tick. */
  #jump(time) {
    this.#video.currentTime = this.#media.mediaTimeOf(time);
    this.#position = time;
    this.#emit("time");
  }

  /** Where to go on behind a piece, which ends early at a gap, at a change of the camera or where recording is. */
  async #afterPiece(from, begin, signal) {
    await this.#media.tidy();
    signal.throwIfAborted();
    const end = Math.max(from, this.#media.rangeAt(Math.max(from, begin), GAP)?.to ?? from);
    const isAtEdge = end > this.#newest() - 3 * SECOND;
    if (Number.isFinite(this.#target) || (end < from + MOMENT && !isAtEdge)) { // All of it was before what was asked for.
      return this.#onNothing(from, await this.#findNext(from + MOMENT, signal), signal);
    }
    if (end >= from + PIECE - SECOND) {
      return end;
    }
    if (!isAtEdge) {
      const next = await this.#findNext(end + MOMENT, signal);
      return Number.isFinite(next) ? next : this.#onNothing(end, NaN, signal);
    }
    const isGoingOn = end > from + MOMENT; // Then there is more before it is told.
    const until = performance.now() + LIVE_STEP;
    while (!signal.aborted && this.#newest() < end + LIVE_STEP && !(isGoingOn && performance.now() > until)) {
      await pause(TICK);
    }
    return end;
  }

  async #onNothing(from, next, signal) {
    const isSeek = Number.isFinite(this.#target);
    if (Number.isFinite(next) && next > from) {
      if (isSeek && !this.#wantsPlay) {
        this.#complain("nothing", "", next);
        await new Promise(() => {}); // Until there is another wish.
      }
      if (isSeek) {
        this.#emit("skipped", { from: this.#target, to: next });
        this.#target = next;
      }
      return next;
    }
    if (isSeek) {
      this.#complain("nothing", "", NaN);
    }
    const newest = this.#newest();
    while (!signal.aborted && this.#newest() <= Math.max(newest, from)) {
      await pause(5 * TICK);
    }
    return Math.max(from, newest);
  }

  async #waitUntilNeeded(from, signal) {
    while (!signal.aborted && !Number.isFinite(this.#target) &&
           from > this.#position + AHEAD * Math.max(1, this.rate / 2)) {
      const hasRange = this.#media.ranges.some((range) => range.from > this.#position && range.from < from);
      if (!hasRange && !this.#media.rangeAt(this.#position + 1)) {
        return; // There is nothing until then.
      }
      await pause(TICK);
    }
  }

  #tick() {
    const video = this.#video;
    if (!Number.isFinite(this.#target) && Number.isFinite(this.#media.origin) && video.readyState > 0) {
      const position = this.#media.timeOf(video.currentTime);
      if (Math.abs(position - this.#position) > 0.5) {
        this.#position = position;
        this.#emit("time");
      }
      this.#passGap();
    }
    this.#retryStuck();
    const isWaiting = Number.isFinite(this.#target) || (this.#wantsPlay && video.readyState < 3);
    if (isWaiting !== this.isWaiting) {
      this.isWaiting = isWaiting;
      this.#emit("state");
    }
    if (this.isLive && this.#newest() - this.#position > 10 * SECOND && !Number.isFinite(this.#target)) {
      this.#goTo(this.#newest() - LIVE_DELAY);
    }
  }

  /** What was asked for should be there, or said to be missing, long before. */
  #retryStuck() {
    const isStuck = Number.isFinite(this.#target) && !this.#hasProblem;
    this.#stuckSince = isStuck ? this.#stuckSince ?? performance.now() : null;
    if (isStuck && performance.now() - this.#stuckSince > PATIENCE) {
      this.#stuckSince = null;
      this.#media.close();
      this.#goTo(this.#target);
    }
  }

  /** At the end of what is loaded, goes to what was loaded behind the gap, or begins with another kind of media. */
  #passGap() {
    const at = this.#position;
    const here = this.#media.rangeAt(at);
    if (here && here.to - at > 150) {
      return;
    }
    if (this.#next) {
      this.#position = this.#next.from;
      this.#target = this.#next.from;
      this.#next = null;
      return;
    }
    const behind = this.#media.ranges.find(({ from }) => from > at + 1);
    if (behind && this.#wantsPlay) {
      this.#jump(behind.from + 1);
      this.#emit("skipped", { from: here?.to ?? at, to: behind.from });
    }
  }

  #watchFrames() {
    this.#video.requestVideoFrameCallback?.((_, { mediaTime }) => {
      this.#frameTime = this.#media.timeOf(mediaTime);
      this.#watchFrames();
    });
  }

  #onError() {
    const { error } = this.#video;
    if (error && Number.isFinite(this.#media.origin)) {
      const at = this.#position;
      this.#abort.abort();
      this.#media.close();
      this.#complain("error", `The browser could not decode this: ${error.message || "no reason given"}`, at + 2 * SECOND);
    }
  }

  #complain(kind, text, next = NaN) {
    this.#hasProblem = true;
    this.#emit("problem", { kind, text, next });
  }

  #clearProblem() {
    if (this.#hasProblem) {
      this.#hasProblem = false;
      this.#emit("fine");
    }
  }

  #setLive(isLive) {
    if (this.isLive !== isLive) {
      this.isLive = isLive;
      this.#emit("state");
    }
  }

  #emit(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}
