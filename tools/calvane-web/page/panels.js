// The lists below the timeline: gaps, events, the recorder's state.
import { getJson } from "./api.js";
import { byId, make, show, swatch } from "./dom.js";
import { NOT_BEGUN, RECORDED, reasonName, reasonText, reasonVariable } from "./reasons.js";
import { bytesText, clockText, dateText, durationText, parseTime, timeText } from "./time.js";

const MOST_GAPS = 60;
const EVENTS_PAGE = 300;

/** The gaps of a track in a view, oldest first; those that go on over the border of two pieces are one. */
export function gapsOf(pieces) {
  const gaps = [];
  for (const { from, to, flat } of pieces) {
    for (let i = 0; i < flat.count && flat.from[i] < to; ++i) {
      if (flat.share[i] === 1 || flat.to[i] <= from || flat.reason[i] === NOT_BEGUN) {
        continue;
      }
      const gap = { from: Math.max(from, flat.from[i]), to: Math.min(to, flat.to[i]), reason: flat.reason[i], share: flat.share[i] };
      const last = gaps.at(-1);
      if (last && last.reason === gap.reason && last.share === gap.share && gap.from - last.to < 1) {
        last.to = gap.to;
      } else {
        gaps.push(gap);
      }
    }
  }
  return gaps;
}

function momentButton(time, zone, onGo, ...children) {
  const button = make("button", { type: "button", title: timeText(time, zone, 3) }, ...children);
  button.addEventListener("click", () => onGo(time));
  return make("li", {}, button);
}

function fill(list, items, ifNone) {
  list.replaceChildren(...(items.length ? items : [make("li", { className: "empty", textContent: ifNone })]));
}

/** A time in a list: with its date where the view is longer than a day. */
function shortTime(time, view, zone) {
  const isLong = view.to - view.from > 20 * 3600_000;
  const text = `${isLong ? dateText(time, zone).replace(/ \d+$/, " ") : ""}${clockText(time, zone, view.to - view.from < 60_000 ? 3 : 0)}`;
  return make("time", { textContent: text, dateTime: new Date(time).toISOString() });
}

export function showGaps(tracks, coverage, scene, onGo) {
  const { view, zone, now } = scene;
  const shown = { from: view.from, to: Math.min(view.to, now) };
  const all = tracks.flatMap((track) => gapsOf(coverage.pieces(track.name, shown)).map((gap) => ({ track, ...gap })));
  const longest = all.sort((a, b) => b.to - b.from - (a.to - a.from)).slice(0, MOST_GAPS).sort((a, b) => a.from - b.from);
  fill(byId("gap-list"), longest.map((gap) => momentButton(gap.from, zone, onGo,
    swatch(reasonVariable(gap.reason)), shortTime(gap.from, view, zone),
    `${gap.track.title}: ${reasonName(gap.reason)}${gap.share > 0 ? ", several" : ""}, ${durationText(gap.to - gap.from)}`)),
  "No gaps: all of it is recorded.");
  showLegend(new Set([RECORDED, ...all.map(({ reason }) => reason)]));
}

/** The colours of these reasons, in words. */
export function showLegend(reasons) {
  byId("legend").replaceChildren(...[...reasons].sort((a, b) => a - b).map((reason) =>
    make("li", {}, swatch(reasonVariable(reason)), reasonText(reason))));
}

const TITLES = { video: "Video", audio: "Audio", metadata: "Metadata" };

/** What a record of the history says. */
export function eventOf(record) {
  const what = record.event === "data" ? `${TITLES[record.track] ?? record.track} ${record.present ? "comes" : "is absent"}`
    : `Recording ${record.present ? "started" : "stopped"}`;
  return { time: parseTime(record.time), present: record.present, text: what };
}

/** The history of a view, in the timeline and as a list. */
export class Events {
  #scene;
  #onGo;
  #onChange;
  #abort = new AbortController();
  #next = null;

  constructor(scene, onGo, onChange) {
    this.#scene = scene;
    this.#onGo = onGo;
    this.#onChange = onChange;
    byId("more-events").addEventListener("click", () => this.#fetch(this.#next));
  }

  load() {
    return this.#fetch(null);
  }

  async #fetch(after) {
    this.#abort.abort();
    this.#abort = new AbortController();
    const { view } = this.#scene;
    const parameters = { from: view.from, to: Math.max(view.from, Math.min(view.to, this.#scene.now)), limit: EVENTS_PAGE, after };
    try {
      const { records, next } = await getJson("/api/history", parameters, { signal: this.#abort.signal });
      const events = records.map(eventOf);
      this.#scene.events = after ? [...this.#scene.events, ...events] : events;
      this.#next = next;
      this.show();
    } catch (error) {
      if (error.name !== "AbortError") {
        fill(byId("event-list"), [], error.message);
      }
    }
  }

  show() {
    const { events, view, zone } = this.#scene;
    fill(byId("event-list"), events.map((event) => momentButton(event.time, zone, this.#onGo,
      shortTime(event.time, view, zone), event.text)), "Nothing came, went, started or stopped.");
    byId("more-events").hidden = !this.#next;
    this.#onChange();
  }
}

function forecastOf(status, zone) {
  if (status.erasesFirst === "age") {
    return `large enough; what is older than ${durationText(status.retention * 1000)} is erased`;
  }
  if (!status.fullAt) {
    return "does not get full";
  }
  const at = timeText(parseTime(status.fullAt), zone);
  return `${status.erasesFirst === "space-limit" ? "limit of space reached" : "full"} ${at}; then the oldest data is erased`;
}

/** The recorder's state in words. */
export function showRecorder(status, scene) {
  const facts = [["State", status.problem ? `${status.state}: ${status.problem}` : status.state]];
  const { bytes, usableBytes } = status.card;
  if (bytes) {
    facts.push(["Card", `${bytesText(usableBytes)} to be written of ${bytesText(bytes)}`], ["Forecast", forecastOf(status, scene.zone)]);
  }
  byId("card-meter").hidden = !bytes;
  byId("card-used").style.width = `${bytes ? 100 * (1 - usableBytes / bytes) : 0}%`;
  facts.push(["Kept", status.retention ? `for ${durationText(status.retention * 1000)}` : "as long as there is room"]);
  for (const [name, track] of Object.entries(status.tracks ?? {})) {
    facts.push([TITLES[name] ?? name, (track.present ? `coming, ${bytesText(track.bytesPerHour)} an hour` : "absent") +
      (track.refused ? `; ${track.refused} records dropped since the start` : "")]);
  }
  byId("recorder-facts").replaceChildren(...facts.flatMap(([name, text]) =>
    [make("dt", { textContent: name }), make("dd", { textContent: text })]));
}

/** What was erased while the page is open, newest first. */
export function showErased(erased, zone) {
  show(byId("erased-title"), erased.length ? "Erased while you watched" : "");
  byId("erased-list").replaceChildren(...erased.map(({ from, to, seen }) => make("li", {
    textContent: `${clockText(seen, zone)}: all before ${timeText(to, zone)} (${durationText(to - from)})` })));
}
