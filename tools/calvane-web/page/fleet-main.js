// Puts the parts of the fleet's page together: a row for each camera, and the one that is chosen played and exported.
import { onLoginNeeded, request, source } from "./api.js";
import { byId, make, show } from "./dom.js";
import { ExportPanel } from "./export-panel.js";
import { Fleet } from "./fleet-data.js";
import { FleetRows } from "./fleet-rows.js";
import { Gestures } from "./gestures.js";
import { bindKeys } from "./keys.js";
import { askPassword, offerLogout } from "./login.js";
import { Navigator } from "./navigator.js";
import { gapsOf, showLegend } from "./panels.js";
import { RECORDED, reasonText } from "./reasons.js";
import { viewAround } from "./scale.js";
import { Stage } from "./stage.js";
import { Thumbnails } from "./thumbnails.js";
import { emptyScene } from "./timeline.js";
import { DAY, HOUR, MINUTE, SECOND, durationText, isoTime, timeText } from "./time.js";

const REFRESH = 4 * SECOND; // How often the rows that are seen are asked for.
const RELIST = 5; // How many of these until devices are listed and all is asked for again.
const SEARCH = 200; // Milliseconds without a key after which it is searched.
const HOVER = 256; // Width of the box at the pointer.

onLoginNeeded(askPassword);
offerLogout(() => request("/api/logout", {}, { method: "POST" }).finally(() => location.reload()));
const scene = Object.assign(emptyScene(), { device: null });
const live = { now: () => Date.now(), get newest() { return facts()?.recorded?.to ?? 0; } };
const fleet = new Fleet();
const navigator = new Navigator(scene, live);
const rows = new FleetRows({ fleet, scene, ruler: byId("ruler"), list: byId("rows"), space: byId("rows-space") });
const thumbnails = new Thumbnails();
const stage = new Stage({ scene, navigator, live, thumbnails, reasonAt: (time) => knownAt(scene.device, time)?.reason ?? null });
const exportPanel = new ExportPanel(scene, navigator);
let isSelecting = false;
let refreshes = 0;

function blockOf(device) {
  const index = fleet.indexOf(device);
  return index < 0 ? null : fleet.block(index);
}

/** What is known of the device that is chosen. */
function facts() {
  return scene.device === null ? undefined : blockOf(scene.device)?.facts.get(scene.device);
}

function knownAt(device, time) {
  return blockOf(device)?.at(device, time, scene.view) ?? null;
}

// The camera that is chosen.

function choose(index) {
  const device = fleet.name(index);
  if (device === undefined) {
    return;
  }
  rows.active = index;
  if (device !== scene.device) {
    scene.device = device;
    Object.assign(source, { parameters: { device },
      coverage: ["/api/fleet/coverage", { devices: device }], spansOf: ({ devices }) => devices[device].spans ?? [] });
    thumbnails.forget();
    stage.player.forget();
    byId("export-device").textContent = device;
    showFacts();
    if (Number.isFinite(scene.cursor)) {
      stage.player.seek(scene.cursor);
    }
    navigator.setSelection(scene.selection?.from, scene.selection?.to); // Settles, and so gets into the address.
  }
  say();
  rows.draw();
}

function say() {
  const known = knownAt(scene.device, scene.cursor);
  byId("rows-says").textContent = [scene.device, rows.describe(facts()), known && reasonText(known.reason)].filter(Boolean).join(", ");
}

function showFacts() {
  const { recorded, bytes } = facts() ?? {};
  exportPanel.bytesPerHour = recorded && recorded.to > recorded.from ? (bytes * HOUR) / (recorded.to - recorded.from) : 0;
}

/** Offers a minute from a time on, unless the time is in what is selected. */
function offer(time) {
  const { selection } = scene;
  if (!selection || time < selection.from || time > selection.to) {
    navigator.setSelection(time, time + MINUTE);
  }
}

function clickRow(x, y) {
  const index = rows.rowAt(y);
  if (index < 0) {
    return;
  }
  choose(index);
  if (x >= 0) {
    const time = rows.timeAt(x);
    stage.seek(time);
    offer(time);
  }
}

function move(steps) {
  const index = Math.min(Math.max(rows.active + steps, 0), fleet.total - 1);
  rows.reveal(index);
  choose(index);
}

// What is below the pointer.

function hover(x, y) {
  const index = x >= 0 && y !== undefined ? rows.rowAt(y) : -1;
  byId("hover").hidden = index < 0;
  scene.hover = index < 0 ? NaN : rows.timeAt(x);
  rows.draw();
  if (index < 0) {
    return;
  }
  const device = fleet.name(index);
  const { left, width } = rows.timeBox();
  const box = byId("hover");
  box.style.left = `${Math.min(left - byId("rows").getBoundingClientRect().left + Math.max(0, x - HOVER / 2), Math.max(0, left + width - HOVER))}px`;
  byId("hover-time").textContent = `${device ?? ""} ${timeText(scene.hover, scene.zone)}`;
  show(byId("hover-text"), textAt(device, scene.hover));
}

function textAt(device, time) {
  const { view, now } = scene;
  const near = ((view.to - view.from) / rows.timeBox().width) * 8;
  const event = blockOf(device)?.events.get(device)?.find((each) => Math.abs(each.time - time) < near);
  const known = time > now ? null : knownAt(device, time);
  const share = known && known.share > 0 && known.share < 1 ? `, ${Math.round(known.share * 100)} % recorded` : "";
  return [time > now ? "Not yet" : known ? reasonText(known.reason) + share : "Nothing in the stream", event?.text].filter(Boolean).join("; ");
}

const gestures = new Gestures(byId("rows-space"), {
  wheelScrolls: true,
  timeBox: () => rows.timeBox(),
  currentView: () => scene.view,
  isSelecting: () => isSelecting,
  view: (view) => navigator.setView(view),
  seek: clickRow,
  hover,
  select: (a, b, y) => {
    choose(rows.rowAt(y));
    navigator.setSelection(rows.timeAt(a), rows.timeAt(b));
  },
  selected: () => setSelecting(false),
});
new Gestures(byId("ruler"), { // Also with the wheel alone.
  currentView: () => scene.view, isSelecting: () => isSelecting, view: (view) => navigator.setView(view),
  seek: (x) => stage.seek(rows.timeAt(x)), hover: () => {}, selected: () => setSelecting(false),
  select: (a, b) => navigator.setSelection(rows.timeAt(a), rows.timeAt(b)),
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
  if (navigator.span < 3 * SECOND) {
    stage.step(Math.sign(share));
  } else {
    stage.seek((Number.isFinite(scene.cursor) ? scene.cursor : (scene.view.from + scene.view.to) / 2) + navigator.span * share);
  }
}

/** All that the cameras in view have. */
function showAll() {
  const recorded = rows.blocks.flatMap((block) => [...block.facts.values()]).map((each) => each.recorded).filter(Boolean);
  navigator.range = recorded.length
    ? { from: Math.min(...recorded.map(({ from }) => from)), to: Math.max(...recorded.map(({ to }) => to)) } : null;
  navigator.showAll();
}

function showNow() {
  navigator.setView(viewAround(live.now(), navigator.span, 0.95));
}

function toggleZone() {
  navigator.setZone(scene.zone === "utc" ? "local" : "utc");
}

const clicks = {
  "zoom-in": () => zoom(0.5), "zoom-out": () => zoom(2), "select": () => setSelecting(!isSelecting), "now": showNow,
  "zone": toggleZone, "help": () => byId("help-dialog").showModal(),
};
Object.entries(clicks).forEach(([id, action]) => byId(id).addEventListener("click", action));
document.querySelectorAll("[data-span]").forEach((button) => button.addEventListener("click", () =>
  (button.dataset.span === "all" ? showAll() : navigator.showSpan(Number(button.dataset.span)))));

bindKeys([
  [["ArrowUp"], "the camera above", () => move(-1)],
  [["ArrowDown"], "the camera below", () => move(1)],
  [["PageUp"], "cameras further up", () => move(-rows.perPage)],
  [["PageDown"], "cameras further down", () => move(rows.perPage)],
  [["Home"], "the first camera", () => move(-Infinity)],
  [["ArrowLeft"], "back by a part of the view, or by a frame", () => moveCursor(-0.02)],
  [["ArrowRight"], "forward by a part of the view, or by a frame", () => moveCursor(0.02)],
  [["Shift+ArrowLeft"], "move the view back", () => navigator.moveBy(-0.5)],
  [["Shift+ArrowRight"], "move the view forward", () => navigator.moveBy(0.5)],
  [["End"], "to what is being recorded", showNow],
  [["+", "="], "zoom in", () => zoom(0.5)],
  [["-"], "zoom out", () => zoom(2)],
  [["/"], "search cameras", () => byId("search").focus()],
  [[" ", "k"], "play or pause", () => stage.toggle()],
  [[","], "previous frame", () => stage.step(-1)],
  [["."], "next frame", () => stage.step(1)],
  [["<"], "slower", () => stage.changeSpeed(-1)],
  [[">"], "faster", () => stage.changeSpeed(1)],
  [["Enter"], "select a minute from the cursor on", () => offer(scene.cursor)],
  [["i"], "begin of the selection", () => exportPanel.selectFrom(scene.cursor)],
  [["o"], "end of the selection", () => exportPanel.selectTo(scene.cursor)],
  [["s"], "dragging selects", () => setSelecting(!isSelecting)],
  [["Escape"], "no selection", () => navigator.setSelection(NaN, NaN)],
  [["e"], "export the selection", () => exportPanel.start()],
  [["m"], "sound on or off", () => stage.toggleSound()],
  [["u"], "UTC or local time", toggleZone],
  [["?"], "this list", clicks.help],
]);
byId("help-keys").append(make("dt", { textContent: "Wheel" }), make("dd", { textContent: "scrolls the cameras; with Ctrl, or on the ruler, it zooms" }));

stage.onExport = (from, to) => {
  navigator.setSelection(from, to);
  byId("export-start").focus();
};

// What is asked for.

/** Of the rows that are seen, and of the camera that is chosen. */
function wantedBlocks() {
  return new Set([...rows.blocks, scene.device === null ? null : blockOf(scene.device)].filter(Boolean));
}

function want() {
  for (const block of wantedBlocks()) {
    block.want(scene.view);
  }
}

function wantEvents() {
  for (const block of wantedBlocks()) {
    block.wantEvents(scene.view);
  }
}

function showLists() {
  const { view, now } = scene;
  const shown = { from: view.from, to: Math.min(view.to, now) };
  const reasons = new Set([RECORDED]);
  let omitted = 0;
  for (const block of rows.blocks) {
    block.names.forEach((name) => gapsOf(block.pieces(name, shown)).forEach(({ reason }) => reasons.add(reason)));
    omitted += block.omitted;
  }
  showLegend(reasons);
  show(byId("view-text"), `${durationText(navigator.span)} in view${omitted ? `; ${omitted} older events are not marked` : ""}`);
}

function showCount() {
  const { total, search } = fleet;
  byId("row-count").textContent = `${total} ${total === 1 ? "camera" : "cameras"}${search ? " found" : ""}`;
  byId("rows-none").textContent = search ? `No camera has “${search}” in its name.` : "No camera has copied anything yet.";
}

function showZone() {
  byId("zone").textContent = scene.zone === "utc" ? "UTC" : "Local time";
  byId("zone").title = "Show times in UTC or in the local zone (U)";
}

function setLink(state, text) {
  byId("link").dataset.state = state;
  show(byId("link"), text);
}

fleet.addEventListener("link", ({ detail: { state, text } }) => {
  show(byId("banner"), state === "up" ? "" : `${text}. Trying again …`);
  setLink(state === "up" ? "idle" : "bad", state === "up" ? "Connected" : "Fleet away");
  if (state === "up") {
    refresh(true);
    stage.player.reload();
  }
});
fleet.addEventListener("list", () => {
  rows.layout();
  showCount();
  const index = scene.device === null ? 0 : fleet.indexOf(scene.device);
  if (index >= 0 && !(rows.active === index && scene.device === fleet.name(index))) {
    choose(index); // Rows have moved, or nothing was chosen yet.
  }
  want();
});
fleet.addEventListener("change", () => {
  rows.draw();
  showFacts();
  scheduleLists();
});

let listsTimer = 0;
function scheduleLists() {
  listsTimer ||= setTimeout(() => {
    listsTimer = 0;
    showLists();
  }, 100);
}

let seenTimer = 0;
rows.addEventListener("seen", () => { // Rows that are only scrolled past are not asked for.
  clearTimeout(seenTimer);
  seenTimer = setTimeout(() => {
    want();
    wantEvents();
    scheduleLists();
  }, 80);
});

navigator.addEventListener("view", () => {
  if (!gestures.isDragging) {
    want();
  }
  rows.draw();
});
["cursor", "selection"].forEach((name) => navigator.addEventListener(name, () => rows.draw()));
navigator.addEventListener("zone", () => {
  showZone();
  rows.draw();
});
navigator.addEventListener("settled", () => {
  want();
  wantEvents();
  showLists();
  say();
});

let searchTimer = 0;
async function search() {
  clearTimeout(searchTimer);
  const text = byId("search").value.trim();
  if (text !== fleet.search) {
    byId("rows").scrollTop = 0;
    rows.active = 0;
    await fleet.list(text);
    rows.layout();
    showCount();
  }
}
byId("search").addEventListener("input", () => {
  clearTimeout(searchTimer);
  searchTimer = setTimeout(search, SEARCH);
});
byId("search").addEventListener("keydown", async (event) => {
  if (event.key === "Enter" || event.key === "ArrowDown") {
    event.preventDefault();
    await search();
    byId("rows").focus();
  }
});
byId("track").addEventListener("change", () => {
  fleet.setTrack(byId("track").value);
  want();
  wantEvents();
});

function refresh(isAll) {
  for (const block of wantedBlocks()) {
    block.refresh(scene.view, isAll).catch(() => {}); // The fleet has said so.
  }
}

setInterval(() => {
  if (document.hidden) {
    return;
  }
  const isAll = ++refreshes % RELIST === 0;
  if (isAll || fleet.state !== "up") {
    fleet.relist();
  }
  refresh(isAll);
}, REFRESH);

/** The edge moves by less than half a pixel for a while: then there is nothing to draw. */
function animate() {
  const before = scene.now;
  navigator.tick();
  if ((scene.now - before) / navigator.span > 0.5 / Math.max(1, rows.timeBox().width)) {
    rows.draw();
  } else {
    scene.now = before;
  }
  requestAnimationFrame(animate);
}

async function start() {
  source.path = "/api/fleet";
  scene.now = live.now();
  navigator.setView(viewAround(live.now(), DAY, 0.95), false);
  const { device, cursor } = navigator.restore();
  showZone();
  byId("video").muted = true;
  animate();
  await fleet.list("");
  rows.layout();
  showCount();
  await goTo(device, cursor);
}

/** To what the address says. */
async function goTo(device, cursor) {
  if (device && fleet.indexOf(device) < 0) { // It may be on a later page.
    byId("search").value = device;
    await fleet.list(device);
  }
  const index = device ? fleet.indexOf(device) : -1;
  if (index >= 0) {
    rows.reveal(index);
    choose(index);
  }
  if (Number.isFinite(cursor) && !(Number.isFinite(scene.cursor) && isoTime(cursor) === isoTime(scene.cursor))) {
    stage.seek(cursor);
  }
}

addEventListener("hashchange", () => {
  const { device, cursor } = navigator.restore();
  goTo(device, cursor);
});

start();
