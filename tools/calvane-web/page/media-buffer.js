// One MediaSource of a video element: pieces of media at their place in time.

const BEFORE = 6 * 3600_000; // How far one can go back before another MediaSource is needed.
const SPAN = 48 * 3600_000;
const KEEP_BEHIND = 30; // Seconds.

const Source = window.ManagedMediaSource ?? window.MediaSource;

export function canPlay(mime) {
  return Boolean(mime && Source?.isTypeSupported(mime));
}

const CODECS = [[/avc[13]/, "H.264 video"], [/h[ev][cv]1/, "H.265 video"], [/av01/, "AV1 video"], [/vp0?[89]/, "VP8 or VP9 video"],
  [/mp4v/, "MPEG-4 or Motion JPEG video"], [/mp4a/, "AAC sound"], [/opus/i, "Opus sound"]];

/** What a browser is told of a file's codecs, in words. */
export function codecsText(mime) {
  const names = CODECS.filter(([pattern]) => pattern.test(mime ?? "")).map(([, name]) => name);
  return names.length ? names.join(" with ") : "the way in which the camera encodes";
}

function eventOf(target, name) {
  return new Promise((resolve) => target.addEventListener(name, resolve, { once: true }));
}

/** Media time 0 of the element is `origin`; what is appended lies at the time it was recorded. */
export class MediaBuffer {
  #video;
  #source = null;
  #buffer = null;
  #address = "";
  #last = Promise.resolve(); // What is being done to the buffer.
  mime = "";
  origin = NaN;

  constructor(video) {
    this.#video = video;
  }

  /** Whether media of this kind that begins at a time can go on in it. */
  fits(mime, begin) {
    return this.#buffer !== null && this.#source.readyState === "open" && mime === this.mime &&
      begin > this.origin && begin < this.origin + SPAN;
  }

  /** Begins anew; what the element shows goes. */
  async open(mime, begin) {
    this.close();
    const source = new Source();
    this.#source = source;
    this.mime = mime;
    this.origin = begin - BEFORE;
    this.#address = URL.createObjectURL(source);
    this.#video.disableRemotePlayback = true;
    const opened = eventOf(source, "sourceopen");
    this.#video.src = this.#address;
    await opened;
    if (this.#source !== source) {
      throw new DOMException("Opened anew meanwhile", "AbortError");
    }
    this.#buffer = source.addSourceBuffer(mime);
    source.duration = Infinity;
  }

  close() {
    if (this.#source) {
      URL.revokeObjectURL(this.#address);
      this.#video.removeAttribute("src");
      this.#video.load();
    }
    this.#source = this.#buffer = null;
    this.#last = Promise.resolve();
    this.mime = "";
    this.origin = NaN;
  }

  timeOf(mediaTime) {
    return this.origin + mediaTime * 1000;
  }

  mediaTimeOf(time) {
    return (time - this.origin) / 1000;
  }

  /** What can be played, as {from, to} in time. */
  get ranges() {
    const { buffered } = this.#video;
    return this.#buffer === null ? [] : Array.from({ length: buffered.length }, (_, i) => ({
      from: this.timeOf(buffered.start(i)), to: this.timeOf(buffered.end(i)),
    }));
  }

  /** What holds a time, or begins within `slack` milliseconds after it. */
  rangeAt(time, slack = 0) {
    return this.ranges.find(({ from, to }) => time >= from - slack && time < to);
  }

  /** The next piece is a file of its own that begins at a time; one that was cut off is forgotten. */
  begin(time) {
    return this.#exclusively((buffer) => {
      buffer.abort();
      buffer.timestampOffset = this.mediaTimeOf(time);
    });
  }

  append(bytes) {
    return this.#exclusively(async (buffer) => {
      try {
        buffer.appendBuffer(bytes);
      } catch (error) {
        if (error.name !== "QuotaExceededError") {
          throw error;
        }
        await this.#makeRoom(buffer);
        buffer.appendBuffer(bytes);
      }
    });
  }

  /** Forgets what was played a while ago. */
  tidy() {
    return this.#exclusively((buffer) => {
      const end = this.#video.currentTime - KEEP_BEHIND;
      if (this.#video.buffered.length && this.#video.buffered.start(0) < end - KEEP_BEHIND) {
        buffer.remove(0, end);
      }
    });
  }

  async #makeRoom(buffer) {
    const now = this.#video.currentTime;
    for (const [from, to] of [[0, now - 2], [now + 60, Infinity]]) {
      if (to > from) {
        buffer.remove(from, to);
        await this.#idle(buffer);
      }
    }
  }

  /** One after another, since a buffer that is busy refuses everything else, or breaks off what it does. */
  #exclusively(action) {
    const buffer = this.#buffer;
    const run = async () => {
      await this.#idle(buffer);
      await action(buffer);
      await this.#idle(buffer);
    };
    const result = this.#last.then(run, run);
    this.#last = result;
    return result;
  }

  async #idle(buffer) {
    if (buffer !== null && this.#buffer === buffer && buffer.updating) {
      await eventOf(buffer, "updateend");
    }
    if (buffer === null || this.#buffer !== buffer) {
      throw new DOMException("Closed", "AbortError");
    }
  }
}
