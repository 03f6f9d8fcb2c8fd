// Puts the page's parts together.
import { getJson, onLoginNeeded, request } from "./api.js";
import { Coverage } from "./coverage.js";
import { byId, show } from "./dom.js";
import { ExportPanel } from "./export-panel.js";
import { Gestures } from "./gestures.js";
import { Hover } from "./hover.js";
import { bindKeys } from "./keys.js";
import { Live } from "./live.js";
import { askPassword, offerLogout } from "./login.js";
import { Navigator } from "./navigator.js";
import { Events, gapsOf, showErased, showGaps, showRecorder } from "./panels.js";
import { reasonText } from "./reasons.js";
import { Stage } from "./stage.js";
import { Thumbnails } from "./thumbnails.js";
import { Timeline, emptyScene } from "./timeline.js";
import { DAY, SECOND, durationText, isoTime, parseTime, timeText } from "./time.js";

const TRACKS = [{ name: "video", title: "Video" }, { name: "audio", title: "Audio" }, { name: "metadata", title: "Metadata" }];
const REFRESH = 4 * SECOND; // How often the coverage at the live edge is asked for.
const LIVE_TAIL = 20 * SECOND; // What is drawn as recorded there on the word of the events alone.

onLoginNeeded(askPassword);
offerLogout(() => request("/api/logout", {}, { method: "POST" }).finally(() => location.reload()));
const scene = emptyScene();
const live = new Live();
const coverage = new Coverage(TRACKS.map(({ name }) => name), () => live.now());
const navigator = new Navigator(scene, live);
coverage.want(navigator.placedView); // On its way while the rest begins.
const timeline = new Timeline(byId("timeline"), TRACKS, coverage, scene);
const thumbnails = new Thumbnails();
const knownAt = (track, time) => coverage.at(track, time, scene.view);
const hover = new Hover({ scene, timeline, thumbnails, tracks: TRACKS, knownAt });
const stage = new Stage({ scene, navigator, live, thumbnails, reasonAt: (time) => knownAt("video", time)?.reason ?? null });
const exportPanel = new ExportPanel(scene, navigator);
const events = new Events(scene, (time) => stage.seek(time), () => timeline.draw());
let status = null;
let isSelecting = false;
let areListsOld = false;

const gestures = new Gestures(byId("timeline"), {
  currentView: () => scene.view,
  isSelecting: () => isSelecting,
  view: (view) => navigator.setView(view),
  seek: (x) => stage.seek(timeline.timeAt(x)),
  hover: (x, y) => (x === undefined ? hover.hide() : hover.show(x, y)),
  select: (a, b) => navigator.setSelection(timeline.timeAt(a), timeline.timeAt(b)),
  selected: () => setSelecting(false),
});

function setSelecting(isOn) {
  isSelecting = isOn;
  byId("select").setAttribute("aria-pressed", String(isOn));
}

function zoom(factor) {
  navigator.showSpan(navigator.span * factor);
}

/** Along the time by a part of the view, or by a frame where that is shorter. */
function moveCursor(share) {
  const step = navigator.span * share;
  if (navigator.span < 3 * SECOND) {
    stage.step(Math.sign(share));
  } else {
    stage.skip(step);
  }
}

/** To the begin of the nearest gap of video after or before the cursor. */
async function goToGap(direction) {
  const at = Number.isFinite(scene.cursor) ? scene.cursor : scene.view.from;
  const span = { from: direction > 0 ? at : navigator.range?.from ?? at - DAY, to: direction > 0 ? live.now() : at };
  const here = gapsOf(coverage.pieces("video", scene.view));
  let found = nearest(here, at, direction);
  if (!found && span.to > span.from) {
    const flats = await coverage.ask(["video"], span.from, span.to);
    found = nearest(gapsOf([{ ...span, flat: flats.get("video") }]), at, direction);
  }
  if (found) {
    stage.seek(found.from);
    stage.toast(`Gap of ${durationText(found.to - found.from)} – ${reasonText(found.reason)}`);
  } else {
    stage.toast(direction > 0 ? "There is no gap of video after this" : "There is no gap of video before this");
  }
}

function nearest(gaps, at, direction) {
  const there = gaps.filter((gap) => (gap.from - at) * direction > 50 && gap.to < live.now() - 3 * SECOND);
  return direction > 0 ? there[0] : there.at(-1);
}

function setSpan(text) {
  if (text === "all") {
    navigator.showAll();
  } else {
    navigator.showSpan(Number(text));
  }
}

function toggleZone() {
  navigator.setZone(scene.zone === "utc" ? "local" : "utc");
}

const clicks = {
  "zoom-in": () => zoom(0.5), "zoom-out": () => zoom(2), "select": () => setSelecting(!isSelecting),
  "next-gap": () => goToGap(1), "previous-gap": () => goToGap(-1), "zone": toggleZone,
  "help": () => byId("help-dialog").showModal(),
};
Object.entries(clicks).forEach(([id, action]) => byId(id).addEventListener("click", action));
document.querySelectorAll("[data-span]").forEach((button) =>
  button.addEventListener("click", () => setSpan(button.dataset.span)));

bindKeys([
  [[" ", "k"], "play or pause", () => stage.toggle()],
  [["ArrowLeft", "ArrowRight"].slice(0, 1), "back by a part of the view, or by a frame", () => moveCursor(-0.02)],
  [["ArrowRight"], "forward by a part of the view, or by a frame", () => moveCursor(0.02)],
  [["Shift+ArrowLeft"], "back by more", () => moveCursor(-0.1)],
  [["Shift+ArrowRight"], "forward by more", () => moveCursor(0.1)],
  [["j"], "back 10 seconds", () => stage.skip(-10 * SECOND)],
  [["l"], "forward 10 seconds", () => stage.skip(10 * SECOND)],
  [[","], "previous frame", () => stage.step(-1)],
  [["."], "next frame", () => stage.step(1)],
  [["<"], "slower", () => stage.changeSpeed(-1)],
  [[">"], "faster", () => stage.changeSpeed(1)],
  [["+", "="], "zoom in", () => zoom(0.5)],
  [["-"], "zoom out", () => zoom(2)],
  [["PageUp"], "move the view back", () => navigator.moveBy(-0.8)],
  [["PageDown"], "move the view forward", () => navigator.moveBy(0.8)],
  [["Home"], "to the begin of the recording", () => navigator.range && stage.seek(navigator.range.from)],
  [["End"], "to what is being recorded", () => stage.goLive()],
  [["g"], "to the next gap of video", () => goToGap(1)],
  [["G"], "to the gap before", () => goToGap(-1)],
  [["i"], "begin of the selection", () => exportPanel.selectFrom(scene.cursor)],
  [["o"], "end of the selection", () => exportPanel.selectTo(scene.cursor)],
  [["s"], "dragging selects", () => setSelecting(!isSelecting)],
  [["Escape"], "no selection", () => navigator.setSelection(NaN, NaN)],
  [["e"], "export the selection", () => exportPanel.start()],
  [["m"], "sound on or off", () => stage.toggleSound()],
  [["u"], "UTC or local time", toggleZone],
  [["?"], "this list", clicks.help],
]);

stage.onExport = (from, to) => {
  navigator.setSelection(from, to);
  byId("export-start").focus();
};

// What follows the view.

function showSlider() {
  const { cursor, view, zone } = scene;
  const canvas = byId("timeline");
  if (Number.isFinite(cursor)) {
    canvas.setAttribute("aria-valuemin", String(Math.round(view.from / 1000)));
    canvas.setAttribute("aria-valuemax", String(Math.round(view.to / 1000)));
    canvas.setAttribute("aria-valuenow", String(Math.round(cursor / 1000)));
    canvas.setAttribute("aria-valuetext", `${timeText(cursor, zone)}. ${hover.describe(cursor)}`);
  }
}

function showLists() {
  showGaps(TRACKS, coverage, scene, (time) => stage.seek(time));
  show(byId("view-text"), `${durationText(navigator.span)} in view`);
  showSlider();
}

function showZone() {
  byId("zone").textContent = scene.zone === "utc" ? "UTC" : "Local time";
  byId("zone").title = "Show times in UTC or in the local zone (U)";
  showErased(scene.erased, scene.zone);
  if (status) {
    showRecorder(status, scene);
  }
}

navigator.addEventListener("view", () => {
  if (!gestures.isDragging) {
    coverage.want(scene.view);
  }
  timeline.draw();
});
navigator.addEventListener("cursor", () => timeline.draw());
navigator.addEventListener("selection", () => timeline.draw());
navigator.addEventListener("zone", () => {
  showZone();
  events.show();
});
navigator.addEventListener("settled", () => {
  coverage.want(scene.view);
  showLists();
  events.load();
});
coverage.addEventListener("change", () => {
  areListsOld = true; // Several answers come at once.
});

function animate() {
  const before = scene.now;
  navigator.tick();
  // The edge moves by less than half a pixel for a while: then there is nothing to draw.
  if ((scene.now - before) / navigator.span > 0.5 / Math.max(1, timeline.width) || scene.now < before) {
    timeline.draw();
  } else {
    scene.now = before;
  }
  if (areListsOld) {
    areListsOld = false;
    setTimeout(showLists); // After the timeline is shown.
  }
  requestAnimationFrame(animate);
}

// What the device tells.

function setLink(state, text) {
  byId("link").dataset.state = state;
  show(byId("link"), text);
}

function onLink({ detail: { state, before } }) {
  const text = state === "gone" ? "The recorder does not answer. What it recorded is shown again as soon as it does."
    : state === "down" ? "The device does not answer. Trying again …" : "";
  show(byId("banner"), text);
  byId("banner").classList.remove("mild");
  if (state !== "up") {
    setLink("bad", state === "gone" ? "Recorder gone" : "No connection");
  } else if (before) {
    loadAll();
  }
}

function onStatus(news) {
  status = news;
  const isRecording = Object.values(status.tracks ?? {}).some(({ present }) => present);
  setLink(status.problem ? "bad" : isRecording ? "recording" : "idle", status.problem || (isRecording ? "Recording" : "Not recording"));
  exportPanel.bytesPerHour = status.bytesPerHour;
  showRecorder(status, scene);
}

function onRecorded({ detail: times }) {
  for (const [track, time] of Object.entries(times)) {
    const known = scene.newest[track];
    const isGoingOn = known && time - known.time < 2.5 * SECOND;
    scene.newest[track] = { time, since: Math.max(isGoingOn ? known.since : time, time - LIVE_TAIL) };
  }
  if (navigator.range) {
    navigator.range.to = live.newest;
  } else {
    loadSummary();
  }
  if (Object.keys(times).some((track) => coverage.hasNone(track))) {
    loadTracks().catch(() => {}); // It is asked for again with the next record.
  }
  timeline.draw();
}

function onErased({ detail: { before } }) {
  const from = navigator.range?.from ?? scene.erased[0]?.to;
  if (!(before > from)) {
    return;
  }
  // Retention erases a little at a time: what follows at once is one stretch.
  const last = scene.erased[0];
  if (last && last.to >= from && Date.now() - last.noted < 60 * SECOND) {
    Object.assign(last, { to: before, seen: live.now() });
  } else {
    scene.erased.unshift({ from, to: before, seen: live.now(), noted: Date.now() });
  }
  navigator.range = { from: before, to: Math.max(before, navigator.range?.to ?? before) };
  coverage.invalidate(-Infinity, before + SECOND);
  coverage.want(scene.view);
  showErased(scene.erased, scene.zone);
  if (scene.cursor < before) {
    stage.toast(`What you watch was just erased on the device: all before ${timeText(before, scene.zone)}`);
  }
}

async function loadSummary() {
  const summary = await getJson("/api/summary");
  navigator.range = summary && { from: parseTime(summary.first), to: parseTime(summary.last) };
  show(byId("summary"), summary ? `Recorded for ${durationText(navigator.range.to - navigator.range.from)}, since ${timeText(navigator.range.from, scene.zone)}`
    : "Nothing is recorded yet");
}

async function loadTracks() {
  const tracks = await getJson("/api/tracks");
  stage.frameRate = tracks.video?.attributes?.frameRate;
  coverage.setBegins(Object.fromEntries(TRACKS.map(({ name }) => [name, tracks[name] ? parseTime(tracks[name].first) : Infinity])));
}

async function loadFacts() {
  try {
    await Promise.all([loadSummary(), loadTracks(), getJson("/api/status").then(onStatus)]);
    show(byId("banner"), "");
  } catch (error) {
    setLink("bad", error.status === 503 ? "Recorder gone" : "No connection");
    show(byId("banner"), `${error.message}.`);
  }
}

/** Whatever is shown may be wrong by now. */
async function loadAll() {
  coverage.invalidate(-Infinity, Infinity);
  thumbnails.forgetMissing();
  await loadFacts();
  coverage.want(scene.view);
  events.load();
  stage.player.reload();
}

live.addEventListener("link", onLink);
live.addEventListener("status", ({ detail }) => onStatus(detail));
live.addEventListener("recorded", onRecorded);
live.addEventListener("erased", onErased);

setInterval(() => {
  const bucket = navigator.span / 2000;
  const isShown = scene.view.to > scene.now - REFRESH && scene.view.from < scene.now;
  if (isShown && !document.hidden && (bucket < REFRESH || Math.random() < REFRESH / bucket)) {
    coverage.invalidate(scene.now - Math.max(LIVE_TAIL, bucket), scene.now);
    coverage.want(scene.view);
  }
}, REFRESH);

/** Resolves when the next frame is on its way to the screen. */
function frameShown() {
  return new Promise((resolve) => requestAnimationFrame(() => setTimeout(resolve)));
}

async function start() {
  const place = navigator.restore();
  showZone();
  if (Number.isFinite(place.cursor)) {
    navigator.setCursor(place.cursor);
  }
  const isCovered = new Promise((resolve) => coverage.addEventListener("loaded", resolve, { once: true }));
  coverage.want(scene.view);
  animate();
  await Promise.all([loadFacts(), isCovered]);
  await frameShown(); // Video takes a while to begin: the timeline goes first.
  events.load();
  live.start();
  if (Number.isFinite(place.cursor)) {
    stage.player.seek(place.cursor);
  } else if (!place.view) {
    if (navigator.range && !place.live) {
      showRecent();
    }
    byId("video").muted = true;
    stage.goLive();
  }
}

/** At first: as much of the newest as there is, an hour at most. */
function showRecent() {
  const { from, to } = navigator.range;
  navigator.showSpan(Math.min(3600 * SECOND, Math.max(60 * SECOND, (to - from) * 1.2)));
}

addEventListener("hashchange", () => {
  const place = navigator.restore();
  if (Number.isFinite(place.cursor) && isoTime(place.cursor) !== isoTime(scene.cursor)) {
    stage.player.seek(place.cursor);
  }
});

start();
