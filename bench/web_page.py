#!/usr/bin/env python3
"""Measures the page of calvane-web in headless Chromium: its size, the first timeline of a card with millions of records, the
first picture after a click, and the frames while a timeline of 100,000 stretches is dragged.

Makes a bus and a card of its own, on which a generated camera records. "Theirs" are the limits that were set."""
import argparse
import gzip
import os
import pathlib
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from measure import Failure, add_extent
from table import print_table

ROOT = pathlib.Path(__file__).resolve().parent.parent
DEVICE = "[device]\nmodel.name = Bench\nserial.number = 1\n"
RECORDS_OF_SECOND = 50  # Of the audio track of calvane_recorder_fill, which has the most.
DAY = 86400
# What the browser itself takes here.
FIRST_FRAME = "const done = arguments[0]; requestAnimationFrame(() => done(performance.now()));"
# From the navigation to the frame in which all lanes show something that is recorded.
FIRST_TIMELINE = """
const done = arguments[arguments.length - 1];
const canvas = document.querySelector("#timeline"), context = canvas.getContext("2d", {alpha: false});
const wanted = getComputedStyle(canvas).getPropertyValue("--reason-0").match(/[0-9a-f]{2}/g).map((each) => parseInt(each, 16));
const isDrawn = (y) => {
  const {data} = context.getImageData(0, y * devicePixelRatio, canvas.width, 1);
  for (let i = 0; i < data.length; i += 4) {
    if (wanted.every((each, part) => data[i + part] === each)) {
      return true;
    }
  }
  return false;
};
const look = () => (canvas.height > 150 && [55, 91, 127].every(isDrawn) ? done(performance.now()) : requestAnimationFrame(look));
look();"""
# From the click to a frame of the time that was clicked.
FIRST_PICTURE = """
const [x, done] = arguments;
const video = document.querySelector("video"), canvas = document.querySelector("#timeline"), box = canvas.getBoundingClientRect();
const at = {clientX: box.left + x * box.width, clientY: box.top + 60, bubbles: true, pointerId: 1, button: 0};
canvas.setPointerCapture = () => {};
const begin = performance.now();
video.requestVideoFrameCallback((now) => done(now - begin));
canvas.dispatchEvent(new PointerEvent("pointerdown", at));
canvas.dispatchEvent(new PointerEvent("pointerup", at));"""
# Draws frames of a view that moves, over so many stretches that are not summarised.
DRAG = """
const [frames, done] = arguments;
import("./timeline.js").then(({Timeline, emptyScene}) => {
  const count = 100000, flat = {count, from: new Float64Array(count), to: new Float64Array(count), reason: new Uint8Array(count), share: new Float32Array(count)};
  for (let i = 0; i < count; ++i) {
    flat.from[i] = i * 1000;
    flat.to[i] = i * 1000 + 1000;
    flat.reason[i] = i % 3 === 2 ? 4 : 0;
    flat.share[i] = i % 3 === 2 ? 0 : 1;
  }
  const coverage = Object.assign(new EventTarget(), {pieces: (_, view) => [{from: view.from, to: view.to, flat}]});
  const scene = Object.assign(emptyScene(), {view: {from: 0, to: 1e8}, now: 1e8});
  const canvas = document.createElement("canvas");
  document.querySelector("#timeline-frame").append(canvas);
  canvas.style.width = "100%";
  const tracks = ["video", "audio", "metadata"].map((name) => ({name, title: name}));
  const timeline = new Timeline(canvas, tracks, coverage, scene);
  const work = [], between = [];
  let last = 0;
  const step = (now) => {
    const begin = performance.now();
    scene.view = {from: scene.view.from + 3e4, to: scene.view.to + 3e4};
    timeline.drawNow();
    work.push(performance.now() - begin);
    if (last) between.push(now - last);
    last = now;
    work.length < frames ? requestAnimationFrame(step) : done([work, between]);
  };
  requestAnimationFrame(step);
});"""


def why_not():
    """What is missing here, or nothing."""
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        return "there is no Chromium with its driver"
    try:
        import selenium  # noqa: F401, PLC0415
    except ImportError:
        return "/usr/bin/python3 has no selenium"
    return None


def fill(binaries, card, records):
    os.mkdir(card)
    subprocess.run([os.path.join(binaries, "calvane_recorder_fill"), card, "Bench,1", str(records // RECORDS_OF_SECOND),
                    str(16 << 20), "10", "20"], check=True)
    return card


def high(values):
    """What 95 % of them do not exceed."""
    return sorted(values)[max(0, int(len(values) * 0.95) - 1)]


class Page:
    def __init__(self, browser, url, iso):
        self._browser, self._url, self._iso = browser, url, iso

    def open(self, place=""):
        self._browser.get("about:blank")
        self._browser.get(self._url + place)

    def place(self, seconds):
        now = time.time()
        return f"#from={self._iso(now - seconds)}&to={self._iso(now)}&zone=utc"

    def first_timelines(self, place, rounds, is_cached):
        self._browser.execute_cdp_cmd("Network.enable", {})
        self._browser.execute_cdp_cmd("Network.setCacheDisabled", {"cacheDisabled": not is_cached})
        times = []
        for _ in range(rounds):
            self.open(place)
            times.append(self._browser.execute_async_script(FIRST_TIMELINE))
            time.sleep(0.3)
        self._browser.execute_cdp_cmd("Network.setCacheDisabled", {"cacheDisabled": False})
        return times

    def first_frames(self, rounds):
        """Of an answer of two letters."""
        times = []
        for _ in range(rounds):
            self.open("healthz")
            times.append(self._browser.execute_async_script(FIRST_FRAME))
        return times

    def first_pictures(self, rounds):
        times = []
        for i in range(rounds):
            self.open(self.place(20))
            time.sleep(1)
            times.append(self._browser.execute_async_script(FIRST_PICTURE, 0.2 + 0.5 * i / rounds))
        return times

    def drag(self, frames):
        self.open(self.place(20))
        return self._browser.execute_async_script(DRAG, frames)


def measure(page, folder, records, days, rounds):
    sizes = [(len(content), len(gzip.compress(content))) for content in (each.read_bytes() for each in folder.iterdir())]
    plain, packed = (sum(size) / 1024 for size in zip(*sizes))
    rows = [("the page as transferred; the limit", packed, 100, "KiB", 1.0), ("the page's files", plain, None, "KiB", None),
            ("first frame of a text of two letters", statistics.median(page.first_frames(rounds)), None, "ms", None)]
    for what, place in (("the newest", ""), (f"{days:g} days", page.place(days * DAY))):
        for how, is_cached in (("nothing cached", False), ("cached", True)):
            times = page.first_timelines(place, rounds, is_cached)
            rows.append((f"first timeline, {records / 1e6:g} million records, {what}, {how}; the limit",
                         statistics.median(times), 300, "ms", 1.0))
    pictures = page.first_pictures(rounds)
    work, between = page.drag(30 * rounds)
    return rows + [("first picture after a click; the limit", statistics.median(pictures), 250, "ms", 1.0),
                   ("the same, 95 % of them", high(pictures), 250, "ms", None),
                   ("dragging 3 x 100,000 stretches, work of a frame, 95 % of them; a frame", high(work), 1000 / 60, "ms", 1.0),
                   ("the same, from frame to frame, median", statistics.median(between), 1000 / 60, "ms", 1.1)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default="build/bench", help="folder of the build")
    add_extent(parser, "a tenth of the records")
    options = parser.parse_args()
    if reason := why_not():
        print(f"SKIPPED, the page in a browser: {reason}; ./dev setup installs it")
        return 0
    binaries = os.path.abspath(os.path.join(options.build, "bin"))
    # In so many days the records must be wide enough to be seen.
    records, days, rounds = {"full": (10_000_000, 365, 10), "quick": (1_000_000, 30, 6), "smoke": (10_000, 0.1, 1)}[options.extent]
    os.environ["CALVANE_BIN_DIR"] = binaries
    sys.path.insert(0, str(ROOT / "tests" / "web"))
    import browser_test  # noqa: PLC0415
    import harness  # noqa: PLC0415

    with tempfile.TemporaryDirectory(prefix="calvane-bench-", dir=os.environ.get("TMPDIR", "/var/tmp")) as folder:
        os.environ["DRENN_DEVICE_INFORMATION"] = os.path.join(folder, "device.ini")
        pathlib.Path(os.environ["DRENN_DEVICE_INFORMATION"]).write_text(DEVICE, encoding="ascii")
        device = harness.Device(fill(binaries, os.path.join(folder, "card"), records))
        browser = browser_test.open_browser(folder)
        try:
            begin = device.seconds_recorded()
            harness.wait_until(lambda: device.seconds_recorded() > begin + 21, "a recording", 60)
            page = Page(browser, device.start_web().url, browser_test.iso)
            load = os.getloadavg()[0]
            rows = measure(page, pathlib.Path(harness.PAGE), records, days, rounds)
        finally:
            browser.quit()
            device.close()
    print(f"{platform.system()} {platform.release()} {platform.machine()}, {os.cpu_count()} processors, medians of {rounds} rounds; "
          f"a load of {load:.1f} when it began")
    print_table(rows)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(f"bench: {failure}")
