// The view in the page's address, so that it can be kept and sent: #from=...&to=...&t=...&sel=...~...&zone=utc&device=...
import { isoTime, parseTime } from "./time.js";

const short = (time) => isoTime(Math.round(time)).replace(/000Z$/, "Z");

export function writePlace({ view, cursor, selection, zone, isLive, device }) {
  const place = new URLSearchParams();
  if (!isLive) {
    place.set("from", short(view.from));
    place.set("to", short(view.to));
    if (Number.isFinite(cursor)) {
      place.set("t", short(cursor));
    }
  } else {
    place.set("live", String(Math.round((view.to - view.from) / 1000)));
  }
  if (selection) {
    place.set("sel", `${short(selection.from)}~${short(selection.to)}`);
  }
  if (zone === "utc") {
    place.set("zone", "utc");
  }
  if (device) {
    place.set("device", device);
  }
  return "#" + place.toString().replaceAll("%3A", ":").replaceAll("%7E", "~");
}

function spanOf(from, to) {
  return Number.isFinite(from) && Number.isFinite(to) && to > from ? { from, to } : null;
}

/** The same again; what is missing or makes no sense is null or NaN. `live` is the length of a view that moves, in ms. */
export function readPlace(hash) {
  const place = new URLSearchParams(hash.replace(/^#/, ""));
  const time = (name) => parseTime(place.get(name));
  const [from, to] = (place.get("sel") ?? "").split("~").map(parseTime);
  return {
    view: spanOf(time("from"), time("to")),
    cursor: time("t"),
    selection: spanOf(from, to),
    zone: place.get("zone") === "utc" ? "utc" : null,
    device: place.get("device"),
    live: Number(place.get("live")) * 1000 || NaN,
  };
}
